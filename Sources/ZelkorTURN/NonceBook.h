#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <optional>
#include <string_view>
#include <unordered_map>

namespace zk {

/// The nonces that the server has issued and when, in seconds of the server clock.
///
/// Its only bound is time: whoever asks without credentials adds an entry, and it stays for as long
/// as the nonce is good. So an entry is kept small, and entries leave in the order in which they
/// came, without a walk through the book. One thread.
class NonceBook {
 public:
  /// Seconds during which a nonce is good: ages 0 to 300.
  static constexpr std::uint32_t timeToLive = 300;

  /// Enters `nonce`, which is 32 lowercase hexadecimal digits, or moves its issue time to `now`;
  /// then drops all that is older than the time to live.
  void issue(std::string_view nonce, std::uint32_t now);

  /// When `nonce` was issued; absent when it is not in the book, which holds for any text that is
  /// not a nonce at all.
  std::optional<std::uint32_t> issueTime(std::string_view nonce) const;

  std::size_t size() const { return entries_.size(); }

 private:
  using Key = std::array<std::uint8_t, 16>;
  struct KeyHash {
    std::size_t operator()(const Key& key) const;
  };
  using Entries = std::unordered_map<Key, std::uint32_t, KeyHash>;

  static std::optional<Key> keyOf(std::string_view nonce);
  void prune(std::uint32_t now);

  Entries entries_;
  // The entries in the order of their issue times; elements of the map do not move.
  std::deque<Entries::value_type*> order_;
  std::size_t prunedSinceTrim_ = 0;
};

}  // namespace zk
