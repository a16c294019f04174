#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "brefir/export.h"
#include "pnl/job.h"
#include "pnl/ssh.h"
#include "pnl/xml.h"

/// The listen addresses of frontd, the panel's own web server, on this host or on a managed node.
///
///     FrontdCtl frontd(ssh);
///     frontd.Add("10.99.0.2", 443, false, true);
///     new FrontdRestartJob(frontd);
///     ...
///     pnl_job::Commit();  // restarts it
///
/// No file is edited here: all work is done by the panel's module "core", the part of the panel
/// that answers such queries. On this host it is called through pnl_client. On a node it is called
/// through the node's control utility (ssh_utils::PnlCtl), which must be installed below the same
/// directory as the working directory of this process. There every word goes to the shell unquoted:
/// the caller quotes words with special characters.
///
/// A listen address is ADDRESS:PORT, with an IPv6 address in brackets. Without a port, the port is
/// 1500.
///
/// Errors are those of pnl_client, of the session, and of the module itself: pnl_err::Error with
/// the module's type, object and parameters. Copies share one session; use all of them from one
/// thread at a time.
class BREFIR_API FrontdCtl {
 public:
  FrontdCtl();  ///< of this host
  explicit FrontdCtl(pnl_rpc::SSH ssh);

  /// Makes a listen entry, or changes the flags of an existing one. `sslauth` asks clients for
  /// certificates; `sslonly` refuses unencrypted connections. `ip` is an address without brackets.
  void Add(const std::string& ip, int port, bool sslauth, bool sslonly);
  /// `elid` is the entry's listen address.
  void Delete(const std::string& elid);

  /// The module's list of all entries: an `elem` below the root for each, with the listen address
  /// in `port` and, when the server cannot use the entry, the reason in `error`.
  [[nodiscard]] pnl_xml::Xml List();

  [[nodiscard]] bool Listening(std::string ip, int port);
  /// Replaces `ports` with every port of that address, in the order of the entries; returns false
  /// when there is none. Entries are split at their first colon, so that IPv6 addresses are not
  /// found.
  bool Listening(std::string ip, std::vector<int>& ports);

  [[nodiscard]] bool HasError();          ///< whether an entry is in error
  [[nodiscard]] std::string ErrorPort();  ///< the first such entry's listen address, else ""

  /// Restarts the server and waits for the end of the command. A failure is only logged.
  void Restart();

  /// Splits at the first colon: "1.2.3.4:80" becomes "1.2.3.4" and "80". Without a colon the second
  /// part is empty. Brackets have no meaning.
  static std::pair<std::string, std::string> SplitPort(std::string s);

  class BREFIR_LOCAL Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

/// Restarts the server when the transaction is committed. Make it after changing listen entries.
class BREFIR_API FrontdRestartJob : public pnl_job::SafeJob {
 public:
  explicit FrontdRestartJob(FrontdCtl ctl);
  ~FrontdRestartJob() override;

  void onCommit() override;  ///< restarts the server

 private:
  FrontdCtl ctl_;
};
