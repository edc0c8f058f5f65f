// Every row is a daemon of its own, all of them in a machine of their own as far as root can make
// one: its loopback, its /tmp, its resolver, an uplink of 20 Mbit/s and a disk that can stand
// still.

#include "Independence.h"

#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <stdexcept>
#include <thread>
#include <utility>

#include <nlohmann/json.hpp>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include "Contestants.h"
#include "Line.h"
#include "Loopback/Scratch.h"
#include "Platform/Clock.h"
#include "Report.h"

namespace zk::bench {
namespace {

using namespace loopback;
using namespace std::chrono_literals;
using nlohmann::json;
using Action = SOCKS5Step::Action;
using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

constexpr std::size_t videoPacket = 1200;
// Past this, what has not come counts as lost. A client's own patience is half of it.
constexpr auto longest = 100s;
constexpr double tolerated = 5;  // milliseconds that the p99 may be above the idle daemon's

struct Row {
  std::string name;
  json figures{};  // p50, p99, max, sent, lost, broken; or value; or skipped
};

Row rowOf(const std::string& name, const LoadResult& seen) {
  return {name,
          {{"p50", seen.percentile(0.50) / 1000},
           {"p99", seen.percentile(0.99) / 1000},
           {"max", seen.percentile(1) / 1000},
           {"sent", seen.sent},
           {"lost", seen.losses()}}};
}

/// What a line sees in three seconds while something happens.
LoadResult observe(Line& line, const std::function<void()>& happens) {
  auto event = std::async(std::launch::async, [&] {
    std::this_thread::sleep_for(300ms);
    happens();
  });
  line.talk(3s);
  LoadResult seen = line.settle(longest);
  event.get();
  return seen;
}

/// Another client's Allocate, sent five times in two and a half seconds while there is no answer.
bool open(const World& world) {
  TURNClient client(world.port);
  client.setRetransmission(500ms, 4);
  client.setTimeout(2500ms);
  return client.allocate().success();
}

/// Sends those datagrams to the server in turn for two and a half seconds, as fast as one thread
/// can.
void bother(const World& world, const std::vector<Bytes>& datagrams) {
  const KitSocket stranger = KitSocket::boundUDP();
  stranger.connectTo(localEndpoint(world.port));
  Bytes buffer(2048);
  const auto end = Clock::now() + 2500ms;
  for (std::size_t sent = 1; Clock::now() < end; ++sent) {
    stranger.send(datagrams[sent % datagrams.size()]);
    while (sent % 32 == 0 && stranger.receive(buffer)) {  // the answers
    }
  }
}

Bytes unsignedAllocate() {
  return TURNMessage(TURNMethod::allocate, TURNClass::request, {}).encode();
}

/// With a nonce of the server's.
Bytes wronglySignedAllocate(const World& world) {
  TURNClient stranger(world.port, {.password = "guess"});
  stranger.allocate();
  TURNMessage request = stranger.makeRequest(TURNMethod::allocate);
  stranger.sign(request);
  return request.encode();
}

/// A socket in a network namespace of its own, behind an uplink of 20 Mbit/s from here.
KitSocket openBehindUplink() {
  std::promise<pid_t> there;
  std::promise<void> linked;
  auto socket = std::async(std::launch::async, [&] {
    there.set_value(unshare(CLONE_NEWNET) == 0 ? gettid() : 0);
    linked.get_future().get();
    runScript("ip addr add 10.99.0.2/24 dev far && ip link set far up");
    return KitSocket::boundUDP("10.99.0.2");
  });
  try {
    // Deep enough to hold whatever a socket's send buffer does: nothing is to be lost in it.
    runScript(
        fmt::format("ip link del uplink; ip link add uplink type veth peer name far netns {} && "
                    "ip addr add 10.99.0.1/24 dev uplink && ip link set uplink up && "
                    "tc qdisc add dev uplink root tbf rate 20mbit burst 10kb limit 16mb",
                    there.get_future().get()));
    linked.set_value();
  } catch (const std::exception&) {
    linked.set_exception(std::current_exception());
  }
  return socket.get();
}

class Rows {
 public:
  Rows(const IndependenceOptions& options, const std::string& binary, std::string hindrance)
      : options_(options), binary_(binary), hindrance_(std::move(hindrance)) {}

