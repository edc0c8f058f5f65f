#include "Loopback/Load.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <random>

#include <sys/epoll.h>
#include <sys/socket.h>

#include "Platform/Clock.h"

namespace zk::loopback {
namespace {

constexpr int mostSilences = 5;
constexpr std::uint32_t marker = UINT32_MAX;

// What a payload starts with.
struct Stamp {
  std::uint64_t sentAt;
  std::uint32_t run;  // so that a straggler of an earlier load does not count
  std::uint32_t number;
};
static_assert(sizeof(Stamp) == Ledger::stampSize);

std::uint32_t anyNumber() {
  static thread_local std::minstd_rand random(std::random_device{}());
  return static_cast<std::uint32_t>(random());
}

class Load {
 public:
  Load(const std::vector<CallLeg>& legs, const LoadPlan& plan)
      : legs_(legs), plan_(plan), payload_(std::max(plan.payload, Ledger::stampSize)) {
    std::ranges::generate(payload_, [] { return static_cast<std::uint8_t>(anyNumber()); });
    for (const CallLeg& leg : legs) {
      datagrams_.push_back(leg.frame(payload_));
    }
    if (legs.size() == 1) {  // a plain receive costs least
      setBlocking(legs[0].socket, plan.patience);
      return;
    }
    poll_ = Descriptor(epoll_create1(EPOLL_CLOEXEC));
    for (std::size_t i = 0; i < legs.size(); ++i) {
      epoll_event event{EPOLLIN, {.u64 = i}};
      epoll_ctl(poll_.get(), EPOLL_CTL_ADD, legs[i].socket, &event);
    }
  }

  LoadResult run() {
    const std::uint64_t end =
        plan_.duration.count() == 0
            ? UINT64_MAX
            : start_ + static_cast<std::uint64_t>(plan_.duration.count()) * 1'000'000U;
    const std::uint64_t count = plan_.count == 0 ? UINT64_MAX : plan_.count;
    unsigned flying = 0;
    int silences = 0;
    const auto sending = [&] {
      return silences < mostSilences && ledger_.sent() < count && monotonicNanoseconds() < end;
    };
    for (bool more = sending(); more || flying > 0; more = sending()) {
      for (; more && flying < plan_.outstanding && ledger_.sent() < count; ++flying) {
        sendOne();
      }
      const unsigned back = receiveSome();
      silences = back == 0 ? silences + 1 : 0;
      flying = back == 0 ? 0 : flying - std::min(back, flying);
      if (plan_.progress) {
        plan_.progress(ledger_.sent() - flying);
      }
    }
    const double seconds = static_cast<double>(monotonicNanoseconds() - start_) / 1e9;
    LoadResult result = ledger_.close();
    result.seconds = seconds;
    return result;
  }

 private:
  void sendOne() {
    Bytes& datagram = datagrams_[next_];
    ledger_.stamp(&datagram[legs_[next_].payloadAt]);
    send(legs_[next_].socket, datagram.data(), datagram.size(), 0);
    if (++sentInBurst_ >= plan_.burst) {
      sentInBurst_ = 0;
      next_ = (next_ + 1) % legs_.size();
    }
  }

  // The number of round trips that ended; 0 when nothing came for too long.
  unsigned receiveSome() {
    if (!poll_) {
      return receiveOne(0, 0) ? 1 : 0;
    }
    std::array<epoll_event, 64> events;
    const int ready = epoll_wait(poll_.get(), events.data(), events.size(),
                                 static_cast<int>(plan_.patience.count()));
    unsigned back = 0;
    for (int i = 0; i < ready; ++i) {
      while (receiveOne(events[static_cast<std::size_t>(i)].data.u64, MSG_DONTWAIT)) {
        ++back;
      }
    }
    return back;
  }

  bool receiveOne(std::size_t from, int flags) {
    for (;;) {
      const ssize_t n = recv(legs_[from].socket, buffer_.data(), buffer_.size(), flags);
      if (n < 0) {
        return false;
      }
      const ByteView datagram = ByteView(buffer_).first(static_cast<std::size_t>(n));
      const ByteView content = datagram.subspan(std::min(datagram.size(), legs_[from].payloadAt));
      const bool fits =  // padding may follow
          content.size() >= payload_.size() &&
          std::equal(payload_.begin() + Ledger::stampSize, payload_.end(),
                     content.begin() + Ledger::stampSize);
      if (ledger_.take(fits ? content : ByteView{})) {
        return true;
      }
    }
  }

  const std::vector<CallLeg>& legs_;
  const LoadPlan& plan_;
  Bytes payload_;
  std::vector<Bytes> datagrams_;  // by leg
  Ledger ledger_;
  Descriptor poll_;
  const std::uint64_t start_ = monotonicNanoseconds();
  std::size_t next_ = 0;
  unsigned sentInBurst_ = 0;
  std::array<std::uint8_t, 65536> buffer_{};
};

}  // namespace

double LoadResult::percentile(double share) const {
  return times.empty()
             ? 0
             : times[static_cast<std::size_t>(share * static_cast<double>(times.size() - 1))];
}

LoadResult& LoadResult::operator+=(const LoadResult& other) {
  sent += other.sent;
  strange += other.strange;
  seconds += other.seconds;
  times.insert(times.end(), other.times.begin(), other.times.end());
  std::ranges::sort(times);
  return *this;
}

Ledger::Ledger() {
  close();
}

void Ledger::stamp(std::uint8_t* payload) {
  const Stamp stamp{monotonicNanoseconds(), run_, static_cast<std::uint32_t>(isBack_.size())};
  isBack_.push_back(false);
  std::memcpy(payload, &stamp, sizeof stamp);
}

void Ledger::stampMarker(std::uint8_t* payload) const {
  const Stamp stamp{0, run_, marker};
  std::memcpy(payload, &stamp, sizeof stamp);
}

bool Ledger::take(ByteView payload) {
  Stamp stamp{};
  if (payload.size() >= sizeof stamp) {
    std::memcpy(&stamp, payload.data(), sizeof stamp);
  }
  const bool isOurs = stamp.run == run_;
  marked_ = marked_ || (isOurs && stamp.number == marker);
  if (!isOurs || stamp.number >= isBack_.size() || isBack_[stamp.number]) {
    result_.strange += isOurs && stamp.number == marker ? 0 : 1;
    return false;
  }
  isBack_[stamp.number] = true;
  result_.times.push_back(static_cast<float>(monotonicNanoseconds() - stamp.sentAt) / 1000.0F);
  return true;
}

LoadResult Ledger::close() {
  LoadResult result = std::exchange(result_, {});
  result.sent = isBack_.size();
  std::ranges::sort(result.times);
  run_ = anyNumber();
  isBack_.clear();
  marked_ = false;
  return result;
}

CallLeg CallLeg::onChannel(const TURNClient& client, std::uint16_t channel) {
  return {client.socket(), channelHeaderSize,
          [channel](ByteView payload) { return channelData(channel, payload); }};
}

CallLeg CallLeg::indications(const TURNClient& client, const Endpoint& peer) {
  // Header, XOR-PEER-ADDRESS with its 8 octets, the header of DATA: both ways alike.
  return {client.socket(), 20 + 12 + 4,
          [peer](ByteView payload) { return sendIndicationTo(peer, payload); }};
}

LoadResult runLoad(const std::vector<CallLeg>& legs, const LoadPlan& plan) {
  return Load(legs, plan).run();
}

}  // namespace zk::loopback
