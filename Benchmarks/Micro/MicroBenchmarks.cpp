// What the pieces of the data path cost by themselves: nanoseconds, and calls of operator new.

#include <atomic>
#include <filesystem>

#include <benchmark/benchmark.h>
#include <sys/socket.h>

#include "HeapCounter.h"
#include "Loopback/SOCKS5Server.h"
#include "Loopback/TURNClient.h"
#include "Platform/Datagrams.h"
#include "Platform/IPv4.h"
#include "Platform/SerialQueue.h"
#include "Platform/Sockets.h"
#include "Relay/FarSide.h"
#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"
#include "ZelkorTURN/DataPlaneLog.h"
#include "ZelkorTURN/TURNAuth.h"
#include "ZelkorTURN/TURNServer.h"
#include "zkturnd/DebugLog.h"
#include "zkturnd/RelayFactory.h"

namespace zk::bench {
namespace {

constexpr std::size_t payloadSize = 200;
const std::string peer = "203.0.113.7";

// Counts the allocations of the loop that it spans.
class Heap {
 public:
  Heap(benchmark::State& state, double perIteration = 1)
      : state_(state), perIteration_(perIteration), before_(heapAllocations()) {}
  ~Heap() {
    state_.counters["allocs"] = static_cast<double>(heapAllocations() - before_) /
                                (perIteration_ * static_cast<double>(state_.iterations()));
  }