  std::vector<Row> measure() {
    add("nothing else", false, [&](World&, Line& line) { return observe(line, [] {}); });
    for (const int distance : {50, 100, 150}) {
      add(fmt::format("another opens through a proxy {} ms away", distance), false,
          [&](World& world, Line& line) {
            return besideOpening(world, line, away(distance), true);
          });
    }
    add("another opens, the proxy accepts and hangs", false, [&](World& world, Line& line) {
      return besideOpening(world, line, {.onAccept = {Action::silence}}, false);
    });
    add("another opens, the proxy closes at once", false, [&](World& world, Line& line) {
      return besideOpening(world, line, {.onGreeting = {Action::close}}, false);
    });
    add(
        "another opens, the resolver is dead", true,
        [&](World& world, Line& line) { return observe(line, [&] { open(world); }); }, false);
    add("another fills an uplink of 20 Mbit/s", true, [](World& world, Line& line) {
      Line filler(world, openBehindUplink(), "10.99.0.2");
      return observe(line, [&] {  // twice what goes through
        pace(2s, 4, [&] { filler.sendUp(videoPacket); });
      });
    });
    add("600 datagrams of 1200 octets in 30 ms into that uplink", true, [](World& world, Line&) {
      Line filler(world, openBehindUplink(), "10.99.0.2");
      pace(30ms, 20, [&] { filler.sendUp(videoPacket); });
      return filler.settle(longest);
    });
    for (const int size : {128, 185}) {
      add(fmt::format("{} datagrams of 1200 octets back to back, five times each way", size), false,
          [size](World&, Line& line) { return burst(line, size); });
    }
    add("the disk of the logs stands still for 300 ms", true, [](World&, Line& line) {
      return observe(line, [] { runScript("fsfreeze -f /tmp; sleep 0.3; fsfreeze -u /tmp"); });
    });
    add("garbage and unsigned requests at full rate, and an opening", false,
        [&](World& world, Line& line) {
          world.proxy.setScript(away(150));
          return observe(line, [&] {
            auto opening = std::async(std::launch::async, [&] { open(world); });
            bother(world, {Bytes(200, 0x80), unsignedAllocate(), Bytes(100, 0x00)});
          });
        });
    add("unsigned Allocates at full rate", false,
        [&](World& world, Line& line) { return besideFlood(world, line, unsignedAllocate()); });
    add("wrongly signed Allocates at full rate", false, [&](World& world, Line& line) {
      return besideFlood(world, line, wronglySignedAllocate(world));
    });
    addValue("ten openings at once, 100 ms away, x the time of one", 1.5,
             [&] { return openings(10) / openings(1); });
    addValue("CPU per datagram for 500 clients one by one, x that of one client", 1.3,
             [&] { return costOf(500) / costOf(1); });
    return rows_;
  }
  bool allHold() const { return allHold_; }

 private:
  using Seeing = std::function<LoadResult(World&, Line&)>;

  static SOCKS5Script away(int distance) {
    return {.login = SOCKS5Login{"user", "password"}, .distance = Milliseconds(distance)};
  }

  static LoadResult besideOpening(World& world, Line& line, const SOCKS5Script& script,
                                  bool succeeds) {
    world.proxy.setScript(script);
    bool opened = false;
    const LoadResult seen = observe(line, [&] { opened = open(world); });
    // One that waits for others' openings may fail; one that must fail never succeeds.
    if (opened && !succeeds) {
      throw std::runtime_error("the opening was to fail");
    }
    return seen;
  }

