#include "ZelkorTURN/ClientOutbox.h"

#include "ZelkorTURN/ChannelData.h"
#include "ZelkorTURN/TURNAttributes.h"

namespace zk {

void ClientOutbox::add(const TURNMessage& message, const Endpoint& to) {
  const ByteView section = message.attributeSection();
  add(message.header(section.size()), section, to);
}

void ClientOutbox::addChannelData(std::uint16_t channel, ByteView payload, const Endpoint& to) {
  add(ChannelData::header(channel, payload), payload, to);
}

void ClientOutbox::addIndication(const Endpoint& peer, ByteView payload, const Endpoint& to) {
  TransactionID txID{};
  transactionIDs_.fill(txID);
  const TURNAttributes::XorAddress address = TURNAttributes::encodeXorAddress(peer);
  TURNMessage indication(
      TURNMethod::dataMsg, TURNClass::indication, txID,
      2 * TURNMessage::attributeHeaderSize + address.size() + STUN::paddedLength(payload.size()));
  indication.append(TURNAttr::xorPeerAddress, address);
  indication.append(TURNAttr::data, payload);
  add(indication, to);
}

void ClientOutbox::add(ByteView header, ByteView rest, const Endpoint& to) {
  if (sender_.isFull()) {
    send();
  }
  Bytes& message = slots_[sender_.size()];
  message.assign(header.begin(), header.end());
  message.insert(message.end(), rest.begin(), rest.end());
  sender_.add({}, message, to);
}

void ClientOutbox::send() {
  if (sender_.size() > 0) {
    sender_.send(socket_);
  }
}

}  // namespace zk