 private:
  benchmark::State& state_;
  const double perIteration_;
  const std::uint64_t before_;
};

TURNMessage dataIndication() {
  TURNMessage message(TURNMethod::dataMsg, TURNClass::indication, {}, payloadSize + 16);
  message.append(TURNAttr::xorPeerAddress, *TURNAttributes::encodeXorAddress(peer, 3478));
  message.append(TURNAttr::data, Bytes(payloadSize));
  return message;
}

TURNMessage signedRequest(const TURNAuth::LongTermKey& key) {
  TURNMessage message(TURNMethod::refresh, TURNClass::request, {});
  message.append(TURNAttr::username, bytesOf("alice"));
  message.append(TURNAttr::realm, bytesOf("example.org"));
  message.append(TURNAttr::nonce, bytesOf("0123456789abcdef0123456789abcdef"));
  TURNAuth::appendMessageIntegrity(message, key);
  return message;
}

void decode(benchmark::State& state) {
  const Bytes wire = dataIndication().encode();
  const Heap heap(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(TURNMessage::decode(wire));
  }
}
BENCHMARK(decode);

void encode(benchmark::State& state) {
  const Bytes payload(payloadSize);
  const Heap heap(state);
  for (auto _ : state) {
    TURNMessage message(TURNMethod::dataMsg, TURNClass::indication, {}, payloadSize + 16);
    message.append(TURNAttr::xorPeerAddress, *TURNAttributes::encodeXorAddress(peer, 3478));
    message.append(TURNAttr::data, payload);
    benchmark::DoNotOptimize(message.encode());
  }
}
BENCHMARK(encode);

void sign(benchmark::State& state) {
  const auto key = TURNAuth::longTermKey("alice", "example.org", "wonderland");
  const Heap heap(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(signedRequest(key));
  }
}
BENCHMARK(sign);

void verify(benchmark::State& state) {
  const auto key = TURNAuth::longTermKey("alice", "example.org", "wonderland");
  const Bytes wire = signedRequest(key).encode();
  const Heap heap(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(TURNAuth::verifyMessageIntegrity(wire, key));
  }
}
BENCHMARK(verify);

void wrap(benchmark::State& state) {
  const Bytes payload(payloadSize);
  const Heap heap(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(SOCKS5UDPFrame::wrap(payload, peer, 3478));
  }
}
BENCHMARK(wrap);

void unwrap(benchmark::State& state) {
  const Bytes frame = SOCKS5UDPFrame::wrap(Bytes(payloadSize), peer, 3478);
  const Heap heap(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(SOCKS5UDPFrame::unwrap(frame));
  }
}
BENCHMARK(unwrap);

// Datagrams over the loopback, sent and received by `state.range(0)` in one call.
void burst(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  const int from = openUDPSocket();
  const int to = openUDPSocket();
  if (!bindSocket(to, socketAddress("127.0.0.1", 0))) {
    state.SkipWithError("no socket");
  }
  const sockaddr_in receiver = localAddress(to);
  const Bytes payload(payloadSize);
  DatagramSender outgoing;
  DatagramReceiver incoming(DatagramReceiver::Senders::noted);
  {
    const Heap heap(state);
    for (auto _ : state) {
      for (std::size_t i = 0; i < size; ++i) {
        outgoing.add({}, payload, receiver);
      }
      benchmark::DoNotOptimize(outgoing.send(from));
      benchmark::DoNotOptimize(incoming.receive(to));
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  closeSocket(from);
  closeSocket(to);
}
BENCHMARK(burst)->Arg(1)->Arg(2)->Arg(4)->Arg(mostPerCall);

// A line of the debug log, its share of the batched writes included.
void debugLogLine(benchmark::State& state) {
  const std::string path = std::filesystem::temp_directory_path() / "zkturnd-microbench.log";
  {
    DebugLog log(path.c_str());
    const LogCallback callback = [&](std::string_view line) { log.appendDebugLog(line); };
    const std::string client = "127.0.0.1";
    const Heap heap(state);
    for (auto _ : state) {
      logLine(callback, FMT_COMPILE("relay rx {}B from {}:{} → client {}:{}"), payloadSize, peer,
              3478, client, 50000);
    }
    log.flush();
  }
  std::filesystem::remove(path);
}
BENCHMARK(debugLogLine);

// A line of the data-plane log, which is in the file when the call returns.
void dataPlaneLogLine(benchmark::State& state) {
  const Heap heap(state);
  for (auto _ : state) {
    zkDPLog(FMT_COMPILE("SEND fd={} → {}:{} {}B sendto={}"), 7, peer, 3478, payloadSize,
            payloadSize + 10);
  }
}
BENCHMARK(dataPlaneLogLine);

// From one thread to the queue's and back: submission, wake-up, execution.
void queueHop(benchmark::State& state) {
  SerialQueue queue("zk.bench");
  const Heap heap(state);
  for (auto _ : state) {
    queue.sync([] {});
  }
}
BENCHMARK(queueHop)->UseRealTime();

// The same without waiting for each: what a queued item costs in a burst.
void queueItem(benchmark::State& state) {
  SerialQueue queue("zk.bench");
  const Heap heap(state);
  for (auto _ : state) {
    queue.async([] {});
  }
  queue.sync([] {});
}
BENCHMARK(queueItem)->UseRealTime();

void queueInPlace(benchmark::State& state) {
  SerialQueue queue("zk.bench");
  const Heap heap(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(queue.runIfIdle([] {}));
  }
}
BENCHMARK(queueInPlace);

// One client of a whole server with a real relay, and one round trip at a time through it, on the
// sockets of the system. The allocations are per datagram: those of both ways, halved.
void roundTrip(benchmark::State& state, const Bytes& datagram, bool withChannel) {
  setenv("ZK_STUN_IPS", "127.0.0.1:3478", 1);
  const FarSide farSide;
  loopback::SOCKS5Script script;
  script.announcePort = farSide.port();
  loopback::SOCKS5Server proxy(script);
  const auto server = std::make_shared<TURNServer>(
      Credentials{"alice", "example.org", "wonderland"}, "example.org",
      std::make_shared<SOCKS5RelayFactory>("127.0.0.1", proxy.port(), std::nullopt, std::nullopt));
  std::atomic<std::size_t> logged{0};
  server->debugLog = [&](std::string_view line) { logged += line.size(); };
  server->start();
  loopback::TURNClient client(server->boundPort());
  const bool ready = client.allocate().success() &&
                     (!withChannel || client.bindChannel(0x4000, {peer, 3478}).success());
  const sockaddr_in to = socketAddress("127.0.0.1", server->boundPort());
  Bytes answer(2048);
  {
    const Heap heap(state, 2);
    for (auto _ : state) {
      if (!ready || sendDatagram(client.socket(), datagram, to) < 0 ||
          pollSocket(client.socket(), 1, 1000) < 1) {
        state.SkipWithError("the relay does not answer");
        break;
      }
      benchmark::DoNotOptimize(recv(client.socket(), answer.data(), answer.size(), 0));
    }
  }
  server->stop();
}

void relayChannelData(benchmark::State& state) {
  Bytes datagram(4 + payloadSize);
  writeUInt16(&datagram[0], 0x4000);
  writeUInt16(&datagram[2], payloadSize);
  roundTrip(state, datagram, true);
}
BENCHMARK(relayChannelData)->UseRealTime();

void relayIndications(benchmark::State& state) {
  TURNMessage message(TURNMethod::send, TURNClass::indication, {});
  message.append(TURNAttr::xorPeerAddress, *TURNAttributes::encodeXorAddress(peer, 3478));
  message.append(TURNAttr::data, Bytes(payloadSize));
  roundTrip(state, message.encode(), false);
}
BENCHMARK(relayIndications)->UseRealTime();

}  // namespace
}  // namespace zk::bench

BENCHMARK_MAIN();
