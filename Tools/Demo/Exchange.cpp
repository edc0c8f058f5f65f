#include "Demo/Exchange.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>

#include "Demo/ProgressBar.h"
#include "Platform/Random.h"

namespace zk::demo {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;

constexpr std::chrono::milliseconds patience{2000};

microseconds since(Clock::time_point start) {
  return std::chrono::duration_cast<microseconds>(Clock::now() - start);
}

}  // namespace

microseconds ExchangeResult::percentile(double share) const {
  const auto rank = std::ceil(share * static_cast<double>(roundTrips.size()));
  return roundTrips[std::max<std::size_t>(static_cast<std::size_t>(rank), 1) - 1];
}

ExchangeResult exchange(loopback::TURNClient& client, Form form,
                        const TURNAttributes::Address& peer, std::uint16_t channel,
                        std::size_t count) {
  ExchangeResult result;
  ProgressBar bar(form == Form::channelData ? "ChannelData     " : "Send indications", count);
  std::map<std::uint64_t, Clock::time_point> underWay;
  Bytes payload(payloadSize);
  randomBytes(payload);

  const auto start = Clock::now();
  for (std::uint64_t next = 0; next < count || !underWay.empty();) {
    while (next < count && underWay.size() < windowSize) {
      std::memcpy(payload.data(), &next, sizeof next);
      underWay[next++] = Clock::now();
      ++result.sent;
      if (form == Form::channelData) {
        client.sendChannelData(channel, payload);
      } else {
        client.sendIndication(peer, payload);
      }
    }
    const auto data = client.receiveData(patience);
    if (!data) {
      result.lost += underWay.size();
      underWay.clear();
      if (result.lost > tolerableLoss(count)) {
        break;
      }
      continue;
    }
    std::uint64_t number = 0;
    const bool whole = data->payload.size() == payloadSize &&
                       std::equal(payload.begin() + sizeof number, payload.end(),
                                  data->payload.begin() + sizeof number);
    if (whole) {
      std::memcpy(&number, data->payload.data(), sizeof number);
    }
    const auto found = whole ? underWay.find(number) : underWay.end();
    if (found == underWay.end()) {
      ++result.strange;
      continue;
    }
    result.roundTrips.push_back(since(found->second));
    underWay.erase(found);
    bar.show(result.roundTrips.size() + result.lost);
  }
  result.duration = since(start);
  std::sort(result.roundTrips.begin(), result.roundTrips.end());
  return result;
}

}  // namespace zk::demo
