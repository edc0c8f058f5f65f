#include "ZelkorSeal/Names.h"

#include <algorithm>
#include <system_error>
#include <utility>

namespace zk {
namespace {

using State = Transfer::State;

constexpr std::size_t headerSize = 12;
constexpr std::uint8_t isResponse = 0x80;     // in the third octet
constexpr std::uint8_t isTruncated = 0x02;    // likewise
constexpr std::uint8_t serverFailure = 0x02;  // in the fourth
constexpr std::uint16_t typeOPT = 41;
constexpr std::size_t leastAllowed = 512;

// Behind the name at `at`; absent when it is not all there.
std::optional<std::size_t> behindName(ByteView message, std::size_t at) {
  while (at < message.size()) {
    const std::size_t length = message[at];
    if (length == 0) {
      return at + 1;
    }
    if (length >= 0xC0) {
      return at + 2;
    }
    at += 1 + length;
  }
  return std::nullopt;
}

// Header and question of a message with one question; absent for any other.
std::optional<std::size_t> questionSize(ByteView message) {
  if (message.size() < headerSize || readUInt16(message, 4) != 1) {
    return std::nullopt;
  }
  const auto name = behindName(message, headerSize);
  return name && *name + 4 <= message.size() ? std::optional(*name + 4) : std::nullopt;
}

// The largest answer that whoever asks can take as a datagram.
std::size_t allowedSize(ByteView message, std::size_t at) {
  constexpr std::size_t fixedSize = 10;  // type, class, time to live, length of the data
  for (auto name = behindName(message, at); name && *name + fixedSize <= message.size();
       name = behindName(message, at)) {
    if (readUInt16(message, *name) == typeOPT) {
      return std::max<std::size_t>(leastAllowed, readUInt16(message, *name + 2));
    }
    at = *name + fixedSize + readUInt16(message, *name + 8);
  }
  return leastAllowed;
}

// The header with the question and nothing else.
Bytes withoutRecords(ByteView header, ByteView question) {
  Bytes cut(question.begin(), question.end());
  std::copy_n(header.begin(), 4, cut.begin());
  std::fill(cut.begin() + 6, cut.begin() + headerSize, std::uint8_t{0});
  return cut;
}

}  // namespace

Names::Names(EventLoop& loop, ProxyConnector& connector, std::vector<Endpoint> servers,
             LogCallback log)
    : loop_(loop), connector_(connector), servers_(std::move(servers)), log_(std::move(log)) {}

Names::~Names() {
  disconnect();
  if (timer_) {
    loop_.cancel(*timer_);
  }
}

void Names::ask(ByteView message, Reply reply) {
  const auto size = questionSize(message);
  if (!size || message.size() > maxQuestionSize || (message[2] & isResponse) != 0 ||
      questions_.size() >= maxQuestions) {
    return;
  }
  while (questions_.contains(++lastID_)) {
  }
  Question& question = questions_[lastID_];
  question = {{message.begin(), message.end()}, *size, std::move(reply), loop_.now()};
  if (!socket_) {
    connect();
  } else if (!send(lastID_, question)) {
    askNextServer();
  }
  watchPatience();
}

// ---- The connection ----------------------------------------------------------------------------

void Names::connect() {
  if (opening_ || questions_.empty()) {
    return;
  }
  const auto opened = [this](TCPSocket socket, SOCKS5Request::Reply, std::string_view reason) {
    const auto over = std::move(opening_);
    if (!socket) {
      logLine(log_, FMT_COMPILE("name server {}: not connected: {}"), server().text(), reason);
      askNextServer();
      return;
    }
    socket_ = std::move(socket);
    try {
      loop_.watch(socket_.descriptor(), *this);
    } catch (const std::system_error&) {
      socket_ = TCPSocket();
      askNextServer();
      return;
    }
    if (!std::all_of(questions_.begin(), questions_.end(),
                     [this](const auto& each) { return send(each.first, each.second); })) {
      askNextServer();
    }
  };
  opening_ = connector_.connect(server(), opened);
}

void Names::disconnect() {
  opening_.reset();
  if (socket_) {
    loop_.unwatch(socket_.descriptor());
    socket_ = TCPSocket();
  }
  hasAnswered_ = false;
  incoming_.clear();
}

// What is left unanswered goes there, unless each has been asked.
void Names::askNextServer() {
  disconnect();
  server_ = (server_ + 1) % servers_.size();
  std::vector<Question> unanswered;
  for (auto next = questions_.begin(); next != questions_.end();) {
    Question& question = next->second;
    if (question.servers++ >= std::max(servers_.size(), defaultServers.size())) {
      unanswered.push_back(std::move(question));
      next = questions_.erase(next);
    } else {
      question.since = loop_.now();
      ++next;
    }
  }
  connect();
  for (const Question& question : unanswered) {
    fail(question);
  }
}

void Names::watchPatience() {
  if (timer_ || questions_.empty()) {
    return;
  }
  const auto oldest =
      std::min_element(questions_.begin(), questions_.end(), [](const auto& a, const auto& b) {
        return a.second.since < b.second.since;
      })->second.since;
  const std::chrono::nanoseconds waited(loop_.now() - oldest);
  timer_ = loop_.after(std::max<std::chrono::nanoseconds>(patience - waited, {}), [this] {
    timer_.reset();
    const bool isLate = std::any_of(questions_.begin(), questions_.end(), [this](const auto& each) {
      return std::chrono::nanoseconds(loop_.now() - each.second.since) >= patience;
    });
    if (isLate) {
      logLine(log_, FMT_COMPILE("name server {}: no answer"), server().text());
      askNextServer();
    }
    watchPatience();
  });
}

// ---- Messages ----------------------------------------------------------------------------------

// Behind its length (RFC 1035 section 4.2.2). A server that has not even taken what was asked
// before has no room for it.
bool Names::send(std::uint16_t id, const Question& question) {
  Bytes message = concatenated(Bytes(2), question.message);
  writeUInt16(message.data(), static_cast<std::uint16_t>(question.message.size()));
  writeUInt16(message.data() + 2, id);
  return socket_.send(message).octets == message.size();
}

void Names::onReadable() {
  constexpr std::size_t piece = 16384;
  const std::size_t held = incoming_.size();
  incoming_.resize(held + piece);
  const Transfer came = socket_.receive(std::span(incoming_).subspan(held));
  incoming_.resize(held + came.octets);
  if (came.state == State::ended || came.state == State::failed) {
    // A server closes a connection that is quiet for long, which says nothing against it.
    const bool isGood = hasAnswered_ || questions_.empty();
    disconnect();
    isGood ? connect() : askNextServer();
    return;
  }
  takeAnswers();
}

void Names::takeAnswers() {
  std::size_t at = 0;
  while (incoming_.size() - at >= 2) {
    const std::size_t length = readUInt16(incoming_, at);
    if (incoming_.size() - at < 2 + length) {
      break;
    }
    takeAnswer(ByteView(incoming_).subspan(at + 2, length));
    at += 2 + length;
  }
  incoming_.erase(incoming_.begin(), incoming_.begin() + static_cast<std::ptrdiff_t>(at));
}

void Names::takeAnswer(ByteView answer) {
  const auto found =
      answer.size() < headerSize ? questions_.end() : questions_.find(readUInt16(answer, 0));
  if (found == questions_.end() || (answer[2] & isResponse) == 0) {
    return;
  }
  const ByteView asked = ByteView(found->second.message).first(found->second.size);
  if (answer.size() < asked.size() ||
      !std::equal(asked.begin() + headerSize, asked.end(), answer.begin() + headerSize)) {
    return;
  }
  const auto over = questions_.extract(found);
  const Question& question = over.mapped();
  hasAnswered_ = true;
  Bytes whole(answer.begin(), answer.end());
  if (answer.size() > allowedSize(question.message, question.size)) {
    whole = withoutRecords(answer, asked);
    whole[2] |= isTruncated;
  }
  std::copy_n(question.message.begin(), 2, whole.begin());
  question.reply(whole);
}

void Names::fail(const Question& question) const {
  const ByteView asked = ByteView(question.message).first(question.size);
  Bytes answer = withoutRecords(asked, asked);
  answer[2] |= isResponse;
  answer[3] = serverFailure;
  question.reply(answer);
}

}  // namespace zk
