#pragma once

#include <optional>
#include <string>

namespace zk {

/// Whether that descriptor is a terminal.
bool isTerminal(int descriptor);

/// Asks for a secret on the terminal that this process belongs to, whatever its standard input is.
/// The answer is not shown, and what is sent meanwhile by Ctrl-C leaves the terminal as it was.
/// Absent without a terminal, and when no line comes. One thread at a time.
std::optional<std::string> askSecret(const std::string& prompt);

}  // namespace zk
