#pragma once

#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "pnl/export.h"

/// Errors of the platform: the one exception type that its callers need to catch. Only memory that
/// runs out is std::bad_alloc, as everywhere.
///
/// An error is told by its type, a short lower-case word with underscores ("file", "lock",
/// "fetch"), and may carry an object, a value and named parameters:
///
///     throw pnl_err::Error("fetch", "file", url);
///     throw pnl_err::Error("ssh_keygen_fail", "", path).add_param("errorcode", "1");
namespace pnl_err {

/// Access mask of a parameter that every access level may see.
inline constexpr unsigned kAllLevels = ~0U;

// Types of errors.
inline constexpr const char* kFile = "file";      ///< System's
inline constexpr const char* kMissed = "missed";  ///< that of Missed

/// Copies share one immutable state and never throw, as an exception object must not.
class PNL_API Error : public std::exception {
 public:
  /// Tells more about the error, by name.
  struct Param {
    std::string name;
    std::string value;
    unsigned access_mask;  ///< which access levels may see it
  };

  explicit Error(std::string_view type);
  Error(std::string_view type, std::string_view object);
  Error(std::string_view type, std::string_view object, std::string_view value);
  Error(const Error&) noexcept;
  Error& operator=(const Error&) noexcept;
  ~Error() override;

  /// "type object value (name=value, ...)"; empty parts are left out. Lives as long as this object
  /// is neither changed nor destroyed.
  const char* what() const noexcept override;

  const std::string& type() const noexcept;
  const std::string& object() const noexcept;
  const std::string& value() const noexcept;
  const std::vector<Param>& params() const noexcept;  ///< in the order in which they were added
  /// The errno(3) of the system call that failed; 0 when it was none.
  int code() const noexcept;

  /// The value of the first parameter of that name; "" when there is none.
  std::string param(std::string_view name) const;

  /// Adds a parameter to this object (copies made before do not see it); returns *this, of its own
  /// type in each class: `throw Missed(...).add_param(...)` throws a Missed.
  Error& add_param(std::string_view name, std::string_view value,
                   unsigned access_mask = kAllLevels);
  /// Makes `errno_value` its code, and adds the parameters "errno" (decimal) and "errmsg".
  Error& add_errno(int errno_value);

 private:
  struct PNL_LOCAL State;
  std::shared_ptr<const State> state_;
};

/// A missing item. Type "missed".
class PNL_API Missed : public Error {
 public:
  Missed(std::string_view object, std::string_view value);
  Missed(const Missed&) noexcept;
  Missed& operator=(const Missed&) noexcept;
  ~Missed() override;
  Missed& add_param(std::string_view name, std::string_view value,
                    unsigned access_mask = kAllLevels);
};

/// A refused path or item. Type "access".
class PNL_API Access : public Error {
 public:
  Access(std::string_view object, std::string_view value);
  Access(const Access&) noexcept;
  Access& operator=(const Access&) noexcept;
  ~Access() override;
  Access& add_param(std::string_view name, std::string_view value,
                    unsigned access_mask = kAllLevels);
};

/// The error of a failed system call: type kFile, object the operation ("open", "rename", ...),
/// value the path, with that errno.
PNL_API Error System(std::string_view operation, std::string_view path, int errno_value);

/// What strerror(3) says, without its buffer and without a locale.
[[nodiscard]] PNL_API std::string Message(int errno_value);

}  // namespace pnl_err
