#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "brefir/export.h"
#include "pnl/job.h"
#include "pnl/ssh.h"
#include "pnl/xml.h"

/// Where the panel's own web server, frontd, listens: on this host or on a managed node.
///
///     FrontdCtl frontd(ssh);
///     frontd.Add("10.99.0.2", 443, false, true);
///     new FrontdRestartJob(frontd);
///     ...
///     pnl_job::Commit();  // restarts it
///
/// Nothing of the server is edited here: all of it is asked of the panel's module "core". On this
/// host that goes through pnl_client; on a node through its control utility (ssh_utils::PnlCtl),
/// which has to stand there below the same directory that is the working directory here, and which
/// gets every word as it is: one that means something to a shell is the caller's to quote.
///
/// Listen addresses in texts are ADDRESS:PORT, an IPv6 address in brackets; the port may be
/// missing, and is 1500 then.
///
/// Errors are those of pnl_client, of the session, and of the module itself: pnl_err::Error with
/// the module's type, object and parameters. Copies share one session, and one thread at a time.
class BREFIR_API FrontdCtl {
 public:
  FrontdCtl();  ///< of this host
  explicit FrontdCtl(pnl_rpc::SSH ssh);

  /// Makes a listen entry, or gives an existing one these flags: `sslauth` asks clients for
  /// certificates, `sslonly` refuses what is not encrypted. `ip` is an address without brackets.
  void Add(const std::string& ip, int port, bool sslauth, bool sslonly);
  /// `elid` is the entry's listen address.
  void Delete(const std::string& elid);

  /// What the module says about all entries: an `elem` below the root for each, with the listen
  /// address in `port` and, when it is in error, the reason in `error`.
  [[nodiscard]] pnl_xml::Xml List();

  [[nodiscard]] bool Listening(std::string ip, int port);
  /// Every port at that address, in the order of the entries, replaces what `ports` holds; false
  /// when there is none. Entries are cut at their first colon, so that those of an IPv6 address are
  /// not seen here.
  bool Listening(std::string ip, std::vector<int>& ports);

  [[nodiscard]] bool HasError();          ///< whether some entry is in error
  [[nodiscard]] std::string ErrorPort();  ///< the first such entry's listen address, else ""

  /// Restarts the server now and waits for that. Whether it worked goes to the log only.
  void Restart();

  /// "1.2.3.4:80" as "1.2.3.4" and "80"; without a colon the second is empty. Knows no brackets.
  static std::pair<std::string, std::string> SplitPort(std::string s);

  class BREFIR_LOCAL Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

/// Restarts the server when the transaction is committed; made after listen entries were changed.
class BREFIR_API FrontdRestartJob : public pnl_job::SafeJob {
 public:
  explicit FrontdRestartJob(FrontdCtl ctl);
  ~FrontdRestartJob() override;

  void onCommit() override;  ///< restarts it now

 private:
  FrontdCtl ctl_;
};
