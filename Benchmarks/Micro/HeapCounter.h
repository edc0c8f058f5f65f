#pragma once

#include <cstdint>

namespace zk::bench {

/// How often any thread of this program has called operator new.
std::uint64_t heapAllocations();

}  // namespace zk::bench
