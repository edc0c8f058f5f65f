#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zk {

/// The line that tells the parent where the TURN service is, line feed included.
std::string readyLine(std::uint16_t port);

/// The line that tells the parent why there is none, line feed included. In `message` backslashes,
/// double quotes and line feeds are escaped, and nothing else.
std::string errorLine(std::string_view message);

/// Writes the error line and ends the process with status 1.
[[noreturn]] void failWith(std::string_view message);

}  // namespace zk
