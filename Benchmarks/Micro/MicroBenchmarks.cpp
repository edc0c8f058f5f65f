// What the codecs cost by themselves: nanoseconds, and calls of operator new.

#include <benchmark/benchmark.h>

#include "HeapCounter.h"
#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"
#include "ZelkorTURN/TURNAttributes.h"
#include "ZelkorTURN/TURNAuth.h"
#include "ZelkorTURN/TURNMessage.h"

namespace zk::bench {
namespace {

constexpr std::size_t payloadSize = 200;
constexpr Endpoint peer{0xCB007107, 3478};

// Counts the allocations of the loop that it spans.
class Heap {
 public:
  explicit Heap(benchmark::State& state) : state_(state), before_(heapAllocations()) {}
  ~Heap() {
    state_.counters["allocs"] =
        static_cast<double>(heapAllocations() - before_) / static_cast<double>(state_.iterations());
  }

 private:
  benchmark::State& state_;
  const std::uint64_t before_;
};

TURNMessage dataIndication() {
  TURNMessage message(TURNMethod::dataMsg, TURNClass::indication, {}, payloadSize + 16);
  message.append(TURNAttr::xorPeerAddress, TURNAttributes::encodeXorAddress(peer));
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
    message.append(TURNAttr::xorPeerAddress, TURNAttributes::encodeXorAddress(peer));
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
    benchmark::DoNotOptimize(SOCKS5UDPFrame::wrap(payload, peer));
  }
}
BENCHMARK(wrap);

void unwrap(benchmark::State& state) {
  const Bytes frame = SOCKS5UDPFrame::wrap(Bytes(payloadSize), peer);
  const Heap heap(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(SOCKS5UDPFrame::unwrap(frame));
  }
}
BENCHMARK(unwrap);

}  // namespace
}  // namespace zk::bench

BENCHMARK_MAIN();
