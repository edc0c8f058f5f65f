#include "Base/UTF8.h"

namespace zk {
namespace {

// The outcome of reading one sequence at the front of a text.
struct Sequence {
  std::size_t length;  // octets to move on by, at least 1
  bool isValid;
};

// Table 3-7 of the Unicode standard: the range of the second octet depends on the first, all later
// ones are 0x80 to 0xBF. A malformed sequence is as long as its well-formed beginning.
Sequence firstSequence(std::string_view text) {
  const auto octet = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = octet(0);
  if (lead < 0x80) {
    return {1, true};
  }
  if (lead < 0xC2 || lead > 0xF4) {
    return {1, false};
  }
  const std::size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  unsigned char low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  unsigned char high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  for (std::size_t i = 1; i < length; ++i) {
    if (i >= text.size() || octet(i) < low || octet(i) > high) {
      return {i, false};
    }
    low = 0x80;
    high = 0xBF;
  }
  return {length, true};
}

}  // namespace

bool isValidUTF8(std::string_view octets) {
  return repairedUTF8(octets) == octets;
}

std::string repairedUTF8(std::string_view octets) {
  std::string text;
  while (!octets.empty()) {
    const Sequence sequence = firstSequence(octets);
    text += sequence.isValid ? octets.substr(0, sequence.length) : std::string_view("\uFFFD");
    octets.remove_prefix(sequence.length);
  }
  return text;
}

}  // namespace zk
