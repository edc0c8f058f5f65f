#include "Run/Proxied.h"

#include <fmt/format.h>
#include <netinet/tcp.h>

namespace zk::bench {

Proxied::Proxied(const Endpoint& proxy, Command command, const Endpoint& target)
    : socket(loopback::KitSocket::connectedTCP(proxy)) {
  const int on = 1;
  setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  const auto ask = [this](const Bytes& message, std::size_t size) {
    Bytes answer(size);
    socket.send(message);
    if (recv(socket.get(), answer.data(), size, MSG_WAITALL) != static_cast<ssize_t>(size) ||
        answer[1] != 0) {
      throw std::runtime_error("the proxy refuses");
    }
    return answer;
  };
  ask({5, 1, 0}, 2);
  Bytes request{5, static_cast<std::uint8_t>(command), 0, 1, 0, 0, 0, 0, 0, 0};
  const auto octets = target.octets();
  std::copy(octets.begin(), octets.end(), request.begin() + 4);
  writeUInt16(&request[8], target.port);
  const Bytes answer = ask(request, request.size());
  bound = {readUInt32(answer, 4), readUInt16(answer, 8)};
}

}  // namespace zk::bench
