#pragma once

#include <string>

#include "Base/Endpoint.h"
#include "ZelkorSOCKS5/SOCKS5Control.h"
#include "ZelkorSOCKS5/SOCKS5Error.h"

namespace zk {

/// Why a look at a proxy ends: what the proxy does not do, and one sentence of what was asked, what
/// came, and what to try.
struct Failure {
  std::string without;
  std::string asked;
  std::string came;
  std::string tryThis;
};

/// What the proxy or the system said, without the names of our own calls.
std::string answerIn(const SOCKS5Error& error);

/// The failure of the stage that was under way when `error` came.
Failure failureAt(SOCKS5Control::Stage stage, const SOCKS5Error& error, const HostPort& proxy,
                  bool hasLogin);

}  // namespace zk