  /// A new client gets its relay within two seconds all the same, and another may go on with the
  /// nonce that it had before.
  LoadResult besideFlood(World& world, Line& line, const Bytes& request) {
    TURNClient call(world.port);
    call.setRetransmission(500ms, 4);
    call.setTimeout(2s);
    if (!call.allocate().success()) {
      throw std::runtime_error("the daemon gave no relay");
    }
    return observe(line, [&] {
      auto others = std::async(std::launch::async, [&] {
        std::this_thread::sleep_for(300ms);
        const auto start = Clock::now();
        if (!open(world) || Clock::now() - start > 2s) {
          broken_ += ", no new relay within 2 s";
        }
        if (!call.refresh(600).success()) {
          broken_ += ", no Refresh";
        }
      });
      bother(world, {request});
    });
  }

  static LoadResult burst(Line& line, int size) {
    LoadResult all;
    for (int round = 0; round < 5; ++round) {
      for (int i = 0; i < size; ++i) {
        line.sendUp(videoPacket);
      }
      all += line.settle(longest);
      for (int i = 0; i < size; ++i) {
        line.sendDown(videoPacket);
      }
      all += line.settle(longest);
    }
    return all;
  }

  /// Seconds until so many clients have their relays.
  double openings(int count) const {
    World world(binary_);
    open(world);  // what is looked up once is known now
    world.proxy.setScript(away(100));
    const std::uint64_t start = monotonicNanoseconds();
    std::vector<std::future<bool>> all;
    for (int i = 0; i < count; ++i) {
      all.push_back(std::async(std::launch::async, [&] {
        TURNClient client(world.port);
        client.setTimeout(longest);
        return client.allocate().success();
      }));
    }
    for (auto& one : all) {
      if (!one.get()) {
        throw std::runtime_error("the daemon gave no relay");
      }
    }
    return static_cast<double>(monotonicNanoseconds() - start) / 1e9;
  }

  /// CPU per round trip with 32 of them under way, each to another client.
  double costOf(unsigned clients) const {
    const FarSide farSide;
    const auto daemon = makeDaemon(binary_, farSide.port(), DaemonForm::channelData, clients);
    const auto before = daemon->process().cpuTime();
    const LoadResult result = runLoad(daemon->legs(), {.duration = 2s});
    return static_cast<double>((daemon->process().cpuTime() - before).count()) /
           static_cast<double>(result.roundTrips());
  }

  bool isWanted(const std::string& name) const {
    return name.find(options_.only) != std::string::npos;
  }

  void add(const std::string& name, bool needsMachine, const Seeing& see, bool withSTUN = true) {
    if (!isWanted(name)) {
      return;
    }
    Row row{name, {{"skipped", hindrance_}}};
    try {
      if (hindrance_.empty() || !needsMachine) {
        World world(binary_, withSTUN);
        Line line(world);
        row = rowOf(name, see(world, line));
        const double p99 = row.figures["p99"];
        if (rows_.empty()) {
          idle_ = p99;
        }
        // What goes into a narrow uplink takes its time.
        const bool isOwn = name.find("datagrams of") != std::string::npos;
        allHold_ = allHold_ && row.figures["lost"] == 0 && (isOwn || p99 <= idle_ + tolerated) &&
                   broken_.empty();
        row.figures["broken"] = std::exchange(broken_, {});
      }
    } catch (const std::exception& error) {
      row.figures = {{"skipped", error.what()}};
    }
    tell(row);
  }

  void addValue(const std::string& name, double bound, const std::function<double()>& measure) {
    if (isWanted(name)) {
      const double value = measure();
      allHold_ = allHold_ && value <= bound;
      tell({name, {{"value", value}}});
    }
  }

  void tell(Row row) {
    fmt::print(stderr, "{}: {}\n", row.name, row.figures.dump());
    rows_.push_back(std::move(row));
  }

