#include "zkturnd/Configuration.h"

#include <cerrno>

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include "Platform/UTF8.h"
#include "zkturnd/StatusOutput.h"

namespace zk {
namespace {

using nlohmann::json;

// A configuration is a few hundred octets and two levels deep. Whatever is far beyond that is a
// mistake or worse, and must not be able to exhaust anything.
constexpr std::size_t longestLine = 1 << 20;
constexpr int deepestNesting = 64;
// Every challenge repeats the realm, and a challenge is one datagram.
constexpr std::size_t longestRealm = 65000;

json parse(std::string_view line) {
  const auto checkDepth = [](int depth, json::parse_event_t, json&) {
    if (depth > deepestNesting) {
      throw ConfigError(fmt::format("nested more than {} levels deep", deepestNesting));
    }
    return true;
  };
  // The library's own texts quote what they read, and that may be the password.
  try {
    return json::parse(line, checkDepth);
  } catch (const json::parse_error& error) {
    throw ConfigError(fmt::format("syntax error at column {}", error.byte));
  } catch (const json::exception&) {
    throw ConfigError("syntax error: a number is out of range");
  }
}

// The value of `key`, whose path for people is `path`.
const json& member(const json& object, const char* key, const std::string& path) {
  const auto found = object.find(key);
  if (found == object.end()) {
    throw ConfigError("missing key: " + path);
  }
  return *found;
}

[[noreturn]] void wrongType(const std::string& path, const char* wanted, const json& value) {
  throw ConfigError(
      fmt::format("wrong type: {} must be {}, not {}", path, wanted, value.type_name()));
}

std::string text(const json& object, const char* key, const std::string& prefix = "") {
  const std::string path = prefix + key;
  const json& value = member(object, key, path);
  if (!value.is_string()) {
    wrongType(path, "a string", value);
  }
  return value.get<std::string>();
}

// A number whose value is integral and fits 64 bits, however it is written: 1080, 1080.0, 1.08e3.
std::int64_t integer(const json& object, const char* key, const std::string& prefix) {
  constexpr double beyond = 9223372036854775808.0;  // 2^63
  const std::string path = prefix + key;
  const json& value = member(object, key, path);
  if (value.is_number_unsigned() && value.get<std::uint64_t>() <= INT64_MAX) {
    return static_cast<std::int64_t>(value.get<std::uint64_t>());
  }
  if (value.is_number_integer() && !value.is_number_unsigned()) {
    return value.get<std::int64_t>();
  }
  if (value.is_number_float()) {
    const double number = value.get<double>();
    if (number >= -beyond && number < beyond &&
        number == static_cast<double>(static_cast<std::int64_t>(number))) {
      return static_cast<std::int64_t>(number);
    }
  }
  wrongType(path, "an integer of 64 bits", value);
}

// The first line of standard input as its octets, without its line feed or carriage return and line
// feed. Reads ahead at will: nothing behind the line is ever interpreted.
std::string readLine() {
  std::string line;
  while (line.size() <= longestLine) {
    char buffer[4096];
    const ssize_t got = read(STDIN_FILENO, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      return line;
    }
    const std::string_view piece(buffer, static_cast<std::size_t>(got));
    const std::size_t end = piece.find('\n');
    line += piece.substr(0, end);
    if (end != std::string_view::npos) {
      if (line.ends_with('\r')) {
        line.pop_back();
      }
      return line;
    }
  }
  return line;
}

}  // namespace

Config decodeConfig(std::string_view line) {
  if (line.size() > longestLine) {
    throw ConfigError(fmt::format("line is longer than {} octets", longestLine));
  }
  const json top = parse(line);
  if (!top.is_object()) {
    throw ConfigError(
        fmt::format("wrong type: the line must be an object, not {}", top.type_name()));
  }
  const json& proxy = member(top, "proxy", "proxy");
  if (!proxy.is_object()) {
    wrongType("proxy", "an object", proxy);
  }
  Config config{{text(proxy, "host", "proxy."), integer(proxy, "port", "proxy."),
                 text(proxy, "user", "proxy."), text(proxy, "pass", "proxy.")},
                text(top, "realm"),
                text(top, "username"),
                text(top, "credential")};
  if (config.realm.size() > longestRealm) {
    throw ConfigError(fmt::format("realm is longer than {} octets", longestRealm));
  }
  return config;
}

Config readConfig() {
  const std::string line = repairedUTF8(readLine());
  if (line.empty()) {
    failWith("stdin closed or empty before config was received");
  }
  if (!isValidUTF8(line)) {
    failWith("config line is not valid UTF-8");  // should the repair ever leave something
  }
  try {
    return decodeConfig(line);
  } catch (const ConfigError& error) {
    failWith(std::string("failed to decode config JSON: ") + error.what());
  }
}

}  // namespace zk
