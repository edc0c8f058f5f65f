#include <atomic>

#include "ZelkorSeal/CarrierFixture.h"

namespace zk::test {
namespace {

using namespace std::chrono_literals;
using loopback::KitSocket;
using loopback::SOCKS5Script;

// A question for the TXT record of one label; with a size that OPT allows, or without OPT.
Bytes question(std::uint16_t id, const std::string& label,
               std::optional<std::uint16_t> allowed = {}) {
  Bytes message(12);
  writeUInt16(message.data(), id);
  message[2] = 1;  // recursion desired
  message[5] = 1;
  message[11] = allowed ? 1 : 0;
  message.push_back(static_cast<std::uint8_t>(label.size()));
  message.insert(message.end(), label.begin(), label.end());
  message.insert(message.end(), {0, 0, 16, 0, 1});
  if (allowed) {
    message.insert(message.end(), {0, 0, 41, static_cast<std::uint8_t>(*allowed >> 8),
                                   static_cast<std::uint8_t>(*allowed), 0, 0, 0, 0, 0, 0});
  }
  return message;
}

// A name server: answers a question with as many octets of records as the first letters of the
// label say in decimal, in the reverse order of what arrives together.
class NameServer {
 public:
  NameServer() : thread_([this] { run(); }) {}
  ~NameServer() {
    ending_ = true;
    thread_.join();
  }
  Endpoint endpoint() const { return loopback::localEndpoint(listener_.port()); }
  std::atomic<int> connections{0};
  std::atomic<bool> isMute{false};
  std::atomic<bool> closesAfterAnswer{false};

 private:
  void run() {
    std::vector<KitSocket> clients;
    while (!ending_) {
      if (KitSocket client = listener_.accepted()) {
        ++connections;
        clients.push_back(std::move(client));
      }
      for (KitSocket& client : clients) {
        serve(client);
      }
      std::this_thread::sleep_for(2ms);
    }
  }
  void serve(KitSocket& client) {
    Bytes incoming(65536);
    const auto arrival = client ? client.receive(incoming) : std::nullopt;
    if (!arrival || isMute) {
      return;
    }
    Bytes answers;
    for (ByteView rest = arrival->datagram; rest.size() > 2;) {
      const std::size_t size = readUInt16(rest, 0);
      const ByteView asked = rest.subspan(2, size);
      Bytes answer = copyOf(asked.first(12 + 1 + asked[12] + 5));
      answer[2] = 0x81;
      answer[11] = 0;
      const std::string label(answer.begin() + 13, answer.begin() + 13 + answer[12]);
      answer.resize(answer.size() + static_cast<std::size_t>(std::atoi(label.c_str())), 0x77);
      Bytes whole(2);
      writeUInt16(whole.data(), static_cast<std::uint16_t>(answer.size()));
      whole.insert(whole.end(), answer.begin(), answer.end());
      answers.insert(answers.begin(), whole.begin(), whole.end());
      rest = rest.subspan(2 + size);
    }
    if (!answers.empty()) {
      client.send(answers);
    }
    if (answers.empty() || closesAfterAnswer) {
      client.reset();
    }
  }

  const KitSocket listener_ = KitSocket::listener();
  std::atomic<bool> ending_{false};
  std::thread thread_;
};

class CarrierNames : public CarrierTest {
 protected:
  void SetUp() override {
    CarrierTest::SetUp();
    script_.connectTo = [this](const Endpoint& to) -> SOCKS5Script::Route {
      if (to == at("192.0.2.1", 53)) {
        return {first_.endpoint()};
      }
      return to == at("10.0.0.2", 5353) ? SOCKS5Script::Route{second_.endpoint()}
                                        : SOCKS5Script::Route{{}, 4};
    };
    settings_.nameServers = {at("192.0.2.1", 53), at("10.0.0.2", 5353)};
  }

