#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "Base/LogLine.h"
#include "ZelkorSeal/ProxyConnector.h"

namespace zk {

/// The resolver of a seal: passes questions (RFC 1035) on to a public name server through the
/// proxy, over one TCP connection that is kept (RFC 7766), so that it works on a proxy without UDP.
/// Remembers nothing. The loop's thread.
class Names final : EventLoop::Source {
 public:
  /// Whom to ask when nobody has named others: three operators, so that none is needed.
  static constexpr std::array<Endpoint, 3> defaultServers{
      {{0x09090909, 53}, {0x01010101, 53}, {0x08080808, 53}}};
  /// A server that has not answered for so long is given up for the next one.
  static constexpr std::chrono::seconds patience{2};
  /// So many questions are under way at once; more are dropped, as long ones are.
  static constexpr std::size_t maxQuestions = 1024;
  static constexpr std::size_t maxQuestionSize = 4096;

  /// `servers` must not be empty; all references outlive this.
  Names(EventLoop& loop, ProxyConnector& connector, std::vector<Endpoint> servers, LogCallback log);
  ~Names();
  Names(const Names&) = delete;
  Names& operator=(const Names&) = delete;

  /// Gets the answer to a question, cut with TC where it is larger than the question allows for UDP
  /// (RFC 6891); "server failure" when no server answers.
  using Reply = std::function<void(ByteView answer)>;
  /// `message` as it came in a datagram. What is no question is never answered.
  void ask(ByteView message, Reply reply);

  /// The server that is asked at present.
  const Endpoint& server() const { return servers_[server_]; }

 private:
  struct Question {
    Bytes message;         // with the ID of whoever asks
    std::size_t size = 0;  // of its header and question section
    Reply reply;
    std::uint64_t since = 0;  // that the server has been asked
    std::size_t servers = 1;  // that have been asked
  };

  void onReadable() override;
  void connect();
  void disconnect();
  void askNextServer();
  bool send(std::uint16_t id, const Question& question);
  void takeAnswers();
  void takeAnswer(ByteView answer);
  void fail(const Question& question) const;
  void watchPatience();

  EventLoop& loop_;
  ProxyConnector& connector_;
  const std::vector<Endpoint> servers_;
  const LogCallback log_;
  std::size_t server_ = 0;
  std::map<std::uint16_t, Question> questions_;  // by the ID that the server sees
  std::uint16_t lastID_ = 0;
  std::optional<EventLoop::TimerID> timer_;  // while there are questions

  std::unique_ptr<ProxyConnection> opening_;  // then
  TCPSocket socket_;
  bool hasAnswered_ = false;
  Bytes incoming_;
};

}  // namespace zk
