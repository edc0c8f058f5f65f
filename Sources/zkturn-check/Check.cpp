// The order is that of a relay being opened, so that what fails here fails there. Everything goes
// to the proxy: STUN servers are addressed through it.

#include "zkturn-check/Check.h"

#include <algorithm>
#include <charconv>
#include <thread>

#include <fmt/format.h>

#include "Base/IPv4.h"
#include "Platform/Interfaces.h"
#include "Platform/Resolver.h"
#include "ZelkorSOCKS5/InterfaceScope.h"
#include "ZelkorSOCKS5/ProxyProbe.h"
#include "ZelkorSOCKS5/SOCKS5Control.h"
#include "ZelkorSOCKS5/SOCKS5UDPFrame.h"
#include "ZelkorSOCKS5/STUN.h"

namespace zk::check {
namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;
using Stage = SOCKS5Control::Stage;
using Mark = Step::Mark;

constexpr Milliseconds answerLimit{1500};  // what a relay that is being opened gives a STUN server
constexpr Milliseconds shortestLimit{300};
constexpr Milliseconds pause{20};  // between probes: 50 a second are no flood
constexpr std::chrono::seconds lookupLimit{8};
constexpr unsigned tries = 3;  // before silence is believed

// Payloads, all multiples of 4: what WebRTC sends, what fits the usual links, and beyond.
constexpr std::size_t sizes[] = {576, 1000, 1200, 1280, 1352, 1400, 1452, 1472, 2048, 4096, 8192};
constexpr std::size_t sizeOfMedia = 1200;

// RFC 5389 section 15: a server passes over attributes of this half of the range that it does not
// know. Nobody knows this one.
constexpr std::uint16_t paddingAttribute = 0xFFF0;

bool holds(const std::string& text, std::string_view piece) {
  return text.find(piece) != std::string::npos;
}

constexpr const char* stepNames[] = {"name", "connection", "method", "login", "association"};

const char* nameOf(Stage stage) {
  return stepNames[static_cast<int>(stage)];
}

// What follows a stage: without a login, the association comes right behind the method.
Stage after(Stage stage, const std::string& found) {
  return stage == Stage::methodChosen && found == "no login"
             ? Stage::associated
             : static_cast<Stage>(static_cast<int>(stage) + 1);
}

// Why a check ends: what the proxy does not do, and one sentence of what was asked, what came, and
// what to try.
struct Failure {
  std::string without;
  std::string asked;
  std::string came;
  std::string tryThis;
};

// What the proxy or the system said, without the names of our own calls.
std::string answerIn(const SOCKS5Error& error) {
  std::string text = error.description();
  for (const std::string_view prefix : {"TCP connect to proxy failed: ", "SOCKS5 protocol error: ",
                                        "auth failed: ", "getaddrinfo: ", "connect: "}) {
    if (text.starts_with(prefix)) {
      text.erase(0, prefix.size());
    }
  }
  constexpr std::string_view lookup = "relay getaddrinfo(";
  if (error.kind() == SOCKS5Error::Kind::connectionFailed && text.starts_with(lookup)) {
    text = "relay " + text.substr(lookup.size());
    text.erase(text.rfind("): "), 1);
  }
  return text == "read timeout"                    ? "no answer, or a closed connection"
         : text == "read -1" || text == "write -1" ? "a reset connection"
         : error.kind() == SOCKS5Error::Kind::protocolError && holds(text, " ver ")
             ? fmt::format("an answer that is not SOCKS5 ({})", text)
             : text;
}

Failure failureAt(Stage stage, const SOCKS5Error& error, const Endpoint& proxy, bool hasLogin) {
  const std::string came = answerIn(error);
  switch (stage) {
    case Stage::nameFound:
      return {"cannot be reached", fmt::format("looked up \"{}\"", proxy.host), came,
              "check the spelling, or give the proxy's address in numbers"};
    case Stage::connected:
      return {"cannot be reached", "asked for a TCP connection", came,
              holds(came, "refused")
                  ? "nothing listens there: check the port, and that the proxy runs"
                  : "check the address and the firewalls on the way; behind a VPN, try "
                    "--via-default"};
    case Stage::methodChosen:
      return {"does not let you in", "asked it for a way to log in", came,
              error.kind() != SOCKS5Error::Kind::authFailed
                  ? "check that a SOCKS5 proxy serves this port, and not one for HTTP or SOCKS4"
              : hasLogin ? "ask its operator which login it takes: only none, or user name and "
                           "password, can be given here"
                         : "give --user and --pass-file"};
    case Stage::loggedIn:
      return {"does not let you in",
              hasLogin ? "sent it user name and password" : "had no login to give it", came,
              hasLogin ? "check user name and password" : "give --user and --pass-file"};
    case Stage::associated:
      break;
  }
  return {"does not carry UDP", "asked it for a UDP association", came,
          holds(came, "relay ")
              ? "ask its operator to have it name an address that its clients reach over IPv4"
              : "use a proxy that offers UDP ASSOCIATE, or ask its operator to allow it"};
}

class Checker {
 public:
  Checker(const Options& options, const Watcher& watcher) : options_(options), watcher_(watcher) {}

