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

// By Step::Mark.
constexpr struct {
  const char* text;
  const char* colour;
  const char* name;  // for programs
} signs[] = {{"✓", "\033[32m", "passed"}, {"✗", "\033[31m", "failed"}, {"!", "\033[33m", "noted"}};

std::string printable(const std::string& text) {
  fmt::memory_buffer buffer;
  buffer.append(text);
  replaceControls(buffer);
  return fmt::to_string(buffer);
}

}  // namespace

Report::Report(const ProxyOptions& proxy, const CheckOptions& options)
    : proxy_(proxy.proxy),
      options_(options),
      isTerminal_(isTerminal(STDOUT_FILENO)),
      hasColours_(isTerminal_ && std::getenv("NO_COLOR") == nullptr) {
  if (!options_.asJSON) {
    fmt::print("Checking {}\n\n", printable(proxy_.text()));
    std::fflush(stdout);
  }
}

void Report::show(const Step& step) {
  if (options_.asJSON) {
    return;
  }
  clearBar();
  const auto& [sign, colour, name] = signs[static_cast<int>(step.mark)];
  fmt::print("  {}{}{} {:<13} {} ({:.0f} ms)\n", hasColours_ ? colour : "", sign,
             hasColours_ ? "\033[0m" : "", step.name, printable(step.detail), step.milliseconds);
  std::fflush(stdout);
}

void Report::showProgress(std::size_t done, std::size_t of) {
  if (options_.asJSON || !isTerminal_) {
    return;
  }
  const std::size_t filled = done * barWidth / of;
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

void Report::conclude(const Findings& findings, const Quality& quality) {
  if (!options_.asJSON) {
    fmt::print("\n{}\n", printable(findings.verdict));
    return;
  }
  using Json = nlohmann::ordered_json;
  const auto orNull = [](const auto& optional) { return optional ? Json(*optional) : Json(); };
  const bool isReached = findings.seenByPeers.has_value();
  const bool isKnown =
      findings.outcome == Outcome::carriesUDP || findings.outcome == Outcome::carriesNone;
  Json json{{"proxy", printable(proxy_.text())},
            {"carriesUDP", isKnown ? Json(findings.outcome == Outcome::carriesUDP) : Json()},
            {"verdict", printable(findings.verdict)},
            {"relay", printable(findings.relay)},
            {"seenByPeers", nullptr},
            {"sent", quality.sent},
            {"answered", quality.roundTrips.size()},
            {"roundTripMilliseconds", nullptr},
            {"largestDatagram", quality.largestDatagram},
            {"samePort", orNull(findings.isPortTheSame)},
            {"survivesIdle", orNull(quality.survivesIdle)},
            {"steps", Json::array()}};
  if (isReached) {
    json["seenByPeers"] = {{"address", findings.seenByPeers->ip()},
                           {"port", findings.seenByPeers->port}};
  }
  if (const auto& trips = quality.roundTrips; !trips.empty()) {
    json["roundTripMilliseconds"] = {
        {"min", trips.front()}, {"median", trips[trips.size() / 2]}, {"max", trips.back()}};
  }
  for (const Step& step : findings.steps) {
    json["steps"].push_back({{"name", step.name},
                             {"result", signs[static_cast<int>(step.mark)].name},
                             {"detail", printable(step.detail)},
                             {"milliseconds", step.milliseconds}});
    if (!step.code.empty()) {
      json["steps"].back()["code"] = step.code;
    }
  }
  fmt::print("{}\n", json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

}  // namespace zk
