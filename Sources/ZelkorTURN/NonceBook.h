#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string_view>

namespace zk {

/// The nonces that the server has issued and when, in seconds of the server clock. One thread.
///
/// Whoever asks without credentials adds an entry, and it stays for as long as the nonce is good.
/// So an entry is small (under 25 octets, all told), and no call takes long, however many there
/// are: entries lie in pages in the order in which they came, and a page leaves as a whole.
class NonceBook {
 public:
  /// Seconds during which a nonce is good: ages 0 to 300.
  static constexpr std::uint32_t timeToLive = 300;
  /// The oldest go beyond that. It is 870 new nonces a second for all their life, where a client
  /// needs one in 300 seconds, and 7 MB. Who floods the book makes others ask for a new nonce, and
  /// that costs them one round trip on loopback.
  static constexpr std::size_t maxNonces = 262144;

  NonceBook();
  ~NonceBook();

  /// Enters `nonce`, which is 32 lowercase hexadecimal digits, or moves its issue time to `now`;
  /// then drops all that is older than the time to live. Issue times never go back.
  void issue(std::string_view nonce, std::uint32_t now);

  /// When `nonce` was issued; absent when it is not in the book, which holds for any text that is
  /// not a nonce at all.
  std::optional<std::uint32_t> issueTime(std::string_view nonce) const;

  /// Drops what is older than twice the time to live, so that the memory of a flood goes back to
  /// the system when nobody asks any more. What has just gone stale stays until the next issue().
  void prune(std::uint32_t now);

  /// How many nonces are in the book. One that was issued again after others counts twice.
  std::size_t size() const { return size_; }

 private:
  using Key = std::array<std::uint8_t, 16>;
  class Page;

  static std::optional<Key> keyOf(std::string_view nonce);
  void dropOlderThan(std::uint32_t seconds, std::uint32_t now);
  void dropOldest();

  std::deque<std::unique_ptr<Page>> pages_;  // oldest first, none without an entry
  std::size_t size_ = 0;
};

}  // namespace zk
