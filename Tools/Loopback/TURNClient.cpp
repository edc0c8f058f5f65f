#include "Loopback/TURNClient.h"

#include <algorithm>
#include <array>

#include "Platform/Random.h"
#include "ZelkorTURN/TURNAttributes.h"

namespace zk::loopback {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint8_t transportUDP = 17;

std::string textOf(std::optional<ByteView> value) {
  return value ? std::string(value->begin(), value->end()) : std::string();
}

std::optional<Endpoint> addressIn(const std::optional<TURNMessage>& message, std::uint16_t type) {
  const auto value = message ? message->first(type) : std::nullopt;
  return value ? TURNAttributes::decodeXorAddress(*value) : std::nullopt;
}

}  // namespace

Bytes channelData(std::uint16_t number, ByteView payload) {
  std::array<std::uint8_t, channelHeaderSize> header;
  writeUInt16(&header[0], number);
  writeUInt16(&header[2], static_cast<std::uint16_t>(payload.size()));
  return concatenated(header, payload);
}

Bytes sendIndicationTo(const Endpoint& peer, ByteView payload, const TransactionID& transaction) {
  TURNMessage message(TURNMethod::send, TURNClass::indication, transaction);
  message.append(TURNAttr::xorPeerAddress, TURNAttributes::encodeXorAddress(peer));
  message.append(TURNAttr::data, payload);
  return message.encode();
}

bool TURNAnswer::success() const {
  return message && message->klass == TURNClass::successResponse && integrityVerified;
}

int TURNAnswer::errorCode() const {
  const auto value = message ? message->first(TURNAttr::errorCode) : std::nullopt;
  return value ? TURNAttributes::decodeErrorCode(*value).value_or(0) : 0;
}

std::optional<Endpoint> TURNAnswer::relayedAddress() const {
  return addressIn(message, TURNAttr::xorRelayedAddress);
}

std::optional<std::uint32_t> TURNAnswer::lifetime() const {
  const auto value = message ? message->first(TURNAttr::lifetime) : std::nullopt;
  return value ? TURNAttributes::decodeLifetime(*value) : std::nullopt;
}

TURNClient::TURNClient(std::uint16_t serverPort, TURNCredentials credentials)
    : credentials_(std::move(credentials)), realm_(credentials_.realm.value_or("")) {
  // Connected, so that nobody but the server is heard.
  socket_.connectTo(localEndpoint(serverPort));
}

std::optional<Bytes> TURNClient::waitForDatagram(Clock::time_point deadline) {
  std::array<std::uint8_t, 65536> buffer;
  for (;;) {
    // An error tells that an earlier datagram found no server; another one may.
    if (const auto arrival = socket_.receive(buffer)) {
      return Bytes(arrival->datagram.begin(), arrival->datagram.end());
    }
    const auto left = std::chrono::ceil<Milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
      return std::nullopt;
    }
    waitReadable(socket_.get(), left);
  }
}

std::optional<Bytes> TURNClient::receive(Milliseconds timeout) {
  if (!kept_.empty()) {
    Bytes datagram = std::move(kept_.front());
    kept_.pop_front();
    return datagram;
  }
  return waitForDatagram(Clock::now() + timeout);
}

TURNAuth::LongTermKey TURNClient::key() const {
  return TURNAuth::longTermKey(credentials_.username, realm_, credentials_.password);
}

TURNAnswer TURNClient::request(const TURNMessage& message) {
  const Bytes wire = message.encode();
  const auto deadline = Clock::now() + timeout_;
  int left = retransmissions_;
  send(wire);
  auto nextSend = Clock::now() + retransmissionInterval_;
  while (Clock::now() < deadline) {
    auto datagram = waitForDatagram(left > 0 ? std::min(nextSend, deadline) : deadline);
    if (!datagram) {
      if (left-- > 0 && Clock::now() < deadline) {
        send(wire);
        nextSend = Clock::now() + retransmissionInterval_;
      }
      continue;
    }
    const auto decoded = TURNMessage::decode(*datagram);
    if (!decoded || decoded->txID != message.txID || decoded->klass == TURNClass::indication) {
      kept_.push_back(std::move(*datagram));
      continue;
    }
    TURNAnswer answer{*decoded, std::move(*datagram)};
    answer.integrityVerified = TURNAuth::verifyMessageIntegrity(answer.datagram, key());
    return answer;
  }
  return {};
}

