#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Base/Endpoint.h"

namespace zk {

/// What a seal's programs sent and nobody carried: counts by kind and destination, for people.
class KeptIn {
 public:
  enum class Kind {
    tcp,
    udp,
    privateTCP,
    privateUDP,
    quic,
    multicast,
    broadcast,
    reserved,
    icmp,
    other
  };
  /// So many destinations are told apart.
  static constexpr std::size_t maxDestinations = 1024;
  static constexpr std::size_t maxSentences = 5;

  /// A port of 0 is none.
  void add(Kind kind, const Endpoint& to);

  static const char* name(Kind kind);
  /// "12 multicast to 224.0.0.251:5353": most first, maxSentences at most, the last of which may
  /// stand for all the rest.
  std::vector<std::string> sentences() const;

 private:
  std::map<std::pair<Kind, std::uint64_t>, std::uint64_t> counts_;
  std::uint64_t beyond_ = 0;  // to destinations that are not told apart
};

}  // namespace zk
