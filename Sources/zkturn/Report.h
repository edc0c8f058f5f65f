#pragma once

#include "zkturn/Check.h"

namespace zk {

/// Prints findings on standard output: for people, step by step as they come, with colours and a
/// progress bar on a terminal; or for programs, as one JSON object at the end. Control characters,
/// which a proxy may hide in its answers, become "?".
class Report {
 public:
  Report(const ProxyOptions& proxy, const CheckOptions& options);

  Watcher watcher();
  void conclude(const Findings& findings);

 private:
  void print(const Step& step);
  void printBar(unsigned done, unsigned of);
  void clearBar();

  const HostPort proxy_;
  const bool asJSON_;
  const bool isTerminal_;
  const bool hasColours_;
  bool isBarShown_ = false;
};

}  // namespace zk
