#include <cstdint>
#include <limits>

#include <gtest/gtest.h>

#include "zkturnd/Configuration.h"

namespace zk {
namespace {

const std::string secret = "hunter2-the-secret";

// A configuration line in which one member may be replaced by another, or left out.
std::string line(const std::string& member = "", const std::string& replacement = "") {
  const std::pair<const char*, std::string> proxy[] = {{"host", R"("host":"proxy.example")"},
                                                       {"port", R"("port":1080)"},
                                                       {"user", R"("user":"u")"},
                                                       {"pass", R"("pass":")" + secret + '"'}};
  const std::pair<const char*, std::string> top[] = {
      {"realm", R"("realm":"r")"},
      {"username", R"("username":"alice")"},
      {"credential", R"("credential":")" + secret + '"'}};
  const auto joined = [&](const auto& members) {
    std::string text;
    for (const auto& [name, usual] : members) {
      const std::string& one = member == name ? replacement : usual;
      text += (text.empty() || one.empty() ? "" : ",") + one;
    }
    return text;
  };
  const std::string object = "\"proxy\":{" + joined(proxy) + "}";
  return "{" + (member == "proxy" ? replacement : object) + "," + joined(top) + "}";
}

std::string errorOf(const std::string& text) {
  try {
    decodeConfig(text);
  } catch (const ConfigError& error) {
    EXPECT_EQ(std::string(error.what()).find(secret), std::string::npos) << error.what();
    EXPECT_EQ(std::string(error.what()).find('\n'), std::string::npos);
    return error.what();
  }
  return "";
}

TEST(DecodeConfig, TakesEveryValueAsItStands) {
  const Config config = decodeConfig(line());
  EXPECT_EQ(config.proxy.host, "proxy.example");
  EXPECT_EQ(config.proxy.port, 1080);
  EXPECT_EQ(config.proxy.user, "u");
  EXPECT_EQ(config.proxy.pass, secret);
  EXPECT_EQ(config.realm, "r");
  EXPECT_EQ(config.username, "alice");
  EXPECT_EQ(config.credential, secret);

  const Config odd = decodeConfig(
      " \t{\"comment\":[{}],\"realm\":\"\",\"username\":\"\\u00e9\\n\\u0000\",\"credential\":\"\","
      "\"proxy\":{\"user\":\"\",\"extra\":null,\"pass\":\"\",\"host\":\"\",\"port\":0}} \r\n");
  EXPECT_EQ(odd.realm + odd.credential + odd.proxy.host + odd.proxy.user + odd.proxy.pass, "");
  EXPECT_EQ(odd.username, std::string("\u00E9\n\0", 4));
}

TEST(DecodeConfig, TakesAnyIntegralNumberOf64BitsAsPort) {
  const std::pair<const char*, std::int64_t> accepted[] = {
      {"0", 0},
      {"-1", -1},
      {"70000", 70000},
      {"1080.0", 1080},
      {"1.08e3", 1080},
      {"-0.0", 0},
      {"9223372036854775807", std::numeric_limits<std::int64_t>::max()},
      {"-9223372036854775808", std::numeric_limits<std::int64_t>::min()}};
  for (const auto& [text, port] : accepted) {
    EXPECT_EQ(decodeConfig(line("port", std::string("\"port\":") + text)).proxy.port, port) << text;
  }
  for (const char* const text : {"1080.5", "9223372036854775808", "1e19", "-1e19", "1e300",
                                 "18446744073709551615", "\"1080\"", "true", "null", "[1080]"}) {
    EXPECT_TRUE(errorOf(line("port", std::string("\"port\":") + text))
                    .starts_with("wrong type: proxy.port must be an integer of 64 bits, not "))
        << text;
  }
  EXPECT_NE(errorOf(line("port", "\"port\":1e999")), "");
}

TEST(DecodeConfig, NamesTheKeyThatIsMissingOrOfAnotherType) {
  const std::pair<const char*, const char*> strings[] = {
      {"host", "proxy.host"}, {"user", "proxy.user"},   {"pass", "proxy.pass"},
      {"realm", "realm"},     {"username", "username"}, {"credential", "credential"}};
  for (const auto& [key, path] : strings) {
    EXPECT_EQ(errorOf(line(key)), std::string("missing key: ") + path);
    std::string capital = key;
    capital[0] = static_cast<char>(std::toupper(capital[0]));
    EXPECT_EQ(errorOf(line(key, '"' + capital + "\":\"" + secret + '"')),
              std::string("missing key: ") + path);
    for (const std::string value : {"null", "1", "true", "{}", "[\"hunter2-the-secret\"]"}) {
      EXPECT_TRUE(errorOf(line(key, '"' + std::string(key) + "\":" + value))
                      .starts_with(std::string("wrong type: ") + path + " must be a string, not "))
          << key << ' ' << value;
    }
  }
  EXPECT_EQ(errorOf(line("port")), "missing key: proxy.port");
  EXPECT_EQ(errorOf(line("proxy", "\"x\":0")), "missing key: proxy");
  EXPECT_EQ(errorOf(line("proxy", "\"proxy\":[]")),
            "wrong type: proxy must be an object, not array");
}

TEST(DecodeConfig, RefusesWhatIsNoObjectAndNothingElse) {
  for (const std::string text : {"[]", "null", "1", "\"hunter2-the-secret\""}) {
    EXPECT_TRUE(errorOf(text).starts_with("wrong type: the line must be an object, not ")) << text;
  }
  const std::string good = line();
  for (const std::string& text :
       {std::string("   "), std::string(), good + "x", good + good, good.substr(0, good.size() - 1),
        "{" + good, "\xEF\xBB\xBF{" + good, good.substr(0, 60), line("user", "\"user\":'u'"),
        line("pass", "\"pass\":\"" + secret), line("pass", "\"pass\":\"" + secret + "\\x\""),
        line("pass", "\"pass\":" + secret), line("pass", "\"pass\":\"\\ud800" + secret + "\""),
        line("pass", "\"pass\":\"" + secret + "\xFF\""), line("user", "\"user\":\"\t\""),
        "// comment\n" + good, line("port", "\"port\":0x10"), line("port", "\"port\":NaN")}) {
    EXPECT_TRUE(errorOf(text).starts_with("syntax error")) << text << " → " << errorOf(text);
  }
  EXPECT_EQ(errorOf("{\"realm\":hunter2-the-secret}"), "syntax error at column 10");
}

TEST(DecodeConfig, SurvivesHostileDepthAndLength) {
  constexpr std::size_t deep = 500'000;
  for (const std::string& text :
       {std::string(deep, '['), std::string(deep, '[') + std::string(deep, ']'),
        line("user",
             "\"user\":\"u\",\"x\":" + std::string(deep, '[') + std::string(deep - 400, ']')),
        std::string(2'000'000, ' '),
        line("user", "\"user\":\"" + std::string(2 << 20, 'u') + '"')}) {
    EXPECT_NE(errorOf(text), "");
  }
  std::string objects;
  for (int i = 0; i < 100'000; ++i) {
    objects += "{\"a\":";
  }
  EXPECT_EQ(errorOf(objects), "nested more than 64 levels deep");
  // An extra key of some depth, and a long value, are nobody's harm.
  EXPECT_EQ(errorOf(line("user", "\"user\":\"u\",\"x\":[[[[[[]]]]]]")), "");
  EXPECT_EQ(
      decodeConfig(line("user", "\"user\":\"" + std::string(500'000, 'u') + '"')).proxy.user.size(),
      500'000U);
}

}  // namespace
}  // namespace zk
