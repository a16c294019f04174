#include "pnl/cksum.h"

#include <array>

namespace pnl_file {
namespace {

constexpr std::uint32_t kPolynomial = 0x04C11DB7U;

constexpr std::array<std::uint32_t, 256> kTable = [] {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t i = 0; i < 256; ++i) {
    std::uint32_t value = i << 24;
    for (int bit = 0; bit < 8; ++bit)
      value = (value << 1) ^ ((value >> 31) != 0 ? kPolynomial : 0U);
    table[i] = value;
  }
  return table;
}();

std::uint32_t Next(std::uint32_t state, unsigned char byte) {
  return (state << 8) ^ kTable[((state >> 24) ^ byte) & 0xFFU];
}

}  // namespace

void Cksum::Add(std::string_view block) {
  for (const char c : block) state_ = Next(state_, static_cast<unsigned char>(c));
  size_ += block.size();
}

std::uint32_t Cksum::Sum() const {
  std::uint32_t state = state_;
  for (std::uint64_t rest = size_; rest != 0; rest >>= 8)
    state = Next(state, static_cast<unsigned char>(rest & 0xFFU));
  return ~state;
}

std::uint32_t Cksum::Of(std::string_view text) {
  Cksum sum;
  sum.Add(text);
  return sum.Sum();
}

}  // namespace pnl_file
