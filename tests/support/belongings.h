#pragma once

#include <cstddef>
#include <set>
#include <string>

namespace support {

/// Sanitizers make all of it slower, and keep memory that was freed.
inline constexpr bool kSanitized = BREFIR_SANITIZED;

/// How many descriptors this process has open.
std::size_t OpenDescriptors();

/// What this process has, to see afterwards that nothing has come to it.
///
///     const support::Belongings before;
///     ... work that fails ...
///     EXPECT_EQ(before.Leak(), "");
class Belongings {
 public:
  Belongings();

  /// What has come, in words; "" for nothing. What is about to end gets a second to do so.
  std::string Leak() const;

 private:
  std::string Difference() const;

  std::size_t descriptors_;
  std::size_t threads_;
  std::set<std::string> children_;  ///< process ids, those of zombies too
};

}  // namespace support
