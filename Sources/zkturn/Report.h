#pragma once

#include <cstddef>

#include "zkturn/Check.h"
#include "zkturn/Look.h"

namespace zk {

/// Prints findings on standard output: for people, step by step as they come, with colours and a
/// progress bar on a terminal; or for programs, as one JSON object at the end. Control characters,
/// which a proxy may hide in its answers, become "?".
class Report {
 public:
  Report(const ProxyOptions& proxy, const CheckOptions& options);

  void show(const Step& step);
  /// On a terminal only.
  void showProgress(std::size_t done, std::size_t of);
  void conclude(const Findings& findings, const Quality& quality);

 private:
  void clearBar();

  const HostPort proxy_;
  const CheckOptions& options_;
  const bool isTerminal_;
  const bool hasColours_;
  bool isBarShown_ = false;
};

}  // namespace zk
