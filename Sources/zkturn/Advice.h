#pragma once

#include <string>
#include <vector>

#include "Base/Endpoint.h"
#include "ZelkorSOCKS5/SOCKS5Control.h"
#include "ZelkorSOCKS5/SOCKS5Error.h"

namespace zk {

/// What a look at a proxy comes to.
enum class Outcome {
  carriesUDP,
  carriesNone,  // it says so, or lets nothing through to several servers
  notReached,   // not got so far as to ask
  unknown,      // nobody answers, and that may be the servers' fault
};

/// Why a look at a proxy ends: what the proxy does not do, and one sentence of what was asked, what
/// came, and what to try.
struct Failure {
  Outcome outcome = Outcome::unknown;
  std::string without;
  std::string asked;
  std::string came;
  std::string tryThis;
  std::string code{};      // what a protocol calls it, for programs
  bool isTimeout = false;  // of the proxy
  bool isSilence = false;  // of all STUN servers
};

/// What the proxy or the system said, without the names of our own calls.
std::string answerIn(const SOCKS5Error& error);

/// "a:1 and b:2".
std::string listOf(const std::vector<HostPort>& servers);

/// The failure of the stage that was under way when `error` came.
Failure failureAt(SOCKS5Control::Stage stage, const SOCKS5Error& error, const HostPort& proxy,
                  bool hasLogin);

/// The association ended while STUN servers were asked through its relay.
Failure failureOfEnd(const std::string& relay, const std::string& end);

/// Neither the servers that were to be asked have answered nor others.
Failure failureOfSilence(const std::string& relay, const std::vector<HostPort>& servers);

}  // namespace zk
