#pragma once

#include <cstddef>
#include <set>
#include <string>

namespace support {

/// Sanitizers make everything slower, and keep freed memory.
inline constexpr bool kSanitized = BREFIR_SANITIZED;

/// How many descriptors this process has open.
std::size_t OpenDescriptors();

/// The descriptors, threads and children of this process, to find leaks afterwards.
///
///     const support::Belongings before;
///     ... work that fails ...
///     EXPECT_EQ(before.Leak(), "");
class Belongings {
 public:
  Belongings();

  /// Describes what was added; "" for nothing. Waits up to a second for things that are about to
  /// end.
  std::string Leak() const;

 private:
  std::string Difference() const;

  std::size_t descriptors_;
  std::size_t threads_;
  std::set<std::string> children_;  ///< process ids, those of zombies too
};

}  // namespace support
