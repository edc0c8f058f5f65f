#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Base/Endpoint.h"
#include "Platform/Clock.h"
#include "ZelkorSOCKS5/Association.h"
#include "ZelkorSOCKS5/BindingTransaction.h"
#include "zkturn/Advice.h"
#include "zkturn/ProxyOptions.h"
#include "zkturn/StepLimit.h"

namespace zk {

/// One thing that was asked of the proxy, and what came.
struct Step {
  enum class Mark { passed, failed, noted };  // noted: not as it should be, and no reason to fail
  Mark mark = Mark::passed;
  std::string name;
  std::string detail;
  std::string code;  // what a protocol calls it, for programs; often empty
  double milliseconds = 0;
};

/// All that was found. What was not got to is absent, or empty.
struct Findings {
  Outcome outcome = Outcome::unknown;
  std::string verdict;  // one sentence; with what to try when it does not carry UDP
  std::vector<Step> steps;
  std::string relay;                    // host:port, as the proxy answered
  std::optional<Endpoint> seenByPeers;  // the address and port of the client's datagrams
  double roundTripMilliseconds = 0;     // of the first answer
  std::optional<bool> isPortTheSame;    // for two destinations
  bool isPortTheRelays = false;         // peers see the port that the proxy assigned
};

/// The first steps of every look at a proxy. They are those of a relay that is being opened, in the
/// same order, on the same sockets, in the same two attempts, so that what fails here fails there.
/// Everything goes to the proxy: STUN servers are asked through it. Each step ends within the time
/// limit of the options.
///
/// One thread, which it blocks.
class Look {
 public:
  using Milliseconds = std::chrono::duration<double, std::milli>;
  using OnStep = std::function<void(const Step&)>;

  /// The options and the password must outlive this. Unless `asksResolver`, no name but the proxy's
  /// own is looked up by the system.
  Look(const ProxyOptions& options, const std::optional<std::string>& password, OnStep onStep = {},
       bool asksResolver = true);

  /// Up to the address that peers see. Throws Failure.
  void findMapping();
  /// Whether a second destination sees the same.
  void comparePorts();

  /// How it ends: one sentence about what was found, or why it was not.
  void conclude();
  void conclude(const Failure& failure);
  const Findings& findings() const { return findings_; }

  // For those who look further.
  void step(Step::Mark mark, std::string name, std::string detail, std::string code = {});
  /// What the verdict adds.
  void remark(const std::string& text) { remark_ += "; " + text; }
  /// The server that has answered first.
  const HostPort& server() const { return servers_.front(); }
  using Answer = BindingTransaction::Answer;
  /// Asks a STUN server through the relay, `tries` times before silence is believed; each try waits
  /// for `limit`, and all together end with the step. A request of more than 20 octets is padded.
  std::optional<Answer> ask(const HostPort& server, Milliseconds limit, unsigned tries = 3,
                            std::size_t size = STUN::headerSize);
  /// Waits; the time limit of the step does not count it.
  void wait(std::chrono::seconds time);
  /// When the step that is under way has to be over.
  Deadline stepEnd() const;
  /// Why the proxy has ended the association; absent while it lives.
  std::optional<std::string> takeEnd();

 private:
  void tryOnce(OpeningAttempt how);
  void findServers();
  void askServers();
  bool askAny(const std::vector<HostPort>& servers);

  const ProxyOptions& options_;
  const std::optional<std::string>& password_;
  const OnStep onStep_;
  const bool asksResolver_;
  Findings findings_;
  std::string remark_;
  SteadyClock::time_point stepBegan_ = SteadyClock::now();
  std::chrono::seconds waited_{0};  // of that step
  std::vector<HostPort> servers_;
  std::optional<StepLimit> limit_;  // of the attempt's steps
  std::optional<Association> association_;
};

}  // namespace zk
