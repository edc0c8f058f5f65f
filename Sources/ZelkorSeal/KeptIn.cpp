#include "ZelkorSeal/KeptIn.h"

#include <algorithm>
#include <array>

#include <fmt/format.h>

namespace zk {

void KeptIn::add(Kind kind, const Endpoint& to) {
  const std::pair key(kind, to.number());
  if (counts_.size() < maxDestinations || counts_.contains(key)) {
    ++counts_[key];
  } else {
    ++beyond_;
  }
}

const char* KeptIn::name(Kind kind) {
  static constexpr std::array names{"TCP",  "UDP",       "private TCP", "private UDP",
                                    "QUIC", "multicast", "broadcast",   "reserved",
                                    "ICMP", "other"};
  return names.at(static_cast<std::size_t>(kind));
}

std::vector<std::string> KeptIn::sentences() const {
  std::vector<std::pair<std::pair<Kind, std::uint64_t>, std::uint64_t>> sorted(counts_.begin(),
                                                                               counts_.end());
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const auto& a, const auto& b) { return a.second > b.second; });
  const bool areMany = sorted.size() > maxSentences || beyond_ > 0;
  const std::size_t shown = std::min(sorted.size(), areMany ? maxSentences - 1 : maxSentences);
  std::vector<std::string> sentences;
  std::uint64_t rest = beyond_;
  for (std::size_t i = 0; i < sorted.size(); ++i) {
    const auto& [key, count] = sorted[i];
    const Endpoint to{static_cast<std::uint32_t>(key.second >> 16),
                      static_cast<std::uint16_t>(key.second)};
    if (i >= shown) {
      rest += count;
      continue;
    }
    const std::string where = to == Endpoint() ? "" : " to " + (to.port == 0 ? to.ip() : to.text());
    sentences.push_back(fmt::format("{} {}{}", count, name(key.first), where));
  }
  if (areMany) {
    sentences.push_back(fmt::format("{} more to other addresses", rest));
  }
  return sentences;
}

}  // namespace zk
