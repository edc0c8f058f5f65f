#include "Fuzz.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace zk::fuzz {

void require(bool holds, const char* property) {
  if (!holds) {
    std::fprintf(stderr, "PROPERTY BROKEN: %s\n", property);
    std::abort();
  }
}

ByteView Input::take(std::size_t count) {
  const ByteView taken = rest_.first(std::min(count, rest_.size()));
  rest_ = rest_.subspan(taken.size());
  return taken;
}

std::uint8_t Input::octet() {
  const ByteView taken = take(1);
  return taken.empty() ? std::uint8_t{0} : taken[0];
}

AttributeWalk::AttributeWalk(ByteView datagram, std::size_t from, std::size_t end) {
  for (std::size_t at = from; at + 4 <= end;) {
    const AttributePlace place{at,
                               static_cast<std::uint16_t>(datagram[at] * 256 + datagram[at + 1]),
                               static_cast<std::size_t>(datagram[at + 2] * 256 + datagram[at + 3])};
    if (at + 4 + place.length > end) {
      isWellFormed = false;
      return;
    }
    places.push_back(place);
    at += 4 + (place.length + 3) / 4 * 4;
  }
}

std::optional<IPv4Octets> lenientIPv4(std::string_view text) {
  std::vector<std::uint8_t> octets;
  std::string piece;
  for (std::size_t i = 0; i <= text.size(); ++i) {
    if (i < text.size() && text[i] != '.') {
      piece += text[i];
      continue;
    }
    unsigned value = 0;
    const bool isNumber =
        !piece.empty() && std::all_of(piece.begin(), piece.end(), [&value](char c) {
          value = std::min(value * 10 + static_cast<unsigned>(c - '0'), 256U);
          return c >= '0' && c <= '9';
        });
    if (isNumber && value < 256) {
      octets.push_back(static_cast<std::uint8_t>(value));
    }
    piece.clear();
  }
  if (octets.size() != 4) {
    return std::nullopt;
  }
  return IPv4Octets{octets[0], octets[1], octets[2], octets[3]};
}

std::string dottedQuad(ByteView octets) {
  char text[16];
  std::snprintf(text, sizeof text, "%d.%d.%d.%d", octets[0], octets[1], octets[2], octets[3]);
  return text;
}

namespace {

int writeSeeds(const std::string& folder) {
  int number = 0;
  for (const Bytes& seed : seeds()) {
    std::ofstream file(folder + "/seed-" + std::to_string(number++), std::ios::binary);
    file << textOf(seed);
    if (!file.flush()) {
      std::fprintf(stderr, "cannot write to %s\n", folder.c_str());
      return EXIT_FAILURE;
    }
  }
  return EXIT_SUCCESS;
}

}  // namespace
}  // namespace zk::fuzz

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  constexpr std::string_view option = "--seeds=";
  if (*argc == 2 && std::string_view((*argv)[1]).starts_with(option)) {
    std::exit(zk::fuzz::writeSeeds((*argv)[1] + option.size()));
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zk::fuzz::run({data, size});
  return 0;
}
