#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "brefir/export.h"
#include "pnl/job.h"
#include "pnl/ssh.h"
#include "pnl/str.h"

/// Kernel parameters of this host or a managed node. Rewrites /etc/sysctl.conf and loads it, as a
/// job of the thread's transaction.
///
///     auto* conf = new sysctl::Conf(sysctl::Local());
///     conf->SetParamValue("net.ipv4.ip_forward", 1);
///     conf->Run();
///     ...
///     pnl_job::Commit();   // Rollback restores the file
///
/// A failed command is only logged (module "host", level 3): to see whether the kernel accepted a
/// value, read it back. A lost connection throws one of the types of pnl_rpc::SSH. Use an object
/// from one thread at a time.
namespace sysctl {

/// The host of the file.
class BREFIR_API ConnectionBase {
 public:
  virtual std::string ReadConf() = 0;                   ///< the file's text
  virtual void WriteConf(const std::string& text) = 0;  ///< replaces the file's text
  virtual void ExecSysctl() = 0;                        ///< loads the file into the kernel
  virtual ~ConnectionBase();
};

/// This host. The file is replaced by atomic rename; its attributes stay. A missing file reads as
/// "". Errors: "file", "proc".
class BREFIR_API ConnectionLocal : public ConnectionBase {
 public:
  std::string ReadConf() override;
  void WriteConf(const std::string& text) override;
  void ExecSysctl() override;
};

/// A node, over a copy of the session. The file is overwritten in place: attributes stay, but a
/// lost connection or a full disk leaves it short. A file that is missing or cannot be read reads
/// as ""; a file of more than 16 MiB is "ssh_exec".
class BREFIR_API ConnectionRemote : public ConnectionBase {
 public:
  explicit ConnectionRemote(pnl_rpc::SSH ssh);
  std::string ReadConf() override;
  void WriteConf(const std::string& text) override;
  void ExecSysctl() override;

 private:
  pnl_rpc::SSH ssh_;
};

[[nodiscard]] BREFIR_API std::shared_ptr<ConnectionBase> Local();
[[nodiscard]] BREFIR_API std::shared_ptr<ConnectionBase> Remote(pnl_rpc::SSH ssh);

/// The text that Conf::Run writes. Each parameter is written once, as "name = value": in place of
/// its first line, or at the end, in name order, when there is none. A line that begins with "#" is
/// a comment; it stays. An indented line with "#" directly before the name is a disabled setting:
/// it is replaced. Other lines stay as they are, even further ones of the same name. The text ends
/// with a line feed.
[[nodiscard]] BREFIR_API std::string Rewrite(std::string_view text, StringMap params);

/// A change of kernel parameters. A rollback restores the file; the kernel keeps the loaded values
/// until the next load.
class BREFIR_API Conf : public pnl_job::SafeJob {
 public:
  /// Reads the file for a rollback.
  explicit Conf(std::shared_ptr<ConnectionBase> connection);
  ~Conf() override;

  /// Sets a value for the next Run. A later value for the same name replaces an earlier one.
  /// Nothing is checked or escaped.
  void SetParamValue(const std::string& name, int value);
  void SetParamValue(const std::string& name, const std::string& value);
  /// Writes the values that were set since the last Run, and loads the file. When reading or
  /// writing throws, the values stay for the next Run.
  void Run();

  void onRollback() override;  ///< writes the old text back

 private:
  StringMap params_;
  std::shared_ptr<ConnectionBase> connection_;
  std::string prior_;
};

}  // namespace sysctl
