#include "zkturnd/StatusOutput.h"

#include <fmt/format.h>
#include <unistd.h>

namespace zk {

std::string readyLine(std::uint16_t port) {
  return fmt::format("{{\"port\":{},\"status\":\"ready\"}}\n", port);
}

std::string errorLine(std::string_view message) {
  std::string escaped;
  for (const char c : message) {
    if (c == '\n') {
      escaped += "\\n";
    } else {
      if (c == '\\' || c == '"') {
        escaped += '\\';
      }
      escaped += c;
    }
  }
  return fmt::format("{{\"status\":\"error\",\"message\":\"{}\"}}\n", escaped);
}

void writeStatus(std::string_view line) {
  [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, line.data(), line.size());
}

void failWith(std::string_view message) {
  writeStatus(errorLine(message));
  _exit(1);
}

}  // namespace zk