  Findings run() {
    const std::string proxy = options_.proxy.text();
    try {
      connect();
      findServers();
      findMapping();
      measureRoundTrips();
      findLargest();
      compareDestinations();
      waitIdle();
      findings_.carriesUDP = true;
      findings_.verdict = fmt::format("{} carries UDP: peers will see {}{}.", proxy,
                                      findings_.seenByPeers->text(), remark_);
    } catch (const Failure& failure) {
      findings_.verdict = fmt::format("{} {}: {}, got \"{}\"; {}.", proxy, failure.without,
                                      failure.asked, failure.came, failure.tryThis);
    }
    std::sort(findings_.roundTrips.begin(), findings_.roundTrips.end());
    return std::move(findings_);
  }

 private:
  void connect();
  void findServers();
  void findMapping();
  void measureRoundTrips();
  void findLargest();
  void compareDestinations();
  void waitIdle();

  // What became of one Binding request through the relay.
  struct Answer {
    std::optional<Endpoint> mapped;
    Milliseconds roundTrip{0};
  };
  // Absent when no answer came within `limit`. A request of more than 20 octets is padded.
  std::optional<Answer> ask(const Endpoint& server, Milliseconds limit, std::size_t size = 20);
  std::optional<Answer> askRepeatedly(const Endpoint& server, Milliseconds limit,
                                      std::size_t size = 20);
  // For a path whose round trips are known by now.
  Milliseconds limitNow() const;
  void step(Mark mark, std::string name, std::string detail);
  void remark(const std::string& text) { remark_ += "; " + text; }