  // Asks by UDP; the answer, or nothing.
  Bytes ask(const Endpoint& server, const Bytes& message) {
    const Descriptor program = network_.socket(SOCK_DGRAM);
    EXPECT_EQ(connect(program, server), 0);
    EXPECT_GT(::send(program.get(), message.data(), message.size(), 0), 0);
    Bytes answer(65536);
    const ssize_t size = recv(program.get(), answer.data(), answer.size(), 0);
    answer.resize(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    return answer;
  }

  NameServer first_;
  NameServer second_;
};

TEST_F(CarrierNames, AnswersAtAnyAddressOverOneConnection) {
  start();
  std::uint16_t id = 7;
  for (const Endpoint& server : {at("8.8.8.8", 53), at("192.168.1.1", 53), at("10.9.9.9", 53),
                                 at("127.0.0.1", 53), at("127.0.0.53", 53)}) {
    const Bytes asked = question(++id, "40x");
    const Bytes answer = ask(server, asked);
    ASSERT_EQ(answer.size(), asked.size() + 40) << server.text();
    EXPECT_EQ(readUInt16(answer, 0), id);
    EXPECT_EQ(answer[2], 0x81);
  }
  EXPECT_EQ(first_.connections, 1);

  // What is longer than the question allows is cut, and comes whole when it is allowed, or by TCP.
  const Bytes cut = ask(at("8.8.8.8", 53), question(1, "3000"));
  EXPECT_EQ(cut.size(), question(1, "3000").size());
  EXPECT_EQ(cut.at(2), 0x83);
  EXPECT_EQ(ask(at("8.8.8.8", 53), question(1, "3000", 1232)).at(2), 0x83);
  EXPECT_EQ(ask(at("8.8.8.8", 53), question(1, "3000", 4096)).size(), cut.size() + 3000);
  EXPECT_EQ(ask(at("127.0.0.53", 53), question(1, "60000", 65535)).size(), cut.size() + 60001);
  for (const Endpoint& server : {at("8.8.8.8", 53), at("127.0.0.53", 53)}) {
    const Descriptor program = network_.socket(SOCK_STREAM);
    ASSERT_EQ(connect(program, server), 0);
    const Bytes asked = question(9, "3000");
    say(program.get(), std::string{'\0', static_cast<char>(asked.size())} + textOf(asked));
    shutdown(program.get(), SHUT_WR);
    EXPECT_EQ(readAll(program.get()).size(), 2 + asked.size() + 3000) << server.text();
  }
  EXPECT_EQ(keptIn(), std::vector<std::string>{});
}

// Many questions at once, with the same ID, to answers in another order.
TEST_F(CarrierNames, GivesEachQuestionItsOwnAnswer) {
  start();
  std::vector<Descriptor> programs;
  for (int i = 0; i < 200; ++i) {
    programs.push_back(network_.socket(SOCK_DGRAM));
    ASSERT_EQ(connect(programs.back(), at("9.9.9.9", 53)), 0);
    const Bytes asked = question(1, fmt::format("{}", 100 + i));
    ASSERT_GT(::send(programs.back().get(), asked.data(), asked.size(), 0), 0);
  }
  for (std::size_t i = 0; i < programs.size(); ++i) {
    Bytes answer(1000);
    ASSERT_EQ(recv(programs[i].get(), answer.data(), answer.size(), 0),
              static_cast<ssize_t>(question(1, "100").size() + 100 + i));
  }
}

TEST_F(CarrierNames, TurnsToTheNextServerAndTellsWhenThereIsNone) {
  start();
  first_.isMute = true;
  const Stopwatch stopwatch;
  const Bytes asked = question(5, "40");
  EXPECT_EQ(ask(at("9.9.9.9", 53), asked).size(), asked.size() + 40);
  EXPECT_GT(stopwatch.seconds(), 1.9);
  EXPECT_LT(stopwatch.seconds(), 4);
  second_.closesAfterAnswer = true;  // says nothing against it
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(ask(at("9.9.9.9", 53), asked).size(), asked.size() + 40);
  }
  EXPECT_EQ(first_.connections, 1);
  proxy_.stop();
  const Bytes failure = ask(at("9.9.9.9", 53), asked);
  ASSERT_EQ(failure.size(), asked.size());
  EXPECT_EQ(failure[3], 2) << "server failure";
  EXPECT_EQ(ask(at("9.9.9.9", 53), asked).size(), asked.size());
}

}  // namespace
}  // namespace zk::test
