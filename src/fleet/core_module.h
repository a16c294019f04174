#pragma once

#include <functional>
#include <string>

#include "fleet/export.h"
#include "pnl/str.h"
#include "pnl/xml.h"

/// A reference implementation of the panel's module "core": only the functions for the listen
/// entries of frontd, the panel's web server.
namespace fleet {

/// The file of the listen entries, one line each; the sample etc/frontd.conf explains its format.
inline constexpr const char* kFrontdConf = "etc/frontd.conf";

/// Calls a function of the module; it works on the file `conf`:
///
///   frontd         lists the entries: an `elem` each with `port` (the listen address; an IPv6
///                  address in brackets), `sslauth` and `sslonly` ("on", "off"), and `error`, a
///                  sentence, when the server cannot use it
///   frontd.edit    makes the entry of `ip` and `port`, or changes it: `sslauth` and `sslonly`,
///                  "on" or "off"; `sok` must be "ok"
///   frontd.delete  deletes the entry whose listen address is `elid`
///
/// An entry may have an address that this host does not have (yet); it is listed with an error.
/// Changes replace the file by atomic rename under its lock, and keep everything else in it.
///
/// Errors with a parameter "message": pnl_err::Missed("function", name), Missed("listen", elid),
/// and pnl_err::Error("value", parameter, value) for an invalid value. Others: "file", "lock".
/// Thread-safe.
[[nodiscard]] FLEET_API pnl_xml::Xml CallCore(const std::string& function, const StringMap& params,
                                              const std::string& conf = kFrontdConf);

/// The text that the file of listen entries with the text `text` would have after `work`. `work`
/// calls the module through pnl_client; meanwhile a module of this process answers and works on a
/// copy. Throws what `work` throws.
[[nodiscard]] FLEET_API std::string TriedOnCopy(const std::string& text,
                                                const std::function<void()>& work);

}  // namespace fleet
