#include "pnl/test.h"

#include <arpa/inet.h>

#include <algorithm>
#include <string>

namespace test {

bool Numeric(char c) {
  return c >= '0' && c <= '9';
}

bool Numeric(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return Numeric(c); });
}

bool Ip6(std::string_view text) {
  // inet_pton takes a C string: a NUL inside would hide what follows it.
  if (text.find('\0') != std::string_view::npos) return false;
  in6_addr address;
  return inet_pton(AF_INET6, std::string(text).c_str(), &address) == 1;
}

bool PathComponent(std::string_view text) {
  return !text.empty() && text != "." && text != ".." && text.size() <= 255 &&
         text.find('/') == std::string_view::npos && text.find('\0') == std::string_view::npos;
}

}  // namespace test
