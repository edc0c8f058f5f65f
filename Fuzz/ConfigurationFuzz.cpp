// The configuration line and what is said about a bad one. An octet 0x01, followed by a count and
// an octet, stands for a long run of that octet: depth and length come cheap that way.

#include <nlohmann/json.hpp>

#include "Base/UTF8.h"
#include "Fuzz.h"
#include "zkturnd/Configuration.h"

namespace zk::fuzz {
namespace {

using nlohmann::json;

std::string expanded(ByteView bytes) {
  std::string line;
  for (Input input(bytes); !input.isEmpty();) {
    const auto octet = input.octet();
    const std::size_t count = octet == 1 ? input.octet() * std::size_t{64} : 1;
    line.append(count, static_cast<char>(octet == 1 ? input.octet() : octet));
  }
  return line;
}

json jsonOf(const Config& config) {
  const auto& [proxy, realm, username, credential, options] = config;
  return {
      {"proxy",
       {{"host", proxy.host}, {"port", proxy.port}, {"user", proxy.user}, {"pass", proxy.pass}}},
      {"realm", realm},
      {"username", username},
      {"credential", credential},
      {"options",
       {{"acceptFingerprint", options.acceptFingerprint},
        {"relayedPort", options.relayedPort == RelayedPort::mapped ? "mapped" : "assigned"}}}};
}

}  // namespace

void run(ByteView bytes) {
  const std::string line = expanded(bytes);
  const std::string repaired = repairedUTF8(line);
  require(isValidUTF8(repaired) && isValidUTF8(line) == (repaired == line),
          "only what is no UTF-8 needs repair");
  // The library ends at a zero octet, and reads no number beyond a double: what it makes of such a
  // line is not known then, and counts as empty.
  bool isJSON = repaired.find('\0') == std::string::npos;
  bool isBeyond = false;
  json top;
  try {
    top = json::parse(repaired);
  } catch (const json::out_of_range&) {
    isBeyond = true;
  } catch (const json::parse_error&) {
    isJSON = false;
  }
  try {
    const Config config = decodeConfig(repaired);
    require(isJSON, "a configuration is JSON");
    const json said = top.flatten();
    const json understood = jsonOf(config).flatten();
    for (const auto& [path, value] : understood.items()) {
      require(!said.contains(path) || said[path] == value, "a configuration is what it says");
    }
    require(jsonOf(decodeConfig(jsonOf(config).dump())) == jsonOf(config),
            "decode(encode(x)) is x");
  } catch (const ConfigError& error) {
    const std::string text = error.what();
    require(text.size() < 100 && text.find('\n') == text.npos, "an error is short and one line");
    require(!text.starts_with("syntax error at column ") || !isJSON || isBeyond,
            "a syntax error is one");
  }
}

std::vector<Bytes> seeds() {
  const json good = jsonOf(
      {{"127.0.0.1", 1080, "proxy user", "p\"ass\\"}, "zk.example", "\xC3\xA9lise", "cr\ned", {}});
  std::vector<std::string> lines{good.dump(),
                                 good.dump() + " x",
                                 good.dump() + '\0',
                                 "[]",
                                 "{\"proxy\":[\x01\x01[",
                                 "{\"realm\":\"\x01\x50r\",\"proxy\":{\"port\":1e99}}",
                                 "\xED\xA0\x80\xC0\x80\xF4\x90\x80\x80\xE2\x82"};
  for (const char* port : {"1080.0", "1.08e3", "\"1080\"", "-1", "9223372036854775808", "1e400"}) {
    std::string line = good.dump();
    lines.push_back(line.replace(line.find("1080"), 4, port));
  }
  for (const char* key : {"proxy", "realm", "username", "credential", "options"}) {
    json changed = good;
    changed.erase(key);
    lines.push_back(changed.dump());
    changed[key] = {nullptr, true, 1.5};
    lines.push_back(changed.dump());
  }
  lines.push_back(good.dump().insert(1, "\"x\":[1e999,-1e999,1e9991e999],"));
  std::vector<Bytes> all;
  for (const std::string& line : lines) {
    all.push_back(joined({bytesOf(line)}));
  }
  return all;
}

}  // namespace zk::fuzz
