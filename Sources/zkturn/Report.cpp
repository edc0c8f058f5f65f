#include "zkturn/Report.h"

#include <cstdio>
#include <cstdlib>

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include "Base/LogLine.h"
#include "Platform/Terminal.h"

namespace zk {
namespace {

constexpr unsigned barWidth = 30;

std::string printable(const std::string& text) {
  fmt::memory_buffer buffer;
  buffer.append(text);
  replaceControls(buffer);
  return fmt::to_string(buffer);
}

}  // namespace

Report::Report(const ProxyOptions& proxy, const CheckOptions& options)
    : proxy_(proxy.proxy),
      asJSON_(options.asJSON),
      isTerminal_(isTerminal(STDOUT_FILENO)),
      hasColours_(isTerminal_ && std::getenv("NO_COLOR") == nullptr) {
  if (!asJSON_) {
    fmt::print("Checking {}\n\n", printable(proxy_.text()));
    std::fflush(stdout);
  }
}

Watcher Report::watcher() {
  if (asJSON_) {
    return {};
  }
  Watcher watcher{[this](const Step& step) { print(step); }, {}};
  if (isTerminal_) {
    watcher.onProbe = [this](unsigned done, unsigned of) { printBar(done, of); };
  }
  return watcher;
}

void Report::print(const Step& step) {
  clearBar();
  struct Look {
    const char* sign;
    const char* colour;
  };
  const Look look = step.mark == Step::Mark::passed   ? Look{"✓", "\033[32m"}
                    : step.mark == Step::Mark::failed ? Look{"✗", "\033[31m"}
                                                      : Look{"!", "\033[33m"};
  fmt::print("  {}{}{} {:<13} {} ({:.0f} ms)\n", hasColours_ ? look.colour : "", look.sign,
             hasColours_ ? "\033[0m" : "", step.name, printable(step.detail), step.milliseconds);
  std::fflush(stdout);
}

void Report::printBar(unsigned done, unsigned of) {
  const unsigned filled = done * barWidth / of;
  fmt::print("\r  {}{} {}/{}", std::string(filled, '#'), std::string(barWidth - filled, '.'), done,
             of);
  std::fflush(stdout);
  isBarShown_ = true;
}

void Report::clearBar() {
  if (isBarShown_) {
    fmt::print("\r\033[K");
    isBarShown_ = false;
  }
}

void Report::conclude(const Findings& findings) {
  if (!asJSON_) {
    fmt::print("\n{}\n", printable(findings.verdict));
    return;
  }
  const auto orNull = [](const auto& optional) {
    return optional ? nlohmann::ordered_json(*optional) : nlohmann::ordered_json();
  };
  nlohmann::ordered_json json{{"proxy", printable(proxy_.text())},
                              {"carriesUDP", findings.carriesUDP},
                              {"verdict", printable(findings.verdict)},
                              {"relay", printable(findings.relay)},
                              {"seenByPeers", nullptr},
                              {"sent", findings.sent},
                              {"answered", findings.roundTrips.size()},
                              {"roundTripMilliseconds", nullptr},
                              {"largestDatagram", findings.largestDatagram},
                              {"samePort", orNull(findings.isPortTheSame)},
                              {"survivesIdle", orNull(findings.survivesIdle)},
                              {"steps", nlohmann::ordered_json::array()}};
  if (findings.seenByPeers) {
    json["seenByPeers"] = {{"address", findings.seenByPeers->ip()},
                           {"port", findings.seenByPeers->port}};
  }
  if (const auto& trips = findings.roundTrips; !trips.empty()) {
    json["roundTripMilliseconds"] = {
        {"min", trips.front()}, {"median", trips[trips.size() / 2]}, {"max", trips.back()}};
  }
  for (const Step& step : findings.steps) {
    constexpr const char* marks[] = {"passed", "failed", "noted"};
    json["steps"].push_back({{"name", step.name},
                             {"result", marks[static_cast<int>(step.mark)]},
                             {"detail", printable(step.detail)},
                             {"milliseconds", step.milliseconds}});
  }
  fmt::print("{}\n", json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

}  // namespace zk
