#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "Base/Bytes.h"
#include "Loopback/DatagramService.h"

namespace zk::loopback {

/// How a STUN server answers Binding requests. The default is a correct one.
struct STUNScript {
  /// The address to report; absent: the true source of the request. The port is the source's
  /// unless `mappedPort` is given.
  std::optional<std::string> mappedIP{};
  std::optional<std::uint16_t> mappedPort{};

  enum class Answer {
    normal,            // a success response with one XOR-MAPPED-ADDRESS
    silence,           // none
    wrongTransaction,  // a success response with a transaction ID that nobody used
    error,             // an error response, 400
    ipv6First,         // an IPv6 XOR-MAPPED-ADDRESS in front of the IPv4 one
    truncated,         // cut in the middle of XOR-MAPPED-ADDRESS
    duplicate,         // the normal one twice
    garbageFirst,      // a datagram of noise, then the normal one
  };
  Answer answer = Answer::normal;
  std::chrono::milliseconds delay{0};  // before the answer
  std::size_t largest = SIZE_MAX;      // octets of a request; those beyond get no answer
};

/// A STUN server (RFC 5389, Binding only, IPv4) on a thread of its own. Any thread.
class STUNResponder {
 public:
  /// Binds `ip`:`port`, 0 meaning any free port. Throws std::system_error.
  explicit STUNResponder(STUNScript script = {}, const std::string& ip = "127.0.0.1",
                         std::uint16_t port = 0)
      : script_(std::move(script)),
        service_("kit.stun", ip, port, [this](const Arrival& arrival) { take(arrival); }) {}

  std::uint16_t port() const { return service_.endpoint().port; }
  /// Address and port as an entry of ZK_STUN_IPS.
  std::string target() const { return service_.endpoint().text(); }
  void setScript(STUNScript script);
  /// Binding requests that have arrived, answered or not.
  std::size_t requests() const;

 private:
  void take(const Arrival& arrival);

  // These belong to the service's thread.
  STUNScript script_;
  std::size_t requests_ = 0;
  DatagramService service_;
};

}  // namespace zk::loopback
