#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "Loopback/EchoPeer.h"
#include "Loopback/TURNClient.h"

namespace zk::soak {

using loopback::EchoPeer;
using loopback::TURNClient;
using std::chrono::milliseconds;

/// What many threads count together.
struct Tally {
  std::atomic<std::uint64_t> sent{0};      // towards the peer
  std::atomic<std::uint64_t> lost{0};      // of those, the ones that never came back
  std::atomic<std::uint64_t> rounds{0};    // clients that came and went
  std::atomic<std::uint64_t> failures{0};  // requests that were not answered with success
};

/// One client's datagrams to `peer` and back, `count` of them with at most `window` under way, in
/// the form of a Send indication, or of ChannelData on `channel` unless that is 0.
void exchange(TURNClient& client, const EchoPeer& peer, std::uint16_t channel, std::size_t count,
              std::size_t window, Tally& tally);

/// One client's whole life: a port of its own, an allocation, some data, and the release.
void comeAndGo(std::uint16_t server, const EchoPeer& peer, std::size_t datagrams, Tally& tally);

/// Clients at full rate, and clients that come and go, for as long as this lives.
class FullLoad {
 public:
  FullLoad(std::uint16_t server, const EchoPeer& peer, Tally& tally);
  ~FullLoad();
  FullLoad(const FullLoad&) = delete;
  FullLoad& operator=(const FullLoad&) = delete;

 private:
  std::atomic<bool> ending_{false};
  std::vector<std::thread> threads_;
};

/// `count` Allocate requests without credentials from `ports` source ports. The ones answered.
std::size_t storm(std::uint16_t server, std::size_t ports, std::size_t count);

}  // namespace zk::soak
