#include "Base/LogLine.h"

#include <algorithm>

namespace zk {
namespace {

// How many octets the control character at the front of `text` takes in UTF-8; 0 when it is none.
std::size_t controlLength(std::string_view text) {
  const auto octet = [&](std::size_t i) {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
  };
  const auto isWithin = [&](std::size_t i, unsigned low, unsigned high) {
    return octet(i) >= low && octet(i) <= high;
  };
  if (octet(0) < 0x20 || octet(0) == 0x7F) {
    return 1;
  }
  if ((octet(0) == 0xC2 && isWithin(1, 0x80, 0x9F)) || (octet(0) == 0xD8 && octet(1) == 0x9C)) {
    return 2;  // C1; U+061C
  }
  if (octet(0) == 0xE2 &&
      ((octet(1) == 0x80 && (isWithin(2, 0x8E, 0x8F) || isWithin(2, 0xA8, 0xAE))) ||
       (octet(1) == 0x81 && isWithin(2, 0xA6, 0xA9)))) {
    return 3;  // U+200E, U+200F, U+2028 to U+202E, U+2066 to U+2069
  }
  return 0;
}

}  // namespace

bool holdsControl(std::string_view text) {
  for (; !text.empty(); text.remove_prefix(1)) {
    if (controlLength(text) > 0) {
      return true;
    }
  }
  return false;
}

void replaceControls(fmt::memory_buffer& text) {
  std::size_t to = 0;
  for (std::size_t from = 0; from < text.size();) {
    const std::size_t length = controlLength({text.data() + from, text.size() - from});
    text[to++] = length > 0 ? '?' : text[from];
    from += std::max<std::size_t>(length, 1);
  }
  text.resize(to);
}

}  // namespace zk
