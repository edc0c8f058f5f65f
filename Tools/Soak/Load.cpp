#include "Load.h"

#include <algorithm>
#include <array>

namespace zk::soak {
namespace {

constexpr std::size_t payloadSize = 1000;
constexpr milliseconds answerTime{500};

// Together they stay below what the daemon's socket buffer holds: what is lost is then the fault of
// a relay, not of the load.
constexpr std::size_t steadyClients = 4;
constexpr std::size_t steadyWindow = 12;

}  // namespace

void exchange(TURNClient& client, const EchoPeer& peer, std::uint16_t channel, std::size_t count,
              std::size_t window, Tally& tally) {
  Bytes payload(payloadSize);
  std::size_t sent = 0;
  std::size_t back = 0;
  while (back < count) {
    while (sent < count && sent - back < window) {
      if (channel != 0) {
        client.sendChannelData(channel, payload);
      } else {
        client.sendIndication({peer.ip(), peer.port()}, payload);
      }
      ++sent;
    }
    if (client.receiveData(answerTime)) {
      ++back;
    } else {
      tally.lost += sent - back;
      back = sent;
    }
  }
  tally.sent += sent;
}

void comeAndGo(std::uint16_t server, const EchoPeer& peer, std::size_t datagrams, Tally& tally) {
  TURNClient client(server);
  if (!client.allocate().success()) {
    ++tally.failures;
    return;
  }
  exchange(client, peer, 0, datagrams, 1, tally);
  if (!client.refresh(0).success()) {
    ++tally.failures;
  }
  ++tally.rounds;
}

FullLoad::FullLoad(std::uint16_t server, const EchoPeer& peer, Tally& tally) {
  for (std::size_t i = 0; i < steadyClients; ++i) {
    threads_.emplace_back([this, server, &peer, &tally, i] {
      TURNClient client(server);
      const std::uint16_t channel = i % 2 == 0 ? 0x4000 : 0;
      if (!client.allocate().success() ||
          !client.bindChannel(0x4000, {peer.ip(), peer.port()}).success()) {
        ++tally.failures;
        return;
      }
      while (!ending_) {
        exchange(client, peer, channel, 200, steadyWindow, tally);
      }
      client.setTimeout(milliseconds(500));  // the daemon may be gone, which is the point
      client.refresh(0);
    });
  }
  threads_.emplace_back([this, server, &peer, &tally] {
    while (!ending_) {
      comeAndGo(server, peer, 5, tally);
      std::this_thread::sleep_for(milliseconds(20));
    }
  });
}

FullLoad::~FullLoad() {
  ending_ = true;
  for (std::thread& thread : threads_) {
    thread.join();
  }
}

std::size_t storm(std::uint16_t server, std::size_t ports, std::size_t count) {
  constexpr std::size_t burst = 50;
  std::vector<std::unique_ptr<TURNClient>> clients;
  for (std::size_t i = 0; i < ports; ++i) {
    clients.push_back(std::make_unique<TURNClient>(server));
  }
  TURNMessage request = clients[0]->makeRequest(TURNMethod::allocate);
  request.append(TURNAttr::requestedTransport, std::array<std::uint8_t, 4>{17, 0, 0, 0});
  std::size_t answered = 0;
  for (std::size_t sent = 0; sent < count; sent += burst) {
    for (std::size_t i = sent; i < sent + burst; ++i) {
      request.txID[0] = static_cast<std::uint8_t>(i);
      clients[i % ports]->send(request.encode());
    }
    for (std::size_t i = sent; i < sent + burst; ++i) {
      answered += clients[i % ports]->receive(answerTime).has_value();
    }
  }
  return answered;
}

}  // namespace zk::soak
