#pragma once

#include <memory>
#include <optional>

#include "Platform/Clock.h"
#include "Relay/Report.h"
#include "Run/Lab.h"

namespace zk::bench {

struct Options {
  int rounds = 7;
  unsigned milliseconds = 200;
  std::string only;
};

/// Who is compared, and the far host that they all reach.
struct Comparison {
  std::unique_ptr<FarHost> far = FarHost::make();
  Way direct = Way::direct();
  Way sealed = Way::sealed();
  std::optional<Way> gate = Way::bareGate();
};

inline double secondsSince(std::uint64_t start) {
  return static_cast<double>(monotonicNanoseconds() - start) / 1e9;
}

// Each prints its rows, and has the verdict check them. Streams.cpp:
void compareDownloads(Comparison& all, const Options& options, Verdict& verdict);
void comparePages(Comparison& all, const Options& options, Verdict& verdict);
void measureQuiet(Comparison& all, const Options& options, Verdict& verdict);

// Datagrams.cpp:
void compareDatagrams(Comparison& all, const Options& options, Verdict& verdict);
void compareCalls(Comparison& all, const Options& options, Verdict& verdict);
void measureRelays(Comparison& all, const Options& options, Verdict& verdict);
void measureBurst(Comparison& all, const Options& options, Verdict& verdict);
void measureCrowd(Comparison& all, const Options& options, Verdict& verdict);

}  // namespace zk::bench
