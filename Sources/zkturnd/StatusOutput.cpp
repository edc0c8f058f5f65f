#include "zkturnd/StatusOutput.h"

#include <fmt/format.h>

#include "Platform/Process.h"

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

void failWith(std::string_view message) {
  writeOutput(errorLine(message));
  endProcess(1);
}

}  // namespace zk