  const Options& options_;
  const Watcher& watcher_;
  Findings findings_;
  std::string remark_;  // what the verdict adds
  Clock::time_point stepBegan_ = Clock::now();
  std::optional<SOCKS5Control> control_;
  SOCKS5Control::RelayEndpoint relay_;
  std::optional<ProbeSocket> socket_;
  std::vector<Endpoint> servers_;
};

void Checker::step(Mark mark, std::string name, std::string detail) {
  const auto now = Clock::now();
  findings_.steps.push_back(
      {mark, std::move(name), std::move(detail), Milliseconds(now - stepBegan_).count()});
  stepBegan_ = now;
  if (watcher_.onStep) {
    watcher_.onStep(findings_.steps.back());
  }
}

void Checker::connect() {
  const std::optional<bool> override =
      options_.viaDefault ? std::optional(true) : std::nullopt;  // as the daemon does by itself
  const auto way = [](std::optional<unsigned> index) -> std::string {
    for (const NetworkInterface& interface : Interfaces().available()) {
      if (index == interface.index) {
        return "pinned to " + interface.name;
      }
    }
    return index ? "pinned" : "by the routes";
  };

  control_.emplace(options_.proxy.host, options_.proxy.port, options_.user, options_.password,
                   options_.timeoutSeconds);
  Stage stage = Stage::nameFound;  // the one that is under way
  control_->onStage = [&](Stage done, const std::string& found) {
    step(Mark::passed, nameOf(done),
         done == Stage::connected
             ? fmt::format("to {}, {}", found, way(control_->pinnedInterface()))
         : done == Stage::associated ? "relay " + found
                                     : found);
    stage = done == Stage::associated ? done : after(done, found);
  };
  try {
    control_->connect(override);
    relay_ = control_->performHandshakeAndUDPAssociate();
    findings_.relay = fmt::format("{}:{}", relay_.relayHost, relay_.relayPort);
    const auto interface = InterfaceScope::interfaceFor(
        relay_.relayHost, reinterpret_cast<const sockaddr&>(relay_.relayAddress), override);
    socket_.emplace(relay_.relayAddress, interface);
  } catch (const SOCKS5Error& error) {
    step(Mark::failed, nameOf(stage), answerIn(error));
    throw failureAt(stage, error, options_.proxy, options_.user.has_value());
  }
}

void Checker::findServers() {
  servers_ = options_.stunServers;
  if (!servers_.empty()) {
    return;
  }
  const Deadline deadline = Clock::now() + lookupLimit;
  for (const STUN::Server& server : STUN::defaultServers) {
    const Resolution found =
        resolveUDPv4(server.host, std::to_string(server.port), deadline, nullptr);
    if (!found.addresses.empty()) {
      const auto& address = reinterpret_cast<const sockaddr_in&>(found.addresses.front().address);
      servers_.push_back({addressText(address), server.port});
    }
  }
  if (servers_.empty()) {
    step(Mark::failed, "STUN servers", "no well-known one could be looked up");
    throw Failure{"may carry UDP or not", "looked up the well-known STUN servers", "no address",
                  "name one in numbers with --stun IP:PORT"};
  }
  // The first and the last are of two operators.
  servers_ = {servers_.front(), servers_.back()};
  step(Mark::passed, "STUN servers",
       fmt::format("{} and {}", servers_.front().text(), servers_.back().text()));
}

std::optional<Checker::Answer> Checker::ask(const Endpoint& server, Milliseconds limit,
                                            std::size_t size) {
  const STUN::BindingRequest binding = STUN::makeBindingRequest();
  Bytes request(binding.request.begin(), binding.request.end());
  if (size > request.size()) {
    const std::size_t padding = size - request.size();  // an attribute, with its header
    request.resize(size);
    writeUInt16(&request[2], static_cast<std::uint16_t>(padding));
    writeUInt16(&request[20], paddingAttribute);
    writeUInt16(&request[22], static_cast<std::uint16_t>(padding - 4));
  }
  const auto sent = Clock::now();
  const Deadline deadline = sent + std::chrono::duration_cast<Clock::duration>(limit);
  try {
    socket_->send(request, server.host, server.port);
    while (const auto datagram = socket_->receive(deadline)) {
      const Milliseconds roundTrip = Clock::now() - sent;
      const auto frame = SOCKS5UDPFrame::unwrap(*datagram);
      const bool isAnswer =
          frame && frame->payload.size() >= 20 &&
          std::equal(binding.txID.begin(), binding.txID.end(), frame->payload.begin() + 8);
      if (!isAnswer) {
        continue;  // a late one
      }
      Answer reply{std::nullopt, roundTrip};
      if (const auto text = STUN::parseXorMappedAddress(frame->payload, binding.txID)) {
        const std::size_t colon = text->find(':');
        reply.mapped = {text->substr(0, colon), 0};
        std::from_chars(text->data() + colon + 1, text->data() + text->size(), reply.mapped->port);
      }
      return reply;
    }
  } catch (const SOCKS5Error&) {
    // The system refuses the datagram, for its size perhaps: it does not pass.
  }
  return std::nullopt;
}

std::optional<Checker::Answer> Checker::askRepeatedly(const Endpoint& server, Milliseconds limit,
                                                      std::size_t size) {
  for (unsigned i = 0; i < tries; ++i) {
    if (auto reply = ask(server, limit, size)) {
      return reply;
    }
  }
  return std::nullopt;
}

Milliseconds Checker::limitNow() const {
  std::vector<double> trips = findings_.roundTrips;
  if (trips.empty()) {
    return answerLimit;
  }
  const auto slowest = Milliseconds(*std::max_element(trips.begin(), trips.end()));
  return std::clamp<Milliseconds>(4 * slowest, shortestLimit, answerLimit);
}

void Checker::findMapping() {
  std::string asked;
  for (std::size_t i = 0; i < servers_.size(); ++i) {
    const Endpoint& server = servers_[i];
    asked += (asked.empty() ? "" : " and ") + server.text();
    const auto reply = askRepeatedly(server, answerLimit);
    if (reply && reply->mapped) {
      findings_.seenByPeers = reply->mapped;
      std::rotate(servers_.begin(), servers_.begin() + static_cast<std::ptrdiff_t>(i),
                  servers_.end());
      step(Mark::passed, "STUN", "peers will see " + reply->mapped->text());
      return;
    }
  }
  const auto end = control_->takeEnd();
  const std::string came = end ? "the proxy ended its connection: " + *end : "no answer";
  step(Mark::failed, "STUN", came);
  throw Failure{
      "does not carry UDP",
      fmt::format("sent STUN requests to {} through its relay {}", asked, findings_.relay), came,
      end ? "ask its operator whether it allows UDP"
          : fmt::format("UDP to {} may be blocked on the way (ask its operator to open it, or try "
                        "--via-default), or the proxy may not carry it; another server can be "
                        "named with --stun",
                        addressText(relay_.relayAddress))};
}

void Checker::measureRoundTrips() {
  for (unsigned i = 0; i < options_.count; ++i) {
    std::this_thread::sleep_for(pause);
    ++findings_.sent;
    if (const auto reply = ask(servers_.front(), answerLimit)) {
      findings_.roundTrips.push_back(reply->roundTrip.count());
    }
    if (watcher_.onProbe) {
      watcher_.onProbe(findings_.sent, options_.count);
    }
  }
  std::vector<double>& trips = findings_.roundTrips;
  std::sort(trips.begin(), trips.end());
  const std::size_t lost = findings_.sent - trips.size();
  const std::string answered = fmt::format("{} of {} answered", trips.size(), findings_.sent);
  step(lost == 0 ? Mark::passed : Mark::noted, "round trips",
       trips.empty() ? answered
                     : fmt::format("{}, min/median/max {:.1f}/{:.1f}/{:.1f} ms", answered,
                                   trips.front(), trips[trips.size() / 2], trips.back()));
  if (lost > 0) {
    remark(fmt::format("{:.0f} % of the datagrams or their answers were lost",
                       100.0 * static_cast<double>(lost) / findings_.sent));
  }
}

void Checker::findLargest() {
  std::size_t failed = 0;
  for (const std::size_t size : sizes) {
    if (!askRepeatedly(servers_.front(), limitNow(), size)) {
      failed = size;
      break;
    }
    findings_.largestDatagram = size;
  }
  const bool isEnough = findings_.largestDatagram >= sizeOfMedia;
  step(isEnough ? Mark::passed : Mark::noted, "size",
       findings_.largestDatagram == 0
           ? fmt::format("not even {} octets pass, or the STUN server answers short requests only",
                         failed)
       : failed == 0 ? fmt::format("{} octets pass", findings_.largestDatagram)
                     : fmt::format("{} octets pass, {} do not", findings_.largestDatagram, failed));
  if (!isEnough) {
    remark(fmt::format("datagrams of {} octets, as WebRTC sends them, do not pass", sizeOfMedia));
  }
}

void Checker::compareDestinations() {
  if (servers_.size() < 2 || servers_.front().text() == servers_.back().text()) {
    return;
  }
  const auto reply = askRepeatedly(servers_.back(), limitNow());
  if (!reply || !reply->mapped) {
    step(Mark::noted, "ports", fmt::format("no answer from {}", servers_.back().text()));
    return;
  }
  const Endpoint& first = *findings_.seenByPeers;
  const Endpoint& second = *reply->mapped;
  findings_.isPortTheSame = first.text() == second.text();
  if (!*findings_.isPortTheSame) {
    step(Mark::noted, "ports",
         fmt::format("the second destination sees {}: another one for each", second.text()));
    remark("a peer that is behind a proxy or a strict translator itself will not get through");
  } else if (first.port == relay_.relayPort) {
    step(Mark::passed, "ports", "two destinations see the same port, the relay's own");
  } else {
    step(Mark::passed, "ports",
         "two destinations see the same port: \"relayedPort\": \"mapped\" helps");
    remark("set \"relayedPort\": \"mapped\"");
  }
}

void Checker::waitIdle() {
  if (options_.idleSeconds == 0) {
    return;
  }
  std::this_thread::sleep_for(std::chrono::seconds(options_.idleSeconds));
  const bool isAnswered = askRepeatedly(servers_.front(), limitNow()).has_value();
  const auto end = control_->takeEnd();
  findings_.survivesIdle = isAnswered && !end;
  const std::string silence = fmt::format("{} s of silence", options_.idleSeconds);
  if (*findings_.survivesIdle) {
    step(Mark::passed, "idle", "the association survives " + silence);
    return;
  }
  step(Mark::noted, "idle",
       end ? fmt::format("the proxy ended its connection after {}: {}", silence, *end)
           : "no answer any more after " + silence);
  remark("it forgets an association after " + silence);
}

}  // namespace

Findings check(const Options& options, const Watcher& watcher) {
  return Checker(options, watcher).run();
}

}  // namespace zk::check
