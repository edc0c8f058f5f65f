#include "ZelkorTURN/NonceBook.h"

#include <algorithm>
#include <cstring>

#include "Platform/Process.h"

namespace zk {
namespace {

// So many small blocks are worth a walk of the heap to give their memory back.
constexpr std::size_t worthTrimming = 65536;

std::optional<unsigned> digitValue(char digit) {
  if (digit >= '0' && digit <= '9') {
    return static_cast<unsigned>(digit - '0');
  }
  if (digit >= 'a' && digit <= 'f') {
    return static_cast<unsigned>(digit - 'a' + 10);
  }
  return std::nullopt;
}

}  // namespace

std::size_t NonceBook::KeyHash::operator()(const Key& key) const {
  std::size_t hash = 0;
  std::memcpy(&hash, key.data(), sizeof hash);  // random octets of our own making
  return hash;
}

std::optional<NonceBook::Key> NonceBook::keyOf(std::string_view nonce) {
  Key key{};
  if (nonce.size() != 2 * key.size()) {
    return std::nullopt;
  }
  for (std::size_t i = 0; i < key.size(); ++i) {
    const auto high = digitValue(nonce[2 * i]);
    const auto low = digitValue(nonce[2 * i + 1]);
    if (!high || !low) {
      return std::nullopt;
    }
    key[i] = static_cast<std::uint8_t>(*high << 4 | *low);
  }
  return key;
}

void NonceBook::issue(std::string_view nonce, std::uint32_t now) {
  if (const auto key = keyOf(nonce)) {
    const auto [entry, isNew] = entries_.insert_or_assign(*key, now);
    if (!isNew) {
      order_.erase(std::find(order_.begin(), order_.end(), &*entry));
    }
    order_.push_back(&*entry);
  }
  prune(now);
}

std::optional<std::uint32_t> NonceBook::issueTime(std::string_view nonce) const {
  const auto key = keyOf(nonce);
  const auto entry = key ? entries_.find(*key) : entries_.end();
  return entry == entries_.end() ? std::nullopt : std::optional(entry->second);
}

void NonceBook::prune(std::uint32_t now) {
  while (!order_.empty() && now - order_.front()->second > timeToLive) {
    entries_.erase(order_.front()->first);
    order_.pop_front();
    ++prunedSinceTrim_;
  }
  if (prunedSinceTrim_ >= worthTrimming && prunedSinceTrim_ > entries_.size()) {
    prunedSinceTrim_ = 0;
    entries_.rehash(0);
    returnFreedMemory();
  }
}

}  // namespace zk
