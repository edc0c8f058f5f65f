
#include <fmt/format.h>
#include <gtest/gtest.h>

#include "zkturnd/Configuration.h"
#include "zkturnd/StatusOutput.h"

namespace zk {
namespace {

// Every value is a secret, and says where it belongs.
const std::string good =
    R"({"proxy":{"host":"my-host","port":1080,"user":"my-user","pass":"my-pass"},)"
    R"("realm":"my-realm","username":"my-username","credential":"my-credential"})";

std::string with(const std::string& replacement, const std::string& original) {
  std::string line = good;
  return line.replace(line.find(original), original.size(), replacement);
}
std::string withMember(const std::string& member) {
  return with("{" + member + ",", "{");
}
std::string withPort(const std::string& value) {
  return with(value, "1080");
}

// All that is in a line, or what is wrong with it.
std::string decoded(const std::string& line) {
  try {
    const auto& [proxy, realm, username, credential, options] = decodeConfig(line);
    return fmt::format("{} {} {} {} {} {} {} {} {}", proxy.host, proxy.port,
                       proxy.username.value_or(""), proxy.password.value_or(""), realm, username,
                       credential, options.acceptFingerprint, options.reportsMappedPort);
  } catch (const ConfigError& error) {
    const std::string text = error.what();
    EXPECT_EQ(text.find("my-"), std::string::npos) << text;
    EXPECT_EQ(text.find('\n'), std::string::npos) << text;
    return text;
  }
}

constexpr const char* asItStands =
    "my-host 1080 my-user my-pass my-realm my-username my-credential false false";

TEST(DecodeConfig, SaysWhatIsInTheLineOrWhatIsWrongWithItAndNoSecret) {
  const std::string zero(1, '\0');
  const std::string deep(500'000, '[');
  const std::string option = R"("options":{)";
  const std::string behind = fmt::format("syntax error at column {}", good.size() + 1);
  const std::string noPort = "wrong type: proxy.port must be an integer of 64 bits, not ";
  const std::pair<std::string, std::string> cases[] = {
      {" \t" + good + " \r\n", asItStands},
      {withMember(R"("Realm":null,"x":[[[[{}]]]])"), asItStands},
      {with(R"(\u00e9\n\u0000)", "my-host"), std::string("\u00E9\n\0 1080", 9)},
      {with("", "my-host"), " 1080 my-user"},
      // An integer, however it is written.
      {withPort("-1"), "my-host -1 my"},
      {withPort("1.08e3"), "my-host 1080 my"},
      {withPort("-0.0"), "my-host 0 my"},
      {withPort("9223372036854775807"), "my-host 9223372036854775807 my"},
      {withPort("-9223372036854775808"), "my-host -9223372036854775808 my"},
      {withPort("-9223372036854775808.0"), "my-host -9223372036854775808 my"},
      {withPort("1080.5"), noPort},
      {withPort("9223372036854775808"), noPort},
      {withPort("9223372036854775808.0"), noPort},
      {withPort("-1e19"), noPort},
      {withPort("-1e999"), noPort},
      {withPort("\"1080\""), noPort},
      // Keys and types.
      {with("Port", "port"), "missing key: proxy.port"},
      {with("Proxy", "proxy"), "missing key: proxy"},
      {R"({"proxy":["my-host"]})", "wrong type: proxy must be an object, not array"},
      {"[" + good + "]", "wrong type: the line must be an object, not array"},
      {withMember(option + R"("acceptFingerprint":true})"),
       std::string(asItStands, 64) + "true false"},
      {withMember(option + R"("acceptFingerprint":1})"),
       "wrong type: options.acceptFingerprint must be true or false, not number"},
      {withMember(option + R"("relayedPort":"assigned"})"), asItStands},
      {withMember(option + R"("relayedPort":1})"),
       "wrong type: options.relayedPort must be a string, not number"},
      {withMember(option + R"("relayedPort":"my-port"})"),
       "wrong value: options.relayedPort must be assigned or mapped"},
      {withMember(option + R"("acceptFingerprnt":true})"), "unknown key: options.acceptFingerprnt"},
      {withMember(option + R"("a\n\u0085b":"my-"})"), "unknown key: options.a??b"},
      {withMember(R"("options":null)"), "wrong type: options must be an object, not null"},
      // One object, and nothing behind it.
      {good + "x", behind},
      {good + good, behind},
      {good + zero, behind},
      {good + zero + "x", behind},
      {"   ", "syntax error at column "},
      {"{", "syntax error at column 2, the end: all of it must be on one line"},
      {with("\xFF", "my-pass"), "syntax error at column "},
      {with("\\ud800", "my-pass"), "syntax error at column "},
      {with(zero, "my-"), "syntax error at column "},
      // Depth and length.
      {withMember("\"x\":" + deep), "nested more than 64 levels deep"},
      {withMember("\"x\":" + deep.substr(0, 63) + std::string(63, ']')), asItStands},
      {std::string(1'048'577, ' '), "line is longer than 1048576 octets"},
      {std::string(1'048'576, ' '), "syntax error"},
      {with(std::string(65'000, 'r'), "my-realm"), "my-host"},
      {with(std::string(65'001, 'r'), "my-realm"), "realm is longer than 65000 octets"}};
  for (const auto& [line, expected] : cases) {
    EXPECT_EQ(decoded(line).substr(0, expected.size()), expected) << line.substr(0, 300);
  }
  for (const std::string path :
       {"proxy.host", "proxy.user", "proxy.pass", "realm", "username", "credential"}) {
    const std::string key = path.substr(path.find('.') + 1);
    EXPECT_EQ(decoded(with("\"My\":", '"' + key + "\":")), "missing key: " + path);
    EXPECT_EQ(decoded(with("null", "\"my-" + key + '"')),
              "wrong type: " + path + " must be a string, not null");
  }
}

// A number beyond a double is none of ours to judge where nobody asks for it.
TEST(DecodeConfig, LeavesNumbersOfAnySizeToThoseWhoReadThem) {
  for (const std::string& x : {std::string("-1.50E+0400"), fmt::format("{:9>400}.5e-1", "")}) {
    const std::string member = "\"x\":[" + x + R"(,"1e999\\",)" + x + "],";
    EXPECT_EQ(decoded(with(R"(1e999\")", "my-host").insert(1, member)).substr(0, 11),
              "1e999\" 1080");
  }
  for (const auto& [member, column] : {std::pair("\"x\":01e999", 11),
                                       {"\"x\":1e999-1", 12},
                                       {"\"x\":1e9991e999", 12},
                                       {"\"x\":1e999,\"y\":1.e999", 18},
                                       {"\"x\":[1e999,--1e999]", 14},
                                       {"\"x\":[1e999,1e-]", 16}}) {
    EXPECT_EQ(decoded(withMember(member)), fmt::format("syntax error at column {}", column));
  }
}

TEST(StatusOutput, LinesAreExactAndEscapeThreeCharacters) {
  EXPECT_EQ(readyLine(65535), "{\"port\":65535,\"status\":\"ready\"}\n");
  EXPECT_EQ(errorLine("\"\n\\ tab\tcr\rbell\a \u00E9 /"),
            "{\"status\":\"error\",\"message\":\"\\\"\\n\\\\ tab\tcr\rbell\a \u00E9 /\"}\n");
}

}  // namespace
}  // namespace zk
