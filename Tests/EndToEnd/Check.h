#pragma once

#include <string>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "EndToEnd/Rig.h"

namespace zk::test {

/// What `zkturn check` has ended with.
struct Result {
  int status = -1;
  std::string output;  // both of them

  nlohmann::json json() const {
    return nlohmann::json::parse(output, nullptr, /*allow_exceptions=*/false);
  }
  bool says(const std::string& piece) const { return output.find(piece) != std::string::npos; }
};

/// For a proxy on the loopback, unless `port` is 0.
inline Result check(std::uint16_t port, const std::vector<std::string>& options,
                    bool isOnTerminal = false, const ChildProcess::Environment& environment = {}) {
  const TemporaryFolder folder;
  const std::string output = folder.path() / "output";
  std::vector<std::string> arguments{programBeside("zkturn"), "check"};
  if (port != 0) {
    arguments.push_back("127.0.0.1:" + std::to_string(port));
  }
  arguments.insert(arguments.end(), options.begin(), options.end());
  if (isOnTerminal) {
    arguments = {findProgram("script"), "-qec", fmt::format("'{}'", fmt::join(arguments, "' '")),
                 "/dev/null"};
  }
  ChildProcess program(arguments, environment, output);
  const auto status = program.waitExit(longPatience);
  return {status.value_or(-1), contentOf(output)};
}

/// A file that nobody else can read.
inline std::string secretFile(const TemporaryFolder& folder, const std::string& name,
                              const std::string& content) {
  const std::string path = folder.write(name, content);
  fs::permissions(path, fs::perms(0600));
  return path;
}

}  // namespace zk::test
