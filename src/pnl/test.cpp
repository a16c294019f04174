#include "pnl/test.h"

#include <arpa/inet.h>

#include <algorithm>
#include <string>

namespace test {
namespace {

/// Whether inet_pton takes it. That reads a C string: a NUL inside would hide what follows it.
template <class Address>
bool IsAddress(int family, std::string_view text) {
  if (text.find('\0') != std::string_view::npos) return false;
  Address address;
  return inet_pton(family, std::string(text).c_str(), &address) == 1;
}

}  // namespace

bool Numeric(char c) {
  return c >= '0' && c <= '9';
}

bool Numeric(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return Numeric(c); });
}

bool Ip4(std::string_view text) {
  return IsAddress<in_addr>(AF_INET, text);
}

bool Ip6(std::string_view text) {
  return IsAddress<in6_addr>(AF_INET6, text);
}

bool PathComponent(std::string_view text) {
  return !text.empty() && text != "." && text != ".." && text.size() <= 255 &&
         text.find('/') == std::string_view::npos && text.find('\0') == std::string_view::npos;
}

}  // namespace test
