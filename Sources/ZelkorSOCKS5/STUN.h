#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "Platform/Bytes.h"

namespace zk {

/// The one STUN transaction that the client side of a proxy needs (RFC 5389): a Binding request
/// without attributes, and the XOR-MAPPED-ADDRESS of its success response. Pure, any thread.
namespace STUN {

struct BindingRequest {
  std::array<std::uint8_t, 20> request;
  std::array<std::uint8_t, 12> txID;  // as it stands in the request
};

BindingRequest makeBindingRequest();

/// "address:port" of the first IPv4 XOR-MAPPED-ADDRESS in the success response to `txID` (12
/// octets); absent for any other message, a foreign transaction ID included.
std::optional<std::string> parseXorMappedAddress(ByteView message, ByteView txID);

}  // namespace STUN
}  // namespace zk
