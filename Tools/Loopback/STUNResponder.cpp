#include "Loopback/STUNResponder.h"

#include <array>

#include "Loopback/EventLoop.h"
#include "Loopback/KitSocket.h"
#include "Platform/IPv4.h"
#include "Platform/Sockets.h"
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

struct STUNResponder::State {
  State(STUNScript startScript, const std::string& boundIP, std::uint16_t port)
      : ip(boundIP), socket(openBoundUDPSocket(boundIP, port)), script(std::move(startScript)) {
    loop.sync([this] { loop.watch(socket, [this] { takeDatagrams(); }); });
  }
  ~State() {
    loop.stop();
    closeSocket(socket);
  }

  void takeDatagrams() {
    while (const auto arrival = takeDatagram(socket, buffer)) {
      const auto request = TURNMessage::decode(arrival->datagram);
      if (!request || request->method != methodBinding || request->klass != TURNClass::request) {
        continue;
      }
      ++requests;
      if (script.answer == Answer::silence) {
        continue;
      }
      loop.after(script.delay, [this, now = script, from = arrival->from,
                                wire = makeAnswer(script, *request, arrival->from)] {
        if (now.answer == Answer::garbageFirst) {
          sendDatagram(socket, bytesOf("not a STUN message at all"), from);
        }
        sendDatagram(socket, wire, from);
        if (now.answer == Answer::duplicate) {
          sendDatagram(socket, wire, from);
        }
      });
    }
  }

  // Everything belongs to the loop's thread.
  const std::string ip;
  const int socket;
  STUNScript script;
  std::size_t requests = 0;
  std::array<std::uint8_t, 65536> buffer{};
  EventLoop loop{"kit.stun"};
};

STUNResponder::STUNResponder(STUNScript script, const std::string& ip, std::uint16_t port)
    : state_(std::make_unique<State>(std::move(script), ip, port)),
      port_(portNumber(localAddress(state_->socket))) {}

STUNResponder::~STUNResponder() = default;

std::string STUNResponder::target() const {
  return state_->ip + ":" + std::to_string(port_);
}

void STUNResponder::setScript(STUNScript script) {
  state_->loop.sync([&] { state_->script = std::move(script); });
}

std::size_t STUNResponder::requests() const {
  std::size_t requests = 0;
  state_->loop.sync([&] { requests = state_->requests; });
  return requests;
}

}  // namespace zk::loopback
