#include "Floor.h"

#include <cstdio>
#include <thread>

#include <sys/socket.h>
#include <unistd.h>

#include "Loopback/KitSocket.h"

namespace zk::bench {
namespace {

[[noreturn]] void forward(int from, int to, const sockaddr_in* fixedTarget, sockaddr_in* learned) {
  static thread_local std::uint8_t buffer[65536];
  while (true) {
    sockaddr_in sender{};
    socklen_t length = sizeof sender;
    const ssize_t n =
        recvfrom(from, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&sender), &length);
    if (n < 0) {
      _exit(1);
    }
    if (learned != nullptr) {
      *learned = sender;
    }
    sendto(to, buffer, static_cast<std::size_t>(n), 0,
           reinterpret_cast<const sockaddr*>(fixedTarget), sizeof *fixedTarget);
  }
}

}  // namespace

void runFloor(const Endpoint& to) {
  static const auto nearSocket = loopback::KitSocket::boundUDP();
  static const auto farSocket = loopback::KitSocket::boundUDP("0.0.0.0");
  loopback::setBlocking(nearSocket.get(), std::chrono::milliseconds(0));
  loopback::setBlocking(farSocket.get(), std::chrono::milliseconds(0));
  std::printf("%u\n", nearSocket.port());
  std::fflush(stdout);
  const sockaddr_in far = to.socketAddress();
  // Written with the same value for every datagram of the one client, before any answer to it.
  static sockaddr_in client{};
  std::thread([=] { forward(farSocket.get(), nearSocket.get(), &client, nullptr); }).detach();
  forward(nearSocket.get(), farSocket.get(), &far, &client);
}

}  // namespace zk::bench
