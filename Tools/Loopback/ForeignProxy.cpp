#include "Loopback/ForeignProxy.h"

#include <map>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include "Loopback/KitSocket.h"

namespace zk::loopback {
namespace {

using nlohmann::json;

/// Which Debian package each program comes from.
const std::map<std::string, std::string> packages{{"danted", "dante-server"},
                                                  {"v2ray", "v2ray"},
                                                  {"ss-local", "shadowsocks-libev"},
                                                  {"ss-server", "shadowsocks-libev"}};

/// A port that is free for TCP and UDP at that address, or was a moment ago.
std::uint16_t freePort(const std::string& ip) {
  for (;;) {
    const KitSocket stream = KitSocket::listener(ip);
    const std::uint16_t port = stream.port();
    try {
      KitSocket::boundUDP(ip, port);
      return port;
    } catch (const std::system_error&) {  // the next one, then
    }
  }
}

bool accepts(const Endpoint& endpoint) {
  try {
    KitSocket::connectedTCP(endpoint);
    return true;
  } catch (const std::system_error&) {
    return false;
  }
}

}  // namespace

std::string ForeignProxy::hindrance(const std::string& name) {
  for (const std::string& program : {name, std::string(name == "ss-local" ? "ss-server" : name)}) {
    if (findProgram(program).empty()) {
      return fmt::format("needs {}: apt-get install {}", program, packages.at(program));
    }
  }
  return name == "danted" && geteuid() != 0 ? "needs root: sudo scripts/test" : "";
}

ForeignProxy::ForeignProxy(const std::string& name, const std::optional<SOCKS5Login>& login,
                           const std::string& ip)
    : ip_(ip), port_(freePort(ip)) {
  if (name == "danted") {
    startDante(login.has_value());
  } else if (name == "v2ray") {
    startV2Ray(login);
  } else {
    startShadowsocks();
  }
  for (int attempt = 0; !accepts(endpointAt(ip_, port_)); ++attempt) {
    if (attempt == 1000) {
      throw std::runtime_error(name + " does not start: " + output());
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

void ForeignProxy::start(std::vector<std::string> command) {
  command[0] = findProgram(command[0]);
  servers_.push_back(std::make_unique<ChildProcess>(command, ChildProcess::Environment{},
                                                    folder_.path() / "output"));
}

void ForeignProxy::startDante(bool withLogin) {
  const std::string file = folder_.write(
      "danted.conf", fmt::format("logoutput: stdout\ninternal: {0} port = {1}\nexternal: {0}\n"
                                 "clientmethod: none\nsocksmethod: {2}\n"
                                 "user.privileged: root\nuser.unprivileged: nobody\n"
                                 "client pass {{ from: 0.0.0.0/0 to: 0.0.0.0/0 }}\n"
                                 "socks pass {{ from: 0.0.0.0/0 to: 0.0.0.0/0 }}\n",
                                 ip_, port_, withLogin ? "username" : "none"));
  start({"danted", "-f", file, "-p", folder_.path() / "pid"});
}

void ForeignProxy::startV2Ray(const std::optional<SOCKS5Login>& login) {
  json settings{{"udp", true}, {"ip", ip_}, {"auth", login ? "password" : "noauth"}};
  if (login) {
    settings["accounts"] = json::array({{{"user", login->user}, {"pass", login->password}}});
  }
  const json config{
      {"log", {{"loglevel", "warning"}, {"access", "none"}}},
      {"inbounds",
       json::array(
           {{{"listen", ip_}, {"port", port_}, {"protocol", "socks"}, {"settings", settings}}})},
      {"outbounds", json::array({{{"protocol", "freedom"}}})}};
  start({"v2ray", "-config", folder_.write("v2ray.json", config.dump())});
}

void ForeignProxy::startShadowsocks() {
  const std::string remote = std::to_string(freePort("127.0.0.1"));
  const std::vector<std::string> shared{"-s",     "127.0.0.1", "-p",          remote, "-k",
                                        "secret", "-m",        "aes-128-gcm", "-u"};
  std::vector<std::string> server{"ss-server"};
  std::vector<std::string> local{"ss-local", "-b", ip_, "-l", std::to_string(port_)};
  server.insert(server.end(), shared.begin(), shared.end());
  local.insert(local.end(), shared.begin(), shared.end());
  start(server);
  start(local);
}

}  // namespace zk::loopback
