#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "brefir/export.h"
#include "pnl/job.h"
#include "pnl/ssh.h"
#include "pnl/str.h"

/// Kernel parameters, here or on a managed node: /etc/sysctl.conf is rewritten and loaded, as a
/// step of the thread's transaction.
///
///     auto* conf = new sysctl::Conf(sysctl::Local());
///     conf->SetParamValue("net.ipv4.ip_forward", 1);
///     conf->Run();
///     ...
///     pnl_job::Commit();   // Rollback brings the file's prior text back
///
/// What commands answer is not looked at, only logged (module "host", level 3): a value that the
/// kernel refuses shows when it is read back. A lost connection is an error, of the types that
/// pnl_rpc::SSH names. Objects are used by one thread at a time.
namespace sysctl {

/// Where the file is and who loads it.
class BREFIR_API ConnectionBase {
 public:
  virtual std::string ReadConf() = 0;                   ///< the file's text
  virtual void WriteConf(const std::string& text) = 0;  ///< replaces the file's text
  virtual void ExecSysctl() = 0;                        ///< loads the file into the kernel
  virtual ~ConnectionBase();
};

/// This host. The file is replaced at once and whole, attributes kept; a missing one is "". Errors:
/// "file", "proc".
class BREFIR_API ConnectionLocal : public ConnectionBase {
 public:
  std::string ReadConf() override;
  void WriteConf(const std::string& text) override;
  void ExecSysctl() override;
};

/// A node, over a copy of the session. The file is overwritten in place: attributes stay, and a
/// connection lost meanwhile, or a full disk, leaves it short. One that is missing or cannot be
/// read is ""; one of more than 16 MiB is "ssh_exec".
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

/// The text that Conf::Run writes: each parameter once, as "name = value", in place of its first
/// line, else at the end in name order. A line that begins with "#" is a comment; an indented one
/// whose "#" stands right before the name is a setting to be switched on. Other lines stay as they
/// are, further ones of the same name too. Whatever is written ends with a line feed.
[[nodiscard]] BREFIR_API std::string Rewrite(std::string_view text, StringMap params);

/// A change of kernel parameters that a rollback undoes in the file; the kernel keeps what was
/// loaded until the next load.
class BREFIR_API Conf : public pnl_job::SafeJob {
 public:
  /// Reads the file, for a rollback.
  explicit Conf(std::shared_ptr<ConnectionBase> connection);
  ~Conf() override;

  /// To be written by the next Run; a later value for the same name replaces an earlier one.
  /// Nothing is checked or escaped.
  void SetParamValue(const std::string& name, int value);
  void SetParamValue(const std::string& name, const std::string& value);
  /// Writes what was set since the last Run, and loads the file. Where reading or writing throws,
  /// what was set stays for the next Run.
  void Run();

  void onRollback() override;  ///< writes the prior text back

 private:
  StringMap params_;
  std::shared_ptr<ConnectionBase> connection_;
  std::string prior_;
};

}  // namespace sysctl
