#pragma once

#include <cstdint>
#include <string_view>

#include "pnl/export.h"

namespace pnl_file {

/// The sum that cksum(1) prints, as POSIX.1-2017 has it, of text that comes block by block.
///
///     pnl_file::Cksum sum;
///     sum.Add("Welcome\n");
///     Show(sum.Sum());
class PNL_API Cksum {
 public:
  void Add(std::string_view block);
  [[nodiscard]] std::uint32_t Sum() const;                    ///< of all blocks up to now
  [[nodiscard]] std::uint64_t Size() const { return size_; }  ///< bytes of all blocks up to now

  /// The sum of one text.
  [[nodiscard]] static std::uint32_t Of(std::string_view text);

 private:
  std::uint32_t state_ = 0;
  std::uint64_t size_ = 0;
};

}  // namespace pnl_file
