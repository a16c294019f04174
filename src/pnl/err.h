#pragma once

#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "pnl/export.h"

/// The errors of the platform. Callers need to catch this one exception type; only memory that runs
/// out is reported as std::bad_alloc.
///
/// An error is identified by its type, a short lower-case word with underscores ("file", "lock",
/// "fetch"). It may carry an object, a value and named parameters:
///
///     throw pnl_err::Error("fetch", "file", url);
///     throw pnl_err::Error("ssh_keygen_fail", "", path).add_param("errorcode", "1");
namespace pnl_err {

/// Access mask of a parameter that every access level may see.
inline constexpr unsigned kAllLevels = ~0U;

// Types of errors.
inline constexpr const char* kFile = "file";      ///< the type of the errors that System makes
inline constexpr const char* kMissed = "missed";  ///< the type of Missed

/// Copies share one immutable state. Copying never throws.
class PNL_API Error : public std::exception {
 public:
  /// A detail of the error: a name and a value.
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

  /// "type object value (name=value, ...)"; empty parts are left out. The text is valid until this
  /// object is changed or destroyed.
  const char* what() const noexcept override;

  const std::string& type() const noexcept;
  const std::string& object() const noexcept;
  const std::string& value() const noexcept;
  const std::vector<Param>& params() const noexcept;  ///< in the order in which they were added
  /// The errno(3) of the system call that failed; 0 when no system call failed.
  int code() const noexcept;

  /// The value of the first parameter of that name; "" when there is none.
  std::string param(std::string_view name) const;

  /// Adds a parameter to this object; copies made before do not change. Each derived class returns
  /// *this as its own type, so that `throw Missed(...).add_param(...)` throws a Missed.
  Error& add_param(std::string_view name, std::string_view value,
                   unsigned access_mask = kAllLevels);
  /// Sets the code to `errno_value`, and adds the parameters "errno" (decimal) and "errmsg".
  Error& add_errno(int errno_value);

 private:
  struct PNL_LOCAL State;
  std::shared_ptr<const State> state_;
};

/// An item does not exist. Type "missed".
class PNL_API Missed : public Error {
 public:
  Missed(std::string_view object, std::string_view value);
  Missed(const Missed&) noexcept;
  Missed& operator=(const Missed&) noexcept;
  ~Missed() override;
  Missed& add_param(std::string_view name, std::string_view value,
                    unsigned access_mask = kAllLevels);
};

/// A path or an item is refused. Type "access".
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
/// value the path, and the errno added.
PNL_API Error System(std::string_view operation, std::string_view path, int errno_value);

/// The text of strerror(3), in English whatever the locale. Thread-safe.
[[nodiscard]] PNL_API std::string Message(int errno_value);

}  // namespace pnl_err
