#include "ServerModel.h"

namespace zk::fuzz {

std::optional<Datagram> ServerModel::dueOf(std::size_t who, const TURNMessage& indication) const {
  const auto peer = indication.first(TURNAttr::xorPeerAddress);
  const auto address = peer ? TURNAttributes::decodeXorAddress(*peer) : std::nullopt;
  const auto data = indication.first(TURNAttr::data);
  if (!address || !data || !isAlive(who)) {
    return std::nullopt;
  }
  return Datagram{joined({*data}), address->ip, address->port};
}

std::optional<Datagram> ServerModel::dueOf(std::size_t who, ByteView datagram) const {
  if (datagram.size() < 4 || datagram.size() < 4U + readUInt16(datagram, 2) || !isAlive(who)) {
    return std::nullopt;
  }
  const auto channel = clients[who]->channels.find(readUInt16(datagram, 0));
  if (channel == clients[who]->channels.end()) {
    return std::nullopt;
  }
  return Datagram{joined({datagram.subspan(4, readUInt16(datagram, 2))}), channel->second.ip,
                  channel->second.port};
}

int ServerModel::gateError(const TURNMessage& message, bool isGenuine) const {
  const auto nonce = message.first(TURNAttr::nonce);
  if (!nonce || !message.first(TURNAttr::username) || !message.first(TURNAttr::realm) ||
      !message.first(TURNAttr::messageIntegrity) ||
      std::any_of(nonce->begin(), nonce->end(), [](auto octet) { return octet > 127; })) {
    return 401;
  }
  const auto issued = nonces.find(std::string(textOf(*nonce)));
  return issued == nonces.end() || now - issued->second > 300 ? 438 : isGenuine ? 0 : 401;
}

int ServerModel::outcome(std::size_t who, const TURNMessage& message, const Script& script) {
  auto& client = clients[who];
  const auto lifetime = message.first(TURNAttr::lifetime);
  const auto number = message.first(TURNAttr::channelNumber);
  const auto peer = message.first(TURNAttr::xorPeerAddress);
  switch (message.method) {
    case TURNMethod::allocate: {
      if (client) {
        return client->txID == message.txID ? 0 : 437;
      }
      const auto transport = message.first(TURNAttr::requestedTransport);
      if (!transport || transport->empty() || (*transport)[0] != 17) {
        return 442;
      }
      if ((script.faults & 4) != 0 || (script.faults & 3) == 3 || !isDottedQuad(script.address)) {
        return 500;
      }
      client = Client{now + 600, message.txID, script.address, {}};
      return 0;
    }
    case TURNMethod::refresh:
      if (!client) {
        return 437;
      }
      granted = lifetime && lifetime->size() >= 4
                    ? std::min(*TURNAttributes::decodeLifetime(*lifetime), 3600U)
                    : 600;
      client->expiry = now + granted;
      if (granted == 0) {
        client.reset();
      }
      return 0;
    case TURNMethod::createPermission:
      return isAlive(who) ? 0 : 437;
    case TURNMethod::channelBind: {
      const auto address = peer ? TURNAttributes::decodeXorAddress(*peer) : std::nullopt;
      if (!isAlive(who)) {
        return 437;
      }
      if (!number || number->size() < 2 || (*number)[0] >> 6 != 1 || !address) {
        return 400;
      }
      client->channels[readUInt16(*number, 0)] = *address;
      return 0;
    }
    default:
      return 400;
  }
}

void ServerModel::sweep() {
  for (auto& client : clients) {
    if (client && client->expiry + 300 < now) {
      client.reset();
    }
  }
}

}  // namespace zk::fuzz
