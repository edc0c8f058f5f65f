#include "Load.h"

#include <algorithm>
#include <array>
#include <cstring>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Platform/Clock.h"

namespace zk::bench {
namespace {

constexpr int lossMilliseconds = 200;

// What a payload starts with.
struct Stamp {
  std::uint64_t sentAt;
  std::uint32_t run;  // so that a straggler of an earlier load does not count
  std::uint32_t unused;
};

class Load {
 public:
  Load(const std::vector<Endpoint>& endpoints, std::size_t payload, unsigned burst)
      : endpoints_(endpoints), burst_(burst) {
    static std::uint32_t runs = 0;
    run_ = ++runs;
    for (const Endpoint& endpoint : endpoints) {
      frames_.push_back(endpoint.frame(payload));
    }
    if (endpoints.size() > 1) {
      poll_ = epoll_create1(EPOLL_CLOEXEC);
      for (std::size_t i = 0; i < endpoints.size(); ++i) {
        epoll_event event{EPOLLIN, {.u64 = i}};
        epoll_ctl(poll_, EPOLL_CTL_ADD, endpoints[i].socket, &event);
      }
    } else {
      timeval limit{0, lossMilliseconds * 1000};
      setsockopt(endpoints[0].socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    times_.reserve(1 << 20);
  }
  ~Load() {
    if (poll_ >= 0) {
      close(poll_);
    }
  }
  Load(const Load&) = delete;
  Load& operator=(const Load&) = delete;

  LoadResult run(unsigned outstanding, std::chrono::milliseconds duration) {
    const std::uint64_t start = monotonicNanoseconds();
    const std::uint64_t end = start + static_cast<std::uint64_t>(duration.count()) * 1'000'000U;
    unsigned flying = 0;
    bool sending = true;
    while (sending || flying > 0) {
      sending = monotonicNanoseconds() < end;
      while (sending && flying < outstanding) {
        sendOne();
        ++flying;
      }
      const unsigned back = receiveSome();
      if (back == 0) {
        result_.losses += flying;
        flying = 0;
      }
      flying -= std::min(back, flying);
    }
    result_.roundTrips = times_.size();
    result_.seconds = static_cast<double>(monotonicNanoseconds() - start) / 1e9;
    result_.p50 = percentile(0.50);
    result_.p99 = percentile(0.99);
    return result_;
  }

 private:
  void sendOne() {
    Bytes& frame = frames_[next_];
    const Stamp stamp{monotonicNanoseconds(), run_, 0};
    std::memcpy(&frame[endpoints_[next_].payloadAt], &stamp, sizeof stamp);
    send(endpoints_[next_].socket, frame.data(), frame.size(), 0);
    if (++sentInBurst_ >= burst_) {
      sentInBurst_ = 0;
      next_ = (next_ + 1) % endpoints_.size();
    }
  }

  // The number of round trips that ended; 0 when nothing came for too long.
  unsigned receiveSome() {
    if (poll_ < 0) {
      return receiveOne(0, 0) ? 1 : 0;
    }
    std::array<epoll_event, 64> events;
    const int ready = epoll_wait(poll_, events.data(), events.size(), lossMilliseconds);
    unsigned back = 0;
    for (int i = 0; i < ready; ++i) {
      while (receiveOne(events[static_cast<std::size_t>(i)].data.u64, MSG_DONTWAIT)) {
        ++back;
      }
    }
    return back;
  }

  bool receiveOne(std::size_t from, int flags) {
    while (true) {
      const ssize_t n = recv(endpoints_[from].socket, buffer_.data(), buffer_.size(), flags);
      if (n < 0) {
        return false;
      }
      Stamp stamp{};
      if (static_cast<std::size_t>(n) < endpoints_[from].answerAt + sizeof stamp) {
        continue;
      }
      std::memcpy(&stamp, &buffer_[endpoints_[from].answerAt], sizeof stamp);
      if (stamp.run == run_) {
        times_.push_back(static_cast<float>(monotonicNanoseconds() - stamp.sentAt) / 1000.0F);
        return true;
      }
    }
  }

  double percentile(double share) {
    if (times_.empty()) {
      return 0;
    }
    const auto at = times_.begin() +
                    static_cast<std::ptrdiff_t>(share * static_cast<double>(times_.size() - 1));
    std::nth_element(times_.begin(), at, times_.end());
    return *at;
  }

  const std::vector<Endpoint>& endpoints_;
  const unsigned burst_;
  std::uint32_t run_ = 0;
  std::vector<Bytes> frames_;
  int poll_ = -1;
  std::size_t next_ = 0;
  unsigned sentInBurst_ = 0;
  std::array<std::uint8_t, 65536> buffer_{};
  std::vector<float> times_;
  LoadResult result_;
};

}  // namespace

LoadResult runLoad(const std::vector<Endpoint>& endpoints, std::size_t payload,
                   unsigned outstanding, std::chrono::milliseconds duration, unsigned burst) {
  return Load(endpoints, std::max(payload, sizeof(Stamp)), burst).run(outstanding, duration);
}

}  // namespace zk::bench
