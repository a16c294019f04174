#pragma once

#include <string_view>

#include "pnl/export.h"

/// Tests of the form of a text.
namespace test {

/// At least one character, all of them digits 0 to 9.
[[nodiscard]] PNL_API bool Numeric(std::string_view text);
[[nodiscard]] PNL_API bool Numeric(char c);
/// An IPv4 address as inet_pton(3) takes it: four decimal numbers.
[[nodiscard]] PNL_API bool Ip4(std::string_view text);
/// An IPv6 address as inet_pton(3) takes it: no brackets, no zone.
[[nodiscard]] PNL_API bool Ip6(std::string_view text);
/// One path component that can name a file inside a directory: not empty, not "." or "..", without
/// "/" and NUL, at most 255 bytes.
[[nodiscard]] PNL_API bool PathComponent(std::string_view text);

}  // namespace test
