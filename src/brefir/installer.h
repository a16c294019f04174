#pragma once

#include <cstdint>
#include <string>

#include "brefir/export.h"
#include "pnl/ssh.h"

/// Packages and package repositories of a managed node. Works with the node's own package manager:
/// yum and rpm in the Red Hat family, apt-get and dpkg in the Debian family. Velkor is the name of
/// the panel's family of daemons and files.
namespace velkor_repo {

/// The largest repository file that is fetched; bytes.
inline constexpr std::uint64_t kRepoFileLimit = 1 << 20;

inline constexpr const char* kNotImplemented = "not_implemented";  ///< a type of errors

/// One of the panel's repositories, for nodes of one family.
struct BREFIR_API PanelRepository {
  std::string file = {};  ///< the absolute path of its file on nodes
  std::string url = {};   ///< where its file comes from; "": this host's own one, which is copied
  std::string key = {};   ///< the URL of its signing key; "": it has none of its own
};
/// The base repository, and the main one.
[[nodiscard]] BREFIR_API PanelRepository VelkorRepo(bool redhat);
[[nodiscard]] BREFIR_API PanelRepository CommonRepo(bool redhat);

/// Every operation runs a command on the node and waits for its end, however long the package
/// manager prints nothing. Log in as root. Arguments are quoted for the node's shell, unless a
/// function says "unquoted".
///
/// Errors are those of the session, and pnl_err::Error of the types named below. When a package
/// manager failed, the parameter "output" has the last lines of its standard output. Nothing is
/// undone: when a later step fails, a repository file that was already copied stays on the node.
///
/// Use an object and its session from one thread at a time.
class BREFIR_API Installer {
 public:
  /// Detects the node's family; throws kNotImplemented when the system belongs to neither.
  /// `local_directory` is a directory of this host for temporary files of InstallVelkorRepo.
  Installer(pnl_rpc::SSH& session, const std::string& local_directory);

  /// Whether the list of installed packages has a line that contains `name`: "ssh" counts as
  /// installed when "openssh" is.
  [[nodiscard]] bool PacketInstalled(const std::string& name);

  /// Refreshes the package index in the Debian family; "apt_get_update" when that fails. Does
  /// nothing in the Red Hat family: yum refreshes it itself.
  void UpdatePkgCache();

  /// Calls UpdatePkgCache, then upgrades a package. `prefix` is put before the name, unquoted:
  /// options of the package manager. Throws "update_pkg" with the parameter "packet".
  void UpdatePacket(const std::string& name, const std::string& prefix);

  /// Installs an rpm package from `url` (unquoted); does nothing in the Debian family. Throws
  /// "install_url".
  void InstallByURL(const std::string& url);

  /// Installs or upgrades a package without prompting. `name` is unquoted, and so is `prefix`,
  /// which is put before the command: environment variables or a wrapper. Throws "install".
  void InstallPackage(const std::string& name, const std::string& prefix);

  /// Adds the panel's base repository. In the Red Hat family its file comes from the download
  /// server, through a temporary file in the local directory, and its key from the signing-key
  /// server. In the Debian family this host's own file is copied; nothing is done when this host
  /// has none or the node already has one. Throws "install_repository" with the file's name.
  void InstallVelkorRepo();

  /// Adds the panel's main repository by copying this host's own file of it. In the Red Hat family
  /// "epel-release" is installed first. In the Debian family the key is then added from the
  /// signing-key server, and the index is refreshed. Throws "install_repository" with the file's
  /// path.
  void InstallCommonRepo();

  /// The commands that the operations run on this node; "" where they run none.
  [[nodiscard]] std::string UpdatePkgCacheCommand() const;
  [[nodiscard]] std::string UpdatePacketCommand(const std::string& name,
                                                const std::string& prefix) const;
  [[nodiscard]] std::string InstallByURLCommand(const std::string& url) const;
  [[nodiscard]] std::string InstallPackageCommand(const std::string& name,
                                                  const std::string& prefix) const;
  /// The absolute paths of the files that InstallVelkorRepo and InstallCommonRepo put on this node.
  [[nodiscard]] std::string VelkorRepoFile() const;
  [[nodiscard]] std::string CommonRepoFile() const;
  /// The URL from which InstallVelkorRepo fetches its file; "" when it copies this host's own.
  [[nodiscard]] std::string VelkorRepoUrl() const;

 private:
  void FetchVelkorRepo();
  void CopyVelkorRepo();

  bool redhat_ = false;
  pnl_rpc::SSH ssh_;
  std::string local_directory_;
};

}  // namespace velkor_repo
