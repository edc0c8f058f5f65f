#include "zkturnd/Configuration.h"

#include <cmath>
#include <cstdlib>

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include "Base/LogLine.h"
#include "Base/UTF8.h"
#include "Platform/Process.h"
#include "Platform/Terminal.h"
#include "zkturnd/StatusOutput.h"

namespace zk {
namespace {

using nlohmann::json;

// A configuration is a few hundred octets and two levels deep. Anything far beyond that is a
// mistake or an attack and must not use up memory or the stack.
constexpr std::size_t longestLine = 1 << 20;
constexpr int deepestNesting = 64;
// Every challenge repeats the realm, and a challenge is one datagram.
constexpr std::size_t longestRealm = 65000;

// The length of the number at the front of a text, which has no sign (RFC 8259 section 6); 0 when
// there is none.
std::size_t numberLength(std::string_view text) {
  std::size_t at = 0;
  const auto take = [&](std::string_view any) {
    const bool isThere = at < text.size() && any.find(text[at]) != std::string_view::npos;
    at += isThere ? 1 : 0;
    return isThere;
  };
  const auto takeDigits = [&] {
    const std::size_t before = at;
    while (take("0123456789")) {
    }
    return at > before;
  };
  if (!take("0") && !takeDigits()) {
    return 0;
  }
  std::size_t length = at;
  if (take(".")) {
    if (!takeDigits()) {
      return length;
    }
    length = at;
  }
  if (take("eE")) {
    take("+-");
    length = takeDigits() ? at : length;
  }
  return length;
}

// Replaces each number that a double cannot hold by a fraction of the same length. The library
// refuses such numbers although the grammar allows them. No key takes a fraction, so this does no
// harm.
std::string withoutHugeNumbers(std::string line) {
  bool isInText = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    if (line[i] == '"') {
      isInText = !isInText;
    } else if (isInText) {
      i += line[i] == '\\' ? 1 : 0;
    } else if (const std::size_t length = numberLength(std::string_view(line).substr(i))) {
      if (std::isinf(std::strtod(line.substr(i, length).c_str(), nullptr))) {
        line.replace(i, length, "0.5e" + std::string(length - 4, '0'));
      }
      i += length - 1;
    }
  }
  return line;
}

json parse(std::string_view line) {
  const auto checkDepth = [](int depth, json::parse_event_t, json&) {
    if (depth > deepestNesting) {
      throw ConfigError(fmt::format("nested more than {} levels deep", deepestNesting));
    }
    return true;
  };
  const auto syntaxError = [&](std::size_t column) {
    const bool isEnd = column > line.size();
    return ConfigError(fmt::format("syntax error at column {}{}", column,
                                   isEnd ? ", the end: all of it must be on one line" : ""));
  };
  // The library's own texts quote what they read, and that may be the password.
  try {
    json value;
    try {
      value = json::parse(line, checkDepth);
    } catch (const json::out_of_range&) {
      value = json::parse(withoutHugeNumbers(std::string(line)), checkDepth);
    }
    // The library takes a zero octet for the end of its input.
    if (const std::size_t zero = line.find('\0'); zero != std::string_view::npos) {
      throw syntaxError(zero + 1);
    }
    return value;
  } catch (const json::parse_error& error) {
    throw syntaxError(error.byte);
  }
}

[[noreturn]] void wrongType(std::string_view path, const char* wanted, const json& value) {
  throw ConfigError(
      fmt::format("wrong type: {} must be {}, not {}", path, wanted, value.type_name()));
}

// Finds the member that the last piece of `path` names.
json::const_iterator find(const json& object, std::string_view path) {
  return object.find(std::string(path.substr(path.rfind('.') + 1)));
}

const json& member(const json& object, std::string_view path) {
  const auto found = find(object, path);
  if (found == object.end()) {
    throw ConfigError(fmt::format("missing key: {}", path));
  }
  return *found;
}

const json& requireObject(const json& value, std::string_view path) {
  if (!value.is_object()) {
    wrongType(path, "an object", value);
  }
  return value;
}

std::string text(const json& object, std::string_view path) {
  const json& value = member(object, path);
  if (!value.is_string()) {
    wrongType(path, "a string", value);
  }
  return value.get<std::string>();
}

std::optional<std::string> presentUnlessEmpty(const std::string& text) {
  return text.empty() ? std::nullopt : std::optional(text);
}

// A number whose value is integral and fits 64 bits, however it is written: 1080, 1080.0, 1.08e3.
std::int64_t integer(const json& object, std::string_view path) {
  constexpr double beyond = 9223372036854775808.0;  // 2^63
  const json& value = member(object, path);
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

[[noreturn]] void unknownKey(std::string_view path, std::string_view key) {
  fmt::memory_buffer text;
  fmt::format_to(std::back_inserter(text), "unknown key: {}.{:.64}", path, key);
  replaceControls(text);
  throw ConfigError(fmt::to_string(text));
}

Options decodeOptions(const json& object) {
  Options options;
  for (const auto& [key, value] : object.items()) {
    if (key == "acceptFingerprint") {
      if (!value.is_boolean()) {
        wrongType("options.acceptFingerprint", "true or false", value);
      }
      options.acceptFingerprint = value.get<bool>();
    } else if (key == "relayedPort") {
      const std::string which = text(object, "options.relayedPort");
      if (which != "assigned" && which != "mapped") {
        throw ConfigError("wrong value: options.relayedPort must be assigned or mapped");
      }
      options.reportsMappedPort = which == "mapped";
    } else {
      unknownKey("options", key);
    }
  }
  return options;
}

// Reads the first line of standard input, without its line end (LF or CR LF). It may read ahead:
// nothing behind the line is ever interpreted.
std::string readLine() {
  std::string line;
  while (line.size() <= longestLine) {
    char buffer[4096];
    const std::string_view piece(buffer, readInput(buffer));
    if (piece.empty()) {
      return line;
    }
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
  requireObject(top, "the line");
  const json& proxy = requireObject(member(top, "proxy"), "proxy");
  Config config{{text(proxy, "proxy.host"), integer(proxy, "proxy.port"),
                 presentUnlessEmpty(text(proxy, "proxy.user")),
                 presentUnlessEmpty(text(proxy, "proxy.pass"))},
                text(top, "realm"),
                text(top, "username"),
                text(top, "credential"),
                {}};
  if (const auto options = find(top, "options"); options != top.end()) {
    config.options = decodeOptions(requireObject(*options, "options"));
  }
  if (config.realm.size() > longestRealm) {
    throw ConfigError(fmt::format("realm is longer than {} octets", longestRealm));
  }
  return config;
}

Config readConfig() {
  if (isTerminal(STDIN_FILENO)) {
    fmt::print(stderr,
               "zkturnd waits here for its configuration, one line of JSON, as a program would "
               "send it: see man zkturnd.\n");
  }
  const std::string line = repairedUTF8(readLine());
  if (line.empty()) {
    failWith("stdin closed or empty before config was received");
  }
  if (!isValidUTF8(line)) {
    failWith("config line is not valid UTF-8");  // only if the repair missed something
  }
  try {
    return decodeConfig(line);
  } catch (const ConfigError& error) {
    failWith(std::string("failed to decode config JSON: ") + error.what());
  }
}

}  // namespace zk