TURNAnswer TURNClient::authenticatedRequest(const TURNMessage& message) {
  const bool first = nonce_.empty();
  TURNMessage attempt = message;
  if (!first) {
    sign(attempt);
  }
  TURNAnswer answer = request(attempt);
  const int error = answer.errorCode();
  if (error != TURNAttributes::staleNonce.code &&
      !(error == TURNAttributes::unauthorized.code && first)) {
    return answer;
  }
  nonce_ = textOf(answer.message->first(TURNAttr::nonce));
  if (!credentials_.realm) {
    realm_ = textOf(answer.message->first(TURNAttr::realm));
  }
  attempt = message;
  attempt.txID = freshTransaction();
  sign(attempt);
  return request(attempt);
}

TransactionID TURNClient::freshTransaction() {
  TransactionID transaction{};
  randomBytes(transaction);
  return transaction;
}

TURNMessage TURNClient::makeRequest(std::uint16_t method) {
  return {method, TURNClass::request, freshTransaction()};
}

void TURNClient::sign(TURNMessage& message) const {
  message.append(TURNAttr::username, bytesOf(credentials_.username));
  message.append(TURNAttr::realm, bytesOf(realm_));
  message.append(TURNAttr::nonce, bytesOf(nonce_));
  TURNAuth::appendMessageIntegrity(message, key());
}

TURNAnswer TURNClient::allocate() {
  TURNMessage message = makeRequest(TURNMethod::allocate);
  message.append(TURNAttr::requestedTransport, Bytes{transportUDP, 0, 0, 0});
  return authenticatedRequest(message);
}

TURNAnswer TURNClient::refresh(std::optional<std::uint32_t> lifetime) {
  TURNMessage message = makeRequest(TURNMethod::refresh);
  if (lifetime) {
    std::array<std::uint8_t, 4> value;
    writeUInt16(&value[0], static_cast<std::uint16_t>(*lifetime >> 16));
    writeUInt16(&value[2], static_cast<std::uint16_t>(*lifetime));
    message.append(TURNAttr::lifetime, value);
  }
  return authenticatedRequest(message);
}

TURNAnswer TURNClient::createPermission(const Endpoint& peer) {
  TURNMessage message = makeRequest(TURNMethod::createPermission);
  message.append(TURNAttr::xorPeerAddress, TURNAttributes::encodeXorAddress(peer));
  return authenticatedRequest(message);
}

TURNAnswer TURNClient::bindChannel(std::uint16_t number, const Endpoint& peer) {
  TURNMessage message = makeRequest(TURNMethod::channelBind);
  std::array<std::uint8_t, 4> value{};  // two octets of number, two reserved
  writeUInt16(value.data(), number);
  message.append(TURNAttr::channelNumber, value);
  message.append(TURNAttr::xorPeerAddress, TURNAttributes::encodeXorAddress(peer));
  return authenticatedRequest(message);
}

std::optional<TURNData> TURNClient::receiveData(Milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  do {
    const auto datagram = receive(std::chrono::ceil<Milliseconds>(deadline - Clock::now()));
    if (!datagram || datagram->empty()) {
      continue;
    }
    if (((*datagram)[0] & 0xC0) == 0x40) {
      if (datagram->size() < channelHeaderSize ||
          datagram->size() < channelHeaderSize + readUInt16(*datagram, 2)) {
        continue;
      }
      const auto begin = datagram->begin() + channelHeaderSize;
      return TURNData{{}, readUInt16(*datagram, 0), {begin, begin + readUInt16(*datagram, 2)}};
    }
    const auto message = TURNMessage::decode(*datagram);
    if (!message || message->method != TURNMethod::dataMsg ||
        message->klass != TURNClass::indication) {
      continue;
    }
    const auto peer = addressIn(message, TURNAttr::xorPeerAddress);
    const auto payload = message->first(TURNAttr::data);
    if (peer && payload) {
      return TURNData{peer, {}, {payload->begin(), payload->end()}};
    }
  } while (Clock::now() < deadline);
  return std::nullopt;
}

}  // namespace zk::loopback
