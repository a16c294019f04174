#pragma once

#include <functional>
#include <string>

#include "pnl/err.h"
#include "pnl/export.h"
#include "pnl/xml.h"

/// Calls of the panel's modules on this host. A module is a part of the panel that answers queries
/// under its own name; "core" is the panel's own.
///
///     pnl_client::Local core("core", "frontdctl");
///     const pnl_xml::Xml reply = core.Query("func=frontd.delete&elid=10.0.0.1:80");
///
/// A query is "func=FUNCTION", then "&NAME=VALUE" for each parameter. Nothing in it is encoded, so
/// that no part may contain "&". The reply is a document with the root `doc`. A reply with an
/// `error` element below the root reports a failure:
///
///      <doc><error type="missed" object="listen"><param name="value">::1</param></error></doc>
///
/// Thread safety: functions may be called from any thread. Use one client from one thread at a
/// time.
namespace pnl_client {

/// The path of the panel's control utility, below the panel's directory.
inline constexpr const char* kUtility = "sbin/pnlctl";

/// Throws the error that a reply reports: type and object are attributes of its `error` element,
/// each `param` element is a parameter. Returns when the reply reports none.
PNL_API void ThrowError(const pnl_xml::Xml& reply);

/// The reply that reports `error`. The error's value becomes the parameter "value".
[[nodiscard]] PNL_API pnl_xml::Xml ErrorReply(const pnl_err::Error& error);

/// Sends queries to a module.
class PNL_API Client {
 public:
  virtual ~Client();
  /// Returns the reply. Throws the error that the reply reports (ThrowError), or an error of the
  /// transport.
  virtual pnl_xml::Xml Query(const std::string& query) = 0;

 protected:
  Client() = default;
  Client(const Client&) = default;
  Client& operator=(const Client&) = default;
};

/// Sends queries to a module of this host: to a Module of this process if there is one of that
/// name, else through `sbin/pnlctl` below the working directory. That utility is run once per query
/// and has 120 seconds.
///
/// Errors of the transport: pnl_err::Missed("module", name) when there is neither; "proc" when the
/// utility does not start or does not end in time; pnl_err::Error("client", "reply", name),
/// parameter "reason", when its output is not XML.
class PNL_API Local : public Client {
 public:
  /// `client` is the caller's name for the log.
  Local(std::string module, std::string client);
  ~Local() override;

  pnl_xml::Xml Query(const std::string& query) override;

 private:
  std::string module_;
  std::string client_;
};

/// Answers queries in this process as the module `name`, as long as the object lives. When several
/// have one name, the newest answers. The handler gets the text of the query, may be called by
/// several threads at once, and throws its errors.
class PNL_API Module {
 public:
  using Handler = std::function<pnl_xml::Xml(const std::string& query)>;

  Module(std::string name, Handler handler);
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;
  ~Module();  ///< does not wait for a handler that is still running
};

}  // namespace pnl_client
