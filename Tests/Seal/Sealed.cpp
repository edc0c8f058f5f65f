// Runs a command in a seal for which nobody carries anything, and says on standard error what the
// command sent: the seal alone, without a proxy.

#include <cstdio>
#include <map>

#include "Base/Bytes.h"
#include "Base/Endpoint.h"
#include "Platform/Clock.h"
#include "ZelkorSeal/Seal.h"
#include "ZelkorSeal/Tun.h"

namespace {

using namespace zk;

class Sink final : public EventLoop::Source {
 public:
  explicit Sink(Descriptor tun) : tun_(std::move(tun)) {}
  int descriptor() const { return tun_.descriptor(); }
  void onReadable() override {
    std::uint8_t room[65536];
    const auto packet = tun_.read(room);
    if (packet.size() >= Packet::ipv4HeaderSize) {
      const Endpoint to{readUInt32(packet, 16), 0};
      ++counts_[packet[0] >> 4 == 4 ? to.ip() : "IPv6"];
    }
  }
  void print() const {
    for (const auto& [to, count] : counts_) {
      std::fprintf(stderr, "sent %zu to %s\n", count, to.c_str());
    }
  }

 private:
  const Tun tun_;
  std::map<std::string, std::size_t> counts_;
};

}  // namespace

int main(int argc, char** argv) try {
  const bool keepsBus = argc > 1 && std::string(argv[1]) == "--keep-bus";
  Seal seal({{argv + 1 + keepsBus, argv + argc}, {}, keepsBus});
  SealDescriptors made = seal.takeDescriptors();
  EventLoop loop(monotonicNanoseconds);
  Sink sink(std::move(made.tun));
  loop.watch(sink.descriptor(), sink);
  int status = 0;
  seal.start(loop, [&](int ended) {
    status = ended;
    loop.stop();
  });
  loop.run();
  sink.print();
  return status;
} catch (const SealFailure& failure) {
  std::fprintf(stderr, "zkturn: %s\n", failure.what());
  return 125;
}
