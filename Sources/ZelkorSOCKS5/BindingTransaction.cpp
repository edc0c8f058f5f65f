#include "ZelkorSOCKS5/BindingTransaction.h"

#include <algorithm>

#include <poll.h>

#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"

namespace zk {
namespace {

using Clock = Deadline::clock;

// RFC 5389 section 15: a server passes over attributes of this half of the range that it does not
// know. Nobody knows this one.
constexpr std::uint16_t paddingAttribute = 0xFFF0;

}  // namespace

template <typename Server>
std::ptrdiff_t BindingTransaction::sendTo(const Server& server, std::size_t size) {
  Bytes request(binding_.request.begin(), binding_.request.end());
  if (size > request.size()) {
    const std::size_t padding = size - request.size();  // an attribute, with its header
    request.resize(size);
    writeUInt16(&request[2], static_cast<std::uint16_t>(padding));
    writeUInt16(&request[20], paddingAttribute);
    writeUInt16(&request[22], static_cast<std::uint16_t>(padding - STUN::attributeHeaderSize));
  }
  sentAt_ = Clock::now();
  return socket_.send(SOCKS5UDPFrame::wrap(request, server), relay_);
}

std::ptrdiff_t BindingTransaction::send(const Endpoint& server, std::size_t size) {
  return sendTo(server, size);
}

std::ptrdiff_t BindingTransaction::send(const HostPort& server, std::size_t size) {
  return sendTo(server, size);
}

// The clock is looked at whatever comes: who floods the socket must not keep us.
std::optional<BindingTransaction::Answer> BindingTransaction::await(Until until, Deadline deadline,
                                                                    const StopSignal* stop) {
  do {
    if (waitFor(socket_.descriptor(), POLLIN, deadline, stop) != Wait::ready) {
      return std::nullopt;
    }
    const int received = receiver_.receive(socket_);
    for (std::size_t i = 0; i < static_cast<std::size_t>(std::max(received, 0)); ++i) {
      if (receiver_.sender(i) == relay_) {
        if (const auto answer = judge(receiver_.datagram(i), until)) {
          return answer;
        }
      }
    }
  } while (Clock::now() < deadline);
  return std::nullopt;
}

std::optional<BindingTransaction::Answer> BindingTransaction::judge(ByteView datagram,
                                                                    Until until) const {
  Answer answer{std::nullopt, Clock::now() - sentAt_};
  bool isOurs = false;
  if (const auto frame = SOCKS5UDPFrame::unwrap(datagram)) {
    const ByteView message = frame->payload;
    isOurs = message.size() >= STUN::headerSize &&
             std::equal(binding_.txID.begin(), binding_.txID.end(), message.begin() + 8);
    answer.mapped = STUN::parseXorMappedAddress(message, binding_.txID);
  }
  const bool ends =
      until == Until::datagram || (until == Until::answer && isOurs) || answer.mapped.has_value();
  return ends ? std::optional(answer) : std::nullopt;
}

}  // namespace zk
