#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "Base/Bytes.h"

/// What the harnesses share. Each of them defines run() and seeds() and nothing else.
namespace zk::fuzz {

/// One execution: judges the product with `input`. Must not depend on earlier executions.
void run(ByteView input);

/// Inputs to begin with, made by our own encoders. Written by `fuzz-<name> --seeds=FOLDER`.
std::vector<Bytes> seeds();

/// Ends the process, and so makes a finding, when a property does not hold.
void require(bool holds, const char* property);

/// Takes an input apart from its front. Behind the end there are zeros and empty views.
class Input {
 public:
  explicit Input(ByteView octets) : rest_(octets) {}
  bool isEmpty() const { return rest_.empty(); }
  ByteView rest() const { return rest_; }
  ByteView take(std::size_t count);
  std::uint8_t octet();
  std::uint16_t number() { return static_cast<std::uint16_t>(octet() << 8 | octet()); }

 private:
  ByteView rest_;
};

/// "a.b.c.d"
std::string dottedQuad(ByteView octets);

inline bool areEqual(ByteView a, ByteView b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end());
}
inline std::string_view textOf(ByteView octets) {
  return {reinterpret_cast<const char*>(octets.data()), octets.size()};
}
inline void append(Bytes& to, ByteView octets) {
  to.insert(to.end(), octets.begin(), octets.end());
}
/// The octets of all pieces in a row.
inline Bytes joined(std::initializer_list<ByteView> pieces) {
  Bytes all;
  for (const ByteView piece : pieces) {
    append(all, piece);
  }
  return all;
}

}  // namespace zk::fuzz
