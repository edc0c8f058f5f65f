#pragma once

#include <array>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Loopback/KitSocket.h"
#include "Loopback/LoopThread.h"
#include "Loopback/SOCKS5Script.h"
#include "Loopback/SOCKS5Server.h"
#include "Platform/StreamBridge.h"

namespace zk::loopback {

class SOCKS5Connection;
class SOCKS5Association;

/// What the proxy, its connections and its associations share. All of it belongs to the loop's
/// thread.
struct SOCKS5Core {
  SOCKS5Core(const std::string& onIP, std::uint16_t port, SOCKS5Script withScript)
      : ip(onIP), script(std::move(withScript)), listener(KitSocket::listener(onIP, port)) {}

  SOCKS5Association* association(std::size_t number) {
    const auto found = associations.find(number);
    return found == associations.end() ? nullptr : found->second.get();
  }

  LoopThread thread{"kit.socks5"};  // first, as the others leave it when they go
  EventLoop& loop = thread.loop();
  const std::string ip;
  SOCKS5Script script;
  KitSocket listener;
  std::optional<Watch> accepting{};
  SOCKS5Server::Counts counts{};
  ConduitPool conduits{};
  std::map<std::size_t, std::unique_ptr<SOCKS5Association>> associations{};
  std::map<std::size_t, std::shared_ptr<SOCKS5Connection>> connections{};
  std::vector<Bytes> controlBytes{};         // by number of the connection
  std::vector<std::vector<Bytes>> frames{};  // by number of the association
  std::array<std::uint8_t, 65536> buffer{};
};

}  // namespace zk::loopback