  const IndependenceOptions& options_;
  const std::string binary_;
  const std::string hindrance_;
  std::vector<Row> rows_;
  double idle_ = 0;
  std::string broken_;  // of the row at hand, but for delays and losses
  bool allHold_ = true;
};

/// A row's figures as four cells of a table.
std::string cells(const json& figures) {
  if (figures.contains("p50")) {
    return fmt::format("{:.2f} | {:.2f} | {:.1f} | {} of {}{}", figures["p50"].get<double>(),
                       figures["p99"].get<double>(), figures["max"].get<double>(),
                       figures["lost"].get<std::uint64_t>(), figures["sent"].get<std::uint64_t>(),
                       figures.value("broken", ""));
  }
  return figures.contains("value") ? fmt::format("{:.2f} | | | ", figures["value"].get<double>())
                                   : "not measured | | | ";
}

Bar barOf(const std::string& label, const json& figures, const char* colour) {
  const double most = figures["max"];
  return {label, most,
          fmt::format("{:.1f} ms, {} of {} lost", most, figures["lost"].get<std::uint64_t>(),
                      figures["sent"].get<std::uint64_t>()),
          colour};
}

void report(const std::vector<Row>& rows, const std::map<std::string, json>& before,
            const std::string& svg) {
  std::vector<Bar> bars;
  const char* const heads = " p50 ms | p99 ms | max ms | lost |";
  fmt::print("\n{}\n\n| meanwhile |{}{}\n|:--|--:|--:|--:|--:|{}\n", machineText(),
             before.empty() ? "" : " before:" + std::string(heads), heads,
             before.empty() ? "" : "--:|--:|--:|--:|");
  for (const Row& row : rows) {
    const auto earlier = before.find(row.name);
    const bool hasEarlier = earlier != before.end();
    fmt::print("| {} | {}{} |\n", row.name,
               before.empty() ? "" : cells(hasEarlier ? earlier->second : json{}) + " | ",
               cells(row.figures));
    std::string label = row.name;
    if (hasEarlier && earlier->second.contains("max")) {
      bars.push_back(barOf(label, earlier->second, orange));
      label.clear();
    }
    if (row.figures.contains("max")) {
      bars.push_back(barOf(label, row.figures, "#1f77b4"));
    }
  }
  if (!svg.empty()) {
    std::ofstream(svg) << chart(
        "The longest delay that a client sees, and what it loses, on a "
        "scale of factors (orange: before; less is better)",
        bars, true);
  }
}

/// Moves this process to a machine of its own. Why that cannot be done; empty when it could.
std::string enterMachine() {
  try {
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
      throw std::runtime_error("cannot make namespaces: only root can");
    }
    runScript(
        "mount --make-rprivate / && ip link set lo up && mount -t tmpfs -o size=2g tmpfs /tmp && "
        "echo nameserver 127.0.0.1 >/tmp/resolv.conf && "
        "mount --bind /tmp/resolv.conf /etc/resolv.conf && "
        "mkfs.ext4 -qF /tmp/disk 1g >/dev/null && mount -o loop /tmp/disk /tmp");
    return {};
  } catch (const std::exception& error) {
    return error.what();
  }
}

}  // namespace

bool runIndependence(const IndependenceOptions& options) {
  std::map<std::string, json> before;
  if (!options.before.empty()) {
    before = json::parse(contentOf(options.before)).get<std::map<std::string, json>>();
  }
  const std::string binary = pathByDescriptor(options.daemon);
  std::ofstream results(options.json);  // opened before the machine changes
  const std::string hindrance = enterMachine();
  // A name server that never answers.
  std::optional<KitSocket> silent;
  if (hindrance.empty()) {
    silent = KitSocket::boundUDP("127.0.0.1", 53);
  }
  Rows rows(options, binary, hindrance);
  const std::vector<Row> all = rows.measure();
  json written;
  for (const Row& row : all) {
    written[row.name] = row.figures;
  }
  results << written.dump(1) << "\n";
  report(all, before, options.svg);
  fmt::print("\n{}\n", rows.allHold() ? "every bound holds" : "OVER: a bound does not hold");
  return rows.allHold();
}

}  // namespace zk::bench
