#pragma once

#include <functional>
#include <map>
#include <system_error>

#include "Fuzz.h"
#include "Platform/IPv4.h"
#include "ZelkorSOCKS5/SOCKS5Error.h"
#include "ZelkorTURN/TURNServer.h"

/// The relays of the server's harness: they do as they were told when they were made, and watch
/// over how they are used.
namespace zk::fuzz {

struct Datagram {
  Bytes payload;
  std::string ip;
  std::uint16_t port;
  bool operator==(const Datagram&) const = default;
};

struct ScriptedRelay final : TURNRelay {
  // What all of them share.
  struct Script {
    bool firstFails = false;
    bool secondFails = false;
    bool receiveFails = false;
    std::string address = "198.51.100.1";
    std::function<void()> whileOpening;                      // beside which the loop goes on
    std::function<void(const ScriptedRelay&, bool)> opened;  // at the end, with or without success
    std::map<std::uint16_t, ScriptedRelay*> live;            // those in use, by the client's port
    std::map<std::uint16_t, std::vector<Datagram>> sent;
    std::size_t alive = 0;
  };

  ScriptedRelay(Script& itsScript, const FiveTuple& itsClient)
      : script(itsScript), plan(itsScript), client(itsClient.clientPort) {
    ++script.alive;
  }
  ~ScriptedRelay() {
    close();
    --script.alive;
  }

  RelayedAddress allocateRelay(const OpeningAttempt& attempt) override {
    script.whileOpening();
    const bool fails = attempt.viaDefault ? plan.secondFails : plan.firstFails;
    if (attempt.viaDefault || (!fails && isDottedQuad(plan.address))) {
      script.opened(*this, !fails && isDottedQuad(plan.address));
    }
    if (fails) {
      throw SOCKS5Error::connectionFailed("scripted");
    }
    return {plan.address, 40000};
  }
  void receive(const RelayLoop& /*loop*/, RelayListener& itsListener) override {
    require(listener == nullptr && !isClosed, "receive() once, on an open relay");
    if (plan.receiveFails) {
      throw std::system_error(EAGAIN, std::generic_category());
    }
    listener = &itsListener;
    require(script.live.emplace(client, this).second, "one relay for a client");
  }
  void sendAll(std::span<const PeerDatagram> datagrams) override {
    require(listener != nullptr && !isClosed, "only a relay that is in use sends");
    for (const auto& [payload, ip, port] : datagrams) {
      script.sent[client].push_back({joined({payload}), ip, port});
    }
  }
  void onRouteChange(const RouteCheck& /*hasRoute*/) override {}
  bool isCutOff() const override { return false; }
  void close() override {
    if (listener != nullptr && !isClosed) {
      script.live.erase(client);
    }
    isClosed = true;
  }

  Script& script;
  const Script plan;
  const std::uint16_t client;
  RelayListener* listener = nullptr;
  bool isClosed = false;
};

struct ScriptedFactory final : TURNRelayFactory {
  explicit ScriptedFactory(ScriptedRelay::Script& itsScript) : script(itsScript) {}
  ScriptedRelay::Script& script;
  std::shared_ptr<TURNRelay> makeRelay(const FiveTuple& client) override {
    return std::make_shared<ScriptedRelay>(script, client);
  }
};

}  // namespace zk::fuzz
