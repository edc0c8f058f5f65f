#pragma once

#include <string>
#include <string_view>

namespace zk {

/// Whether the octets are well-formed UTF-8 (RFC 3629): no overlong forms, no surrogates.
bool isValidUTF8(std::string_view octets);

/// The octets with each malformed sequence replaced by U+FFFD.
std::string repairedUTF8(std::string_view octets);

}  // namespace zk
