#pragma once

#include <functional>
#include <string>

#include "pnl/err.h"
#include "pnl/export.h"
#include "pnl/xml.h"

/// Calls of the panel's modules on this host.
///
///     pnl_client::Local core("core", "frontdctl");
///     const pnl_xml::Xml reply = core.Query("func=frontd.delete&elid=10.0.0.1:80");
///
/// A query is "func=FUNCTION", then "&NAME=VALUE" for each parameter; nothing in it is encoded, so
/// that no part may hold "&". The reply is a document with the root `doc`. One that has an `error`
/// node below it tells a failure:
///
///      <doc><error type="missed" object="listen"><param name="value">::1</param></error></doc>
///
/// Everything here may be called from any thread; one client is used by one thread at a time.
namespace pnl_client {

/// The panel's control utility, below its directory.
inline constexpr const char* kUtility = "sbin/pnlctl";

/// The error that a reply tells: type and object are the node's attributes, each `param` node is a
/// parameter. Returns when the reply tells none.
PNL_API void ThrowError(const pnl_xml::Xml& reply);

/// The reply that tells `error`. Its value becomes the parameter "value".
[[nodiscard]] PNL_API pnl_xml::Xml ErrorReply(const pnl_err::Error& error);

/// What asks a module.
class PNL_API Client {
 public:
  virtual ~Client();
  /// The reply. Throws what the reply tells (ThrowError), and what the way to the module throws.
  virtual pnl_xml::Xml Query(const std::string& query) = 0;

 protected:
  Client() = default;
  Client(const Client&) = default;
  Client& operator=(const Client&) = default;
};

/// Asks a module of this host: one that is registered in this process, else the one behind
/// `sbin/pnlctl` below the working directory, which is run once per query and has 120 seconds.
///
/// Errors of the way there: pnl_err::Missed("module", name) when there is neither; "proc" when the
/// utility does not start or end in time; pnl_err::Error("client", "reply", name), parameter
/// "reason", when what it prints is no XML.
class PNL_API Local : public Client {
 public:
  /// `client` is who asks, for the log.
  Local(std::string module, std::string client);
  ~Local() override;

  pnl_xml::Xml Query(const std::string& query) override;

 private:
  std::string module_;
  std::string client_;
};

/// Answers queries in this process as the module `name`, as long as the object lives. Of several
/// with one name the last one made does. The handler gets the query's text, may be called by
/// several threads at once, and throws its errors.
class PNL_API Module {
 public:
  using Handler = std::function<pnl_xml::Xml(const std::string& query)>;

  Module(std::string name, Handler handler);
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;
  ~Module();  ///< a query under way may still be in the handler
};

}  // namespace pnl_client
