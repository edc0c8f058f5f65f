#include "Platform/Random.h"

#include <algorithm>
#include <cerrno>

#include <sys/random.h>

namespace zk {

int randomBytes(std::span<std::uint8_t> out) {
  return getentropy(out.data(), out.size()) == 0 ? 0 : errno;
}

void RandomPool::fill(std::span<std::uint8_t> out) {
  if (octets_.size() - used_ < out.size()) {
    if (randomBytes(octets_) != 0) {
      return;
    }
    used_ = 0;
  }
  std::copy_n(octets_.begin() + static_cast<std::ptrdiff_t>(used_), out.size(), out.begin());
  used_ += out.size();
}

}  // namespace zk
