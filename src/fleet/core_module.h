#pragma once

#include <functional>
#include <string>

#include "fleet/export.h"
#include "fleet/plan.h"
#include "pnl/host.h"
#include "pnl/str.h"
#include "pnl/xml.h"

/// The panel's module "core", as far as this tree needs one: where the web server frontd listens.
namespace fleet {

/// The listen entries, a line each (etc/frontd.conf in the tree tells the form).
inline constexpr const char* kFrontdConf = "etc/frontd.conf";

/// Calls a function of the module, on the file `conf`:
///
///   frontd         lists the entries: an `elem` each with `port` (the listen address; an IPv6
///                  address in brackets), `sslauth` and `sslonly` ("on", "off"), and `error`, a
///                  sentence, when the server cannot use it
///   frontd.edit    makes the entry of `ip` and `port`, or changes it: `sslauth` and `sslonly`,
///                  "on" or "off"; `sok` must be "ok"
///   frontd.delete  deletes the entry whose listen address is `elid`
///
/// An entry with an address that this host does not have (yet) may be made; it is listed as one in
/// error. Changes replace the file at once, under its lock, and keep everything else in it.
///
/// Errors, with a parameter "message": pnl_err::Missed("function", name), Missed("listen", elid);
/// pnl_err::Error("value", parameter, value) for one that cannot be. Others: "file", "lock".
/// Any thread may call it.
[[nodiscard]] FLEET_API pnl_xml::Xml CallCore(const std::string& function, const StringMap& params,
                                              const std::string& conf = kFrontdConf);

/// What the file of listen entries, whose text is `text`, would hold after `work`, which asks the
/// module by pnl_client: a module of this process answers on a copy. Throws what `work` throws.
[[nodiscard]] FLEET_API std::string TriedOnCopy(const std::string& text,
                                                const std::function<void()>& work);

/// The command that restarts the server on a host.
[[nodiscard]] FLEET_API Step RestartStep(const pnl_host::Host& host);
/// Runs it, and does not wait for the server's own end. pnl_err::Error("frontd", "restart", host)
/// with a message that ends in `outcome` when it fails.
FLEET_API void RestartFrontd(pnl_host::Host& host, const std::string& outcome = "");

}  // namespace fleet
