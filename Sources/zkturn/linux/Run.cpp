#include "zkturn/Run.h"

#include <cerrno>
#include <cstdio>
#include <exception>
#include <optional>

#include <fmt/compile.h>
#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include "Platform/Clock.h"
#include "Platform/EventLoop.h"
#include "Platform/LogWriter.h"
#include "Platform/Process.h"
#include "ZelkorSeal/Carrier.h"
#include "ZelkorSeal/Seal.h"
#include "zkturn/Look.h"
#include "zkturn/linux/SealedCommand.h"

namespace zk {
namespace {

constexpr int ours = 125;

// What the command has sent is passed on before all ends, for as long as some of it gets on.
constexpr std::chrono::seconds farewell{10};
constexpr std::chrono::milliseconds farewellPause{5};

void say(std::string_view sentence) {
  fmt::print(stderr, "zkturn: {}\n", sentence);
}

// This process holds a password, and two sockets for each connection.
void prepareSelf() {
  raiseDescriptorLimit();
  const rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
}

// Whom peers see, or why nothing can go through the proxy, which ends it.
void lookAtProxy(const ProxyOptions& proxy, const std::optional<std::string>& password) {
  constexpr bool asksResolver = false;
  Look look(proxy, password, {}, asksResolver);
  try {
    look.findMapping();
    const Findings& found = look.findings();
    say(fmt::format("peers see {}, round trip {:.0f} ms", found.seenByPeers->ip(),
                    found.roundTripMilliseconds));
    look.comparePorts();
    if (found.isPortTheSame == false) {
      say("two people behind this proxy cannot call each other, as it shows each peer another "
          "port");
    }
  } catch (const Failure& failure) {
    look.conclude(failure);
    if (failure.outcome == Outcome::notReached) {
      throw SealFailure(look.findings().verdict);
    }
    say(look.findings().verdict + " What needs no UDP works all the same.");
  }
}

// The file that --log names; without one there is none.
class RunLog {
 public:
  explicit RunLog(const std::string& path) : path_(path) {
    if (path.empty()) {
      return;
    }
    std::FILE* const file = std::fopen(path.c_str(), "ae");
    if (file == nullptr) {
      throw SealFailure(fmt::format("cannot write the log {}: {}", path, errorText(errno)));
    }
    std::fclose(file);
    writer_.emplace("zk.turn.log");
    number_ = writer_->open(path_.c_str());
  }

  LogCallback callback() {
    if (!writer_) {
      return {};
    }
    return [this](std::string_view line) {
      writer_->append(number_, fmt::format("{} {}\n", dateText(wallClockMicroseconds()), line));
    };
  }

 private:
  const std::string path_;
  std::optional<LogWriter> writer_;
  std::size_t number_ = 0;
};

// Serves the command from its start to its end, and a little longer. Its status.
int serve(Seal& seal, EventLoop& loop, const Carrier& carrier) {
  int status = ours;
  std::optional<std::uint64_t> seen;  // of what is passed on
  std::uint64_t end = 0;
  std::function<void()> look = [&] {
    const auto passed = carrier.passingOn();
    if (passed != seen) {
      end = loop.now() + static_cast<std::uint64_t>(std::chrono::nanoseconds(farewell).count());
    }
    seen = passed;
    if (!passed || loop.now() >= end) {
      loop.stop();
    } else {
      loop.after(farewellPause, look);
    }
  };
  seal.start(loop, [&](int ended) {
    status = ended;
    loop.after(farewellPause, look);  // by then its last packets have been read
  });
  loop.run();
  return status;
}

CarrierSettings settingsFor(const ProxyOptions& proxy, const RunOptions& options,
                            const std::optional<std::string>& password, RunLog& log) {
  CarrierSettings settings;
  settings.proxy = {{proxy.proxy.host, proxy.proxy.port, proxy.user, password}, proxy.viaDefault};
  if (!options.dns.empty()) {
    settings.nameServers = options.dns;
  }
  settings.carriesPrivate = options.carriesPrivate;
  settings.carriesQUIC = options.carriesQUIC;
  settings.tell = [](std::string_view sentence) { say(sentence); };
  settings.log = log.callback();
  return settings;
}

int runSealed(const ProxyOptions& proxy, const RunOptions& options) {
  if (geteuid() == 0 && !options.asRoot) {
    throw SealFailure(
        "this is root, whose files and devices lead out of any seal; run it as a user, or with "
        "--as-root all the same");
  }
  const SealedCommand command(options.command);
  Seal seal({command.arguments(), {"MOZ_NO_REMOTE=1"}, options.keepsBus});
  prepareSelf();
  SealDescriptors made = seal.takeDescriptors();
  const std::optional<std::string> password = readPassword(proxy);
  lookAtProxy(proxy, password);
  if (!command.remark().empty()) {
    say(command.remark());
  }
  if (options.keepsBus) {
    say("the session bus is within reach, and with it every program that sits on it");
  }
  EventLoop loop(monotonicNanoseconds);
  RunLog log(options.logFile);
  Carrier carrier(loop, std::move(made), settingsFor(proxy, options, password, log));
  const int status = serve(seal, loop, carrier);
  for (const std::string& sentence : carrier.keptIn().sentences()) {
    say("kept in: " + sentence);
  }
  return status;
}

}  // namespace

int run(const ProxyOptions& proxy, const RunOptions& options) {
  try {
    return runSealed(proxy, options);
  } catch (const std::exception& error) {
    say(error.what());
    return ours;
  }
}

}  // namespace zk
