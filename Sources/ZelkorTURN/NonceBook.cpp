#include "ZelkorTURN/NonceBook.h"

#include <cstring>

#include "Platform/Process.h"

namespace zk {
namespace {

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

// Entries in the order in which they came, and a hash table of their places, open and never more
// than half full. Nothing is ever taken out of the table: what is before first_ has gone.
class NonceBook::Page {
 public:
  bool isFull() const { return end_ == entries_.size(); }
  bool isEmpty() const { return first_ == end_; }
  std::uint32_t oldest() const { return entries_[first_].issued; }
  void dropOldest() { ++first_; }

  void append(const Key& key, std::uint32_t issued) {
    entries_[end_] = {key, issued};
    slots_[slotOf(key)] = static_cast<std::uint16_t>(++end_);
  }

  // Moves the issue time of the newest entry when that is `key`.
  bool renewNewest(const Key& key, std::uint32_t issued) {
    Entry& newest = entries_[end_ - 1];
    if (newest.key == key) {
      newest.issued = issued;
    }
    return newest.key == key;
  }

  std::optional<std::uint32_t> issueTime(const Key& key) const {
    const std::size_t place = slots_[slotOf(key)];
    return place > first_ ? std::optional(entries_[place - 1].issued) : std::nullopt;
  }

 private:
  struct Entry {
    Key key;
    std::uint32_t issued;
  };

  // The slot that holds the place of `key`, or else the one that would.
  std::size_t slotOf(const Key& key) const {
    std::uint64_t hash = 0;
    std::memcpy(&hash, key.data(), sizeof hash);  // random octets of our own making
    std::size_t slot = hash % slots_.size();
    while (slots_[slot] != 0 && entries_[slots_[slot] - 1U].key != key) {
      slot = (slot + 1) % slots_.size();
    }
    return slot;
  }

  std::array<Entry, 8192> entries_;
  std::array<std::uint16_t, 16384> slots_{};  // places from 1 on; 0: free
  std::size_t first_ = 0;
  std::size_t end_ = 0;
};

NonceBook::NonceBook() = default;
NonceBook::~NonceBook() = default;

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
  dropOlderThan(timeToLive, now);
  const auto key = keyOf(nonce);
  // The nonce that stands in when the random source fails comes again and again.
  if (!key || (size_ > 0 && pages_.back()->renewNewest(*key, now))) {
    return;
  }
  if (size_ == maxNonces) {
    dropOldest();
  }
  if (pages_.empty() || pages_.back()->isFull()) {
    pages_.push_back(std::make_unique_for_overwrite<Page>());
  }
  pages_.back()->append(*key, now);
  ++size_;
}

std::optional<std::uint32_t> NonceBook::issueTime(std::string_view nonce) const {
  const auto key = keyOf(nonce);
  for (auto page = pages_.rbegin(); key && page != pages_.rend(); ++page) {
    if (const auto issued = (*page)->issueTime(*key)) {
      return issued;
    }
  }
  return std::nullopt;
}

void NonceBook::prune(std::uint32_t now) {
  dropOlderThan(2 * timeToLive, now);
}

void NonceBook::dropOlderThan(std::uint32_t seconds, std::uint32_t now) {
  const std::size_t pagesBefore = pages_.size();
  while (size_ > 0 && now - pages_.front()->oldest() > seconds) {
    dropOldest();
  }
  if (pages_.size() + 1 < pagesBefore) {
    returnFreedMemory();
  }
}

void NonceBook::dropOldest() {
  pages_.front()->dropOldest();
  --size_;
  if (pages_.front()->isEmpty()) {
    pages_.pop_front();
  }
}

}  // namespace zk
