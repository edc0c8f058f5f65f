#include "Loopback/Load.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <random>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Platform/Clock.h"

namespace zk::loopback {
namespace {

constexpr std::uint64_t unlimited = UINT64_MAX;
constexpr int mostSilences = 5;

// What a payload starts with.
struct Stamp {
  std::uint64_t sentAt;
  std::uint32_t run;  // so that a straggler of an earlier load does not count
  std::uint32_t number;
};

class Load {
 public:
  Load(const std::vector<Endpoint>& endpoints, const LoadPlan& plan)
      : endpoints_(endpoints), plan_(plan), payload_(std::max(plan.payload, sizeof(Stamp))) {
    static std::minstd_rand random(std::random_device{}());
    run_ = static_cast<std::uint32_t>(random());
    std::generate(payload_.begin(), payload_.end(),
                  [] { return static_cast<std::uint8_t>(random()); });
    for (const Endpoint& endpoint : endpoints) {
      datagrams_.push_back(endpoint.frame(payload_));
    }
    if (endpoints.size() == 1) {  // a plain receive costs least
      setBlocking(endpoints[0].socket, plan.patience);
      return;
    }
    poll_ = KitSocket(epoll_create1(EPOLL_CLOEXEC));
    for (std::size_t i = 0; i < endpoints.size(); ++i) {
      epoll_event event{EPOLLIN, {.u64 = i}};
      epoll_ctl(poll_.get(), EPOLL_CTL_ADD, endpoints[i].socket, &event);
    }
  }

  LoadResult run() {
    const std::uint64_t start = monotonicNanoseconds();
    const std::uint64_t end =
        plan_.duration.count() == 0
            ? unlimited
            : start + static_cast<std::uint64_t>(plan_.duration.count()) * 1'000'000U;
    const std::uint64_t count = plan_.count == 0 ? unlimited : plan_.count;
    unsigned flying = 0;
    int silences = 0;
    const auto sending = [&] {
      return silences < mostSilences && result_.sent < count && monotonicNanoseconds() < end;
    };
    for (bool more = sending(); more || flying > 0; more = sending()) {
      for (; more && flying < plan_.outstanding && result_.sent < count; ++flying) {
        sendOne();
      }
      const unsigned back = receiveSome();
      silences = back == 0 ? silences + 1 : 0;
      flying = back == 0 ? 0 : flying - std::min(back, flying);
      if (plan_.progress) {
        plan_.progress(result_.sent - flying);
      }
    }
    result_.seconds = static_cast<double>(monotonicNanoseconds() - start) / 1e9;
    std::sort(result_.times.begin(), result_.times.end());
    return std::move(result_);
  }

 private:
  void sendOne() {
    Bytes& datagram = datagrams_[next_];
    const Stamp stamp{monotonicNanoseconds(), run_, static_cast<std::uint32_t>(result_.sent++)};
    isBack_.push_back(false);
    std::memcpy(&datagram[endpoints_[next_].payloadAt], &stamp, sizeof stamp);
    send(endpoints_[next_].socket, datagram.data(), datagram.size(), 0);
    if (++sentInBurst_ >= plan_.burst) {
      sentInBurst_ = 0;
      next_ = (next_ + 1) % endpoints_.size();
    }
  }

  // The number of round trips that ended; 0 when nothing came for too long.
  unsigned receiveSome() {
    if (poll_.get() < 0) {
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
    const std::size_t at = endpoints_[from].payloadAt;
    for (;;) {
      const ssize_t n = recv(endpoints_[from].socket, buffer_.data(), buffer_.size(), flags);
      if (n < 0) {
        return false;
      }
      Stamp stamp{};
      if (static_cast<std::size_t>(n) >= at + payload_.size()) {
        std::memcpy(&stamp, &buffer_[at], sizeof stamp);
      }
      if (stamp.run != run_ || stamp.number >= isBack_.size() || isBack_[stamp.number] ||
          std::memcmp(&buffer_[at + sizeof stamp], payload_.data() + sizeof stamp,
                      payload_.size() - sizeof stamp) != 0) {
        ++result_.strange;
        continue;
      }
      isBack_[stamp.number] = true;
      result_.times.push_back(static_cast<float>(monotonicNanoseconds() - stamp.sentAt) / 1000.0F);
      return true;
    }
  }

  const std::vector<Endpoint>& endpoints_;
  const LoadPlan& plan_;
  std::uint32_t run_ = 0;
  Bytes payload_;
  std::vector<Bytes> datagrams_;
  KitSocket poll_;
  std::size_t next_ = 0;
  unsigned sentInBurst_ = 0;
  std::vector<bool> isBack_;
  std::array<std::uint8_t, 65536> buffer_{};
  LoadResult result_;
};

}  // namespace

Endpoint Endpoint::channelData(const TURNClient& client, std::uint16_t channel) {
  return {client.socket(), 4, [channel](ByteView payload) {
            std::array<std::uint8_t, 4> header{};
            writeUInt16(&header[0], channel);
            writeUInt16(&header[2], static_cast<std::uint16_t>(payload.size()));
            return concatenated(header, payload);
          }};
}

Endpoint Endpoint::indications(const TURNClient& client, const TURNAttributes::Address& peer) {
  // Header, XOR-PEER-ADDRESS with its 8 octets, the header of DATA: both ways alike.
  return {client.socket(), 20 + 12 + 4, [peer](ByteView payload) {
            TURNMessage message(TURNMethod::send, TURNClass::indication, {});
            message.append(TURNAttr::xorPeerAddress,
                           *TURNAttributes::encodeXorAddress(peer.ip, peer.port));
            message.append(TURNAttr::data, payload);
            return message.encode();
          }};
}

double LoadResult::percentile(double share) const {
  return times.empty()
             ? 0
             : times[static_cast<std::size_t>(share * static_cast<double>(times.size() - 1))];
}

LoadResult runLoad(const std::vector<Endpoint>& endpoints, const LoadPlan& plan) {
  return Load(endpoints, plan).run();
}

}  // namespace zk::loopback
