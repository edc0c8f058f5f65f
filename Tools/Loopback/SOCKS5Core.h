#pragma once

#include <array>
#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Loopback/EventLoop.h"
#include "Loopback/SOCKS5Script.h"
#include "Loopback/SOCKS5Server.h"

namespace zk::loopback {

class SOCKS5Connection;
class SOCKS5Association;

/// What the proxy, its connections and its associations share. All of it belongs to the loop's
/// thread.
struct SOCKS5Core {
  EventLoop& loop;
  std::string ip;
  SOCKS5Script script;
  SOCKS5Server::Counts counts{};
  std::map<std::size_t, std::shared_ptr<SOCKS5Connection>> connections{};
  std::map<std::size_t, std::unique_ptr<SOCKS5Association>> associations{};
  std::vector<Bytes> controlBytes{};         // by number of the connection
  std::vector<std::vector<Bytes>> frames{};  // by number of the association
  std::array<std::uint8_t, 65536> buffer{};
};

}  // namespace zk::loopback
