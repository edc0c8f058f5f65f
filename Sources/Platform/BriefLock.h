#pragma once

#include <mutex>

namespace zk {

/// Locks a mutex that is only ever held for some dozens of instructions. One that is taken is
/// looked at for about a microsecond before the thread sleeps: going to sleep and being woken costs
/// several.
inline std::unique_lock<std::mutex> lockBriefly(std::mutex& mutex) {
  constexpr int looks = 32;
  for (int i = 0; i < looks; ++i) {
    if (mutex.try_lock()) {
      return {mutex, std::adopt_lock};
    }
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
  }
  return std::unique_lock(mutex);
}

}  // namespace zk
