#include "Loopback/STUNResponder.h"

#include <array>

#include "ZelkorTURN/TURNAttributes.h"
#include "ZelkorTURN/TURNMessage.h"

namespace zk::loopback {
namespace {

using Answer = STUNScript::Answer;

constexpr std::uint16_t methodBinding = 0x001;

// Family 2, a port, and sixteen octets that a reader must skip.
constexpr std::array<std::uint8_t, 20> ipv6Mapped{0x00, 0x02, 0x12, 0x34, 0x20, 0x01, 0x0D, 0xB8};

Bytes makeAnswer(const STUNScript& script, const TURNMessage& request, const Endpoint& from) {
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
  answer.append(TURNAttr::xorMappedAddress,
                TURNAttributes::encodeXorAddress(endpointAt(
                    script.mappedIP.value_or(from.ip()), script.mappedPort.value_or(from.port))));
  Bytes wire = answer.encode();
  if (script.answer == Answer::truncated) {
    wire.resize(wire.size() - 3);
  }
  return wire;
}

}  // namespace

void STUNResponder::take(const Arrival& arrival) {
  const auto request = TURNMessage::decode(arrival.datagram);
  if (!request || request->method != methodBinding || request->klass != TURNClass::request) {
    return;
  }
  ++requests_;
  if (script_.answer == Answer::silence || arrival.datagram.size() > script_.largest) {
    return;
  }
  service_.thread().loop().after(
      script_.delay, [&socket = service_.socket(), how = script_.answer, from = arrival.from,
                      wire = makeAnswer(script_, *request, arrival.from)] {
        if (how == Answer::garbageFirst) {
          socket.send(bytesOf("not a STUN message at all"), from);
        }
        socket.send(wire, from);
        if (how == Answer::duplicate) {
          socket.send(wire, from);
        }
      });
}

void STUNResponder::setScript(STUNScript script) {
  service_.thread().sync([&] { script_ = std::move(script); });
}

std::size_t STUNResponder::requests() const {
  return service_.thread().ask([&] { return requests_; });
}

}  // namespace zk::loopback
