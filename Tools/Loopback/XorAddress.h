#pragma once

#include <optional>

#include "Base/Bytes.h"
#include "Base/Endpoint.h"
#include "ZelkorTURN/TURNAttributes.h"

namespace zk::loopback {

/// The value of an attribute that holds an address masked with the magic cookie.
inline Bytes xorAddress(const Endpoint& endpoint) {
  const auto value = TURNAttributes::encodeXorAddress(endpoint);
  return {value.begin(), value.end()};
}

/// The same in reverse; absent for anything but an IPv4 address.
inline std::optional<Endpoint> xorAddressIn(ByteView value) {
  return TURNAttributes::decodeXorAddress(value);
}

}  // namespace zk::loopback
