#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace zk {

/// Fills `out` from the system's cryptographically secure source. Returns 0, or the system's error
/// number, with `out` untouched. At most 256 octets.
int randomBytes(std::span<std::uint8_t> out);

/// The type of randomBytes(), for code that takes another source.
using RandomSource = int (*)(std::span<std::uint8_t> out);

/// Hands out secure random octets in small portions, with one system call per 256 of them. Every
/// octet is handed out once. One thread at a time.
class RandomPool {
 public:
  /// Fills `out`, at most 256 octets. If the source fails, `out` is left as it was.
  void fill(std::span<std::uint8_t> out);

 private:
  std::array<std::uint8_t, 256> octets_;
  std::size_t used_ = octets_.size();
};

}  // namespace zk
