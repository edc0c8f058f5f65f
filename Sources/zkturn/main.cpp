// The program for people. What it can do stands in one table.

#include <cstdio>
#include <exception>

#include <fmt/format.h>

#include "zkturn/CommandLine.h"

namespace {

using zk::CommandLine;

constexpr int failed = 1;
constexpr int wrongUsage = 2;

constexpr zk::Verb verbs[] = {
    {"check", "Tell whether a SOCKS5 proxy carries UDP, and how well.", zk::declareCheck,
     [](const CommandLine& line) { return zk::check(line.proxy, line.check); }},
    {"serve", "Give this machine's browsers a TURN relay that leads through the proxy.", nullptr,
     [](const CommandLine& line) { return zk::serve(line.proxy, line.serve); }},
    {"run", "Run any program with the proxy as its only way out.", zk::declareRun,
     [](const CommandLine& line) { return zk::run(line.proxy, line.run); }},
};

}  // namespace

int main(int argc, char** argv) {
  try {
    CommandLine line;
    const zk::Verb* const verb = zk::readCommandLine(verbs, argc, argv, line);
    return verb == nullptr ? 0 : verb->perform(line);
  } catch (const zk::UsageError& error) {
    fmt::print(stderr, "zkturn: {}\n", error.what());
    return wrongUsage;
  } catch (const std::exception& error) {
    fmt::print(stderr, "zkturn: {}\n", error.what());
    return failed;
  }
}
