// The configuration line and what is said about a bad one. An octet 0x01, followed by a count and
// an octet, stands for a long run of that octet: depth and length come cheap that way.

#include <set>

#include <nlohmann/json.hpp>

#include "Fuzz.h"
#include "Platform/UTF8.h"
#include "ZelkorTURN/Allocation.h"
#include "zkturnd/Configuration.h"
#include "zkturnd/StatusOutput.h"

namespace zk::fuzz {
namespace {

using nlohmann::json;

bool isControl(char c) {
  return static_cast<unsigned char>(c) < 0x20;
}

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
  return {{"proxy",
           {{"host", config.proxy.host},
            {"port", config.proxy.port},
            {"user", config.proxy.user},
            {"pass", config.proxy.pass}}},
          {"realm", config.realm},
          {"username", config.username},
          {"credential", config.credential}};
}

// Every text that may be said, with its numbers left out. None of them quotes the line.
std::set<std::string> allErrors() {
  std::set<std::string> all{"syntax error at column ", "syntax error: a number is out of range",
                            "nested more than  levels deep", "line is longer than  octets",
                            "realm is longer than  octets"};
  for (const char* type : {"null", "boolean", "number", "string", "array", "object"}) {
    const std::string tail = std::string(", not ") + type;
    all.insert("wrong type: the line must be an object" + tail);
    all.insert("wrong type: proxy must be an object" + tail);
    all.insert("wrong type: proxy.port must be an integer of  bits" + tail);
    for (const char* key :
         {"proxy.host", "proxy.user", "proxy.pass", "realm", "username", "credential"}) {
      all.insert(std::string("wrong type: ") + key + " must be a string" + tail);
    }
  }
  for (const char* key : {"proxy", "proxy.host", "proxy.port", "proxy.user", "proxy.pass", "realm",
                          "username", "credential"}) {
    all.insert(std::string("missing key: ") + key);
  }
  return all;
}

void checkUTF8(const std::string& line, const std::string& repaired) {
  std::string quoted = "\"" + line + "\"";
  std::replace_if(
      quoted.begin() + 1, quoted.end() - 1,
      [](char c) { return isControl(c) || c == '"' || c == '\\'; }, ' ');
  require(isValidUTF8(line) == json::accept(quoted), "UTF-8 as a JSON parser sees it");
  require(isValidUTF8(repaired) && repairedUTF8(repaired) == repaired, "repair leaves UTF-8");
  require(!isValidUTF8(line) || repaired == line, "UTF-8 needs no repair");
}

void checkErrorLine(const std::string& message) {
  const std::string line = errorLine(message);
  require(line.find('\n') == line.size() - 1, "an error is one line");
  if (std::none_of(message.begin(), message.end(),
                   [](char c) { return isControl(c) && c != '\n'; })) {
    require(json::parse(line) == json{{"status", "error"}, {"message", message}},
            "an error without control characters reads back as JSON");
  }
}

void checkConfig(const Config& config, const std::string& line) {
  const json top = json::parse(line);
  require(top.at("realm") == config.realm && top.at("username") == config.username &&
              top.at("credential") == config.credential &&
              top.at("proxy").at("host") == config.proxy.host &&
              top.at("proxy").at("port") == config.proxy.port &&
              top.at("proxy").at("user") == config.proxy.user &&
              top.at("proxy").at("pass") == config.proxy.pass,
          "a configuration holds what the line says");
  const std::string dumped = jsonOf(config).dump();
  require(jsonOf(decodeConfig(dumped)) == jsonOf(config), "decode(encode(x)) is x");

  AllocationTable table(nullptr, config.realm);
  const TURNMessage ask(TURNMethod::allocate, TURNClass::request, {});
  const auto answers = table.handle(ask, {"127.0.0.1", 9}, ask.encode(), {}, 0);
  require(answers.size() == 1 && answers[0].encode().size() <= 65507,
          "a challenge with the realm of an accepted configuration fits a datagram");
}

}  // namespace

void run(ByteView bytes) {
  static const std::set<std::string> errors = allErrors();
  const std::string line = expanded(bytes);
  const std::string repaired = repairedUTF8(line);
  checkUTF8(line, repaired);
  checkErrorLine(repaired);
  Config config;
  try {
    config = decodeConfig(repaired);
  } catch (const ConfigError& error) {
    checkErrorLine(std::string("failed to decode config JSON: ") + error.what());
    std::string text = error.what();
    std::erase_if(text, [](char c) { return c >= '0' && c <= '9'; });
    require(errors.contains(text), "an error names keys and kinds only");
    return;
  }
  checkConfig(config, repaired);
}

std::vector<Bytes> seeds() {
  const json good = jsonOf(
      {{"127.0.0.1", 1080, "proxy user", "p\"ass\\"}, "zk.example", "\xC3\xA9lise", "cr\ned"});
  std::vector<std::string> lines{good.dump(),
                                 good.dump(1),
                                 good.dump() + " x",
                                 "[]",
                                 "5",
                                 "",
                                 "{\"proxy\":[\x01\x01[",
                                 "{\"realm\":\"\x01\x50r\",\"proxy\":{\"port\":1e99}}",
                                 "\xED\xA0\x80\xC0\x80\xF4\x90\x80\x80\xE2\x82"};
  for (const char* port : {"1080.0", "1.08e3", "\"1080\"", "-1", "9223372036854775808", "1e400"}) {
    std::string line = good.dump();
    lines.push_back(line.replace(line.find("1080"), 4, port));
  }
  json extra = good;
  extra["comment"] = {nullptr, true, 1.5};
  extra["proxy"]["Host"] = "";
  lines.push_back(extra.dump());
  for (const char* key : {"proxy", "realm", "username", "credential"}) {
    json less = good;
    less.erase(key);
    lines.push_back(less.dump());
  }
  std::vector<Bytes> all;
  for (const std::string& line : lines) {
    all.push_back(joined({bytesOf(line)}));
  }
  return all;
}

}  // namespace zk::fuzz
