#include "zkturn/ProxyOptions.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <fmt/format.h>

#include "Platform/Terminal.h"
#include "ZelkorSOCKS5/SOCKS5Handshake.h"
#include "zkturn/Advice.h"

namespace zk {
namespace {

namespace fs = std::filesystem;

std::string firstLineOf(const std::string& path) {
  std::error_code none;
  const fs::file_status status = fs::status(path, none);
  // What is no file, a pipe from a password manager say, belongs to whoever opened it.
  if (fs::is_regular_file(status) &&
      (status.permissions() & (fs::perms::group_all | fs::perms::others_all)) != fs::perms::none) {
    throw UsageError(fmt::format(
        "--pass-file \"{0}\" can be read by others: keep it to yourself with chmod 600 {0}", path));
  }
  std::ifstream file(path, std::ios::binary);
  std::string line;
  if (!file || (!std::getline(file, line) && !file.eof())) {
    throw UsageError(fmt::format(
        "--pass-file \"{}\" cannot be read: name a file that holds the password", path));
  }
  if (!line.empty() && line.back() == '\r') {
    line.pop_back();
  }
  return line;
}

std::string typedPassword(const ProxyOptions& options) {
  const auto typed =
      askSecret(fmt::format("Password of {} at {}: ", *options.user, options.proxy.text()));
  if (!typed) {
    throw UsageError("--pass-file - asks on a terminal, and there is none: name a file");
  }
  return *typed;
}

fs::path proxyFile() {
  const char* const folder = std::getenv("XDG_CONFIG_HOME");
  if (folder != nullptr && *folder == '/') {
    return fs::path(folder) / "zkturn" / "proxy";
  }
  const char* const home = std::getenv("HOME");
  return fs::path(home != nullptr ? home : "") / ".config" / "zkturn" / "proxy";
}

// A path in the file may begin at the home folder, or at the folder of the file.
std::string pathIn(const fs::path& file, const std::string& text) {
  const char* const home = std::getenv("HOME");
  if (text.starts_with("~/") && home != nullptr) {
    return fs::path(home) / text.substr(2);
  }
  return text == "-" ? text : (file.parent_path() / text).string();
}

}  // namespace

HostPort parseProxy(std::string_view text) {
  if (text.find('@') != std::string_view::npos) {
    throw UsageError(
        "a login does not belong into the proxy's address, where others see it: use --user and "
        "--pass-file");
  }
  std::string_view rest = text;
  for (const std::string_view scheme : {"socks5://", "socks5h://"}) {
    if (text.starts_with(scheme)) {
      rest.remove_prefix(scheme.size());
      rest.remove_suffix(rest.ends_with('/') ? 1 : 0);
    }
  }
  if (const auto parsed = parseHostPort(rest)) {
    return *parsed;
  }
  throw UsageError(fmt::format(
      "\"{}\" is not a proxy: give HOST:PORT with a port of 1 to 65535, such as 10.0.0.1:1080",
      text));
}

bool readProxyFile(ProxyOptions& options) {
  const fs::path path = proxyFile();
  std::ifstream file(path);
  if (!file) {
    return false;
  }
  bool hasAddress = false;
  std::string line;
  for (unsigned number = 1; std::getline(file, line); ++number) {
    const std::size_t end = line.find_last_not_of(" \t\r");
    line.resize(end == std::string::npos ? 0 : end + 1);
    if (line.empty() || line.front() == '#') {
      continue;
    }
    const std::size_t space = line.find_first_of(" \t");
    const std::size_t start = line.find_first_not_of(" \t", space);
    const std::string key = line.substr(0, space);
    const std::string value = start == std::string::npos ? "" : line.substr(start);
    if (key == "address" && !value.empty()) {
      options.proxy = parseProxy(value);
      hasAddress = true;
    } else if (key == "user" && !value.empty()) {
      options.user = value;
    } else if (key == "pass-file" && !value.empty()) {
      options.passFile = pathIn(path, value);
    } else {
      throw UsageError(
          fmt::format("line {} of {} is none of: address HOST:PORT, user NAME, pass-file FILE",
                      number, path.string()));
    }
  }
  if (!hasAddress) {
    throw UsageError(fmt::format("{} has no line: address HOST:PORT", path.string()));
  }
  return true;
}

std::optional<std::string> readPassword(const ProxyOptions& options) {
  if (!options.user) {
    return std::nullopt;
  }
  std::string password =
      options.passFile == "-" ? typedPassword(options) : firstLineOf(options.passFile);
  try {
    requireSendable("user name", *options.user);
    requireSendable("password", password);
  } catch (const SOCKS5Error& error) {
    throw UsageError("the " + answerIn(error));
  }
  return password;
}

}  // namespace zk
