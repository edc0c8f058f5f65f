#pragma once

#include <array>
#include <system_error>

#include "Fuzz.h"
#include "Platform/IPv4.h"
#include "ZelkorSOCKS5/InterfaceScope.h"
#include "ZelkorSOCKS5/SOCKS5Error.h"
#include "ZelkorTURN/TURNServer.h"

/// The relays of the server's harness: they do as the script says and watch over how they are used.
namespace zk::fuzz {

/// What relays and peers are called. Only the first ones are addresses that a client can be told.
inline const std::array<std::string, 7> names{"198.51.100.1",
                                              "198.51.100.2",
                                              "0.0.0.0",
                                              "proxy.test",
                                              "",
                                              "20:01:0d:b8",
                                              std::string("10.0.0.1\0x", 10)};

struct Datagram {
  Bytes payload;
  std::string ip;
  std::uint16_t port;
};

/// What the relays do next, and what they did.
struct Script {
  std::uint8_t faults = 0;  // bit: 1 first rung fails, 2 second, 4 no thread, 8 send fails
  std::string address = names[0];
  int openings = 0;
  std::vector<Datagram> sent;
};

struct ScriptedRelay final : TURNRelay {
  explicit ScriptedRelay(Script& itsScript) : script(itsScript) {}
  Script& script;
  TURNRelayDataPlane::Handler handler;
  bool isOpen = false;
  int closings = 0;

  RelayedAddress allocateRelay() override {
    const bool isSecond = script.openings++ % 2 == 1;
    require(InterfaceScope::modeOverride == isSecond, "pinned first, then by the default route");
    if ((script.faults & (isSecond ? 2 : 1)) != 0) {
      throw SOCKS5Error::connectionFailed("scripted");
    }
    isOpen = true;
    return {script.address, 40000};
  }
  void sendAll(std::span<const PeerDatagram> datagrams) override {
    require(isOpen && closings == 0, "only an open relay sends");
    for (const auto& [payload, ip, port] : datagrams) {
      script.sent.push_back({joined({payload}), ip, port});
    }
    if ((script.faults & 8) != 0) {
      throw SOCKS5Error::connectionFailed("scripted");
    }
  }
  void receive(Handler itsHandler) override {
    require(isOpen && closings == 0 && !handler, "receive() once, on an open relay");
    if ((script.faults & 4) != 0) {
      throw std::system_error(EAGAIN, std::generic_category());
    }
    handler = std::move(itsHandler);
  }
  void close() override { ++closings; }
};

struct ScriptedFactory final : TURNRelayFactory {
  explicit ScriptedFactory(Script& itsScript) : script(itsScript) {}
  Script& script;
  std::vector<std::pair<FiveTuple, std::shared_ptr<ScriptedRelay>>> made;
  std::shared_ptr<TURNRelay> makeRelay(const FiveTuple& client) override {
    return made.emplace_back(client, std::make_shared<ScriptedRelay>(script)).second;
  }
};

}  // namespace zk::fuzz
