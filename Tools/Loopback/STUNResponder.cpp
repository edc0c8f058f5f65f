#include "Loopback/STUNResponder.h"

#include <array>

#include "Base/IPv4.h"
#include "ZelkorTURN/TURNAttributes.h"
#include "ZelkorTURN/TURNMessage.h"

namespace zk::loopback {
namespace {

using Answer = STUNScript::Answer;

constexpr std::uint16_t methodBinding = 0x001;

// Family 2, a port, and sixteen octets that a reader must skip.
constexpr std::array<std::uint8_t, 20> ipv6Mapped{0x00, 0x02, 0x12, 0x34, 0x20, 0x01, 0x0D, 0xB8};

Bytes makeAnswer(const STUNScript& script, const TURNMessage& request, const sockaddr_in& from) {
  TURNMessage answer(methodBinding, TURNClass::successResponse, request.txID);
  if (script.answer == Answer::error) {
    answer.klass = TURNClass::errorResponse;
    answer.append(TURNAttr::errorCode, TURNAttributes::encodeErrorCode(TURNAttributes::badRequest));
    return answer.encode();
  }
  if (script.answer == Answer::wrongTransaction) {
    answer.txID[0] ^= 0xFF;
  }
  if (script.answer == Answer::ipv6First) {
    answer.append(TURNAttr::xorMappedAddress, ipv6Mapped);
  }
  const auto mapped = TURNAttributes::encodeXorAddress(
      script.mappedIP.value_or(addressText(from)), script.mappedPort.value_or(portNumber(from)));
  if (mapped) {
    answer.append(TURNAttr::xorMappedAddress, *mapped);
  }
  Bytes wire = answer.encode();
  if (script.answer == Answer::truncated) {
    wire.resize(wire.size() - 3);
  }
  return wire;
}

}  // namespace

STUNResponder::STUNResponder(STUNScript script, const std::string& ip, std::uint16_t port)
    : ip_(ip),
      socket_(KitSocket::boundUDP(ip, port)),
      port_(portNumber(socket_.localAddress())),
      script_(std::move(script)) {
  loop_.sync([this] { loop_.watch(socket_.get(), [this] { takeDatagrams(); }); });
}

void STUNResponder::takeDatagrams() {
  while (const auto arrival = socket_.receive(buffer_)) {
    const auto request = TURNMessage::decode(arrival->datagram);
    if (!request || request->method != methodBinding || request->klass != TURNClass::request) {
      continue;
    }
    ++requests_;
    if (script_.answer == Answer::silence) {
      continue;
    }
    loop_.after(script_.delay, [this, how = script_.answer, from = arrival->from,
                                wire = makeAnswer(script_, *request, arrival->from)] {
      if (how == Answer::garbageFirst) {
        socket_.send(bytesOf("not a STUN message at all"), from);
      }
      socket_.send(wire, from);
      if (how == Answer::duplicate) {
        socket_.send(wire, from);
      }
    });
  }
}

void STUNResponder::setScript(STUNScript script) {
  loop_.sync([&] { script_ = std::move(script); });
}

std::size_t STUNResponder::requests() const {
  return loop_.ask([&] { return requests_; });
}

}  // namespace zk::loopback
