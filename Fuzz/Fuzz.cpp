#include "Fuzz.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include <fmt/format.h>

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

std::string dottedQuad(ByteView octets) {
  return fmt::format("{}", fmt::join(octets.begin(), octets.end(), "."));
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
