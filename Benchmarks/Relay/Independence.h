#pragma once

#include <string>

namespace zk::bench {

struct IndependenceOptions {
  std::string daemon;
  std::string json;    // written; empty: not
  std::string before;  // read; empty: none
  std::string svg;     // written; empty: not
  std::string only;
};

/// Measures what one client feels of all that others do to the daemon, its proxy, its resolver, its
/// uplink and its disk. Prints a table. Whether every bound holds.
bool runIndependence(const IndependenceOptions& options);

}  // namespace zk::bench
