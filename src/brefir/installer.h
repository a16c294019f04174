#pragma once

#include <cstdint>
#include <string>

#include "brefir/export.h"
#include "pnl/ssh.h"

/// Packages and package repositories of a managed node, by the node's own package manager: yum and
/// rpm in the Red Hat family, apt-get and dpkg in the Debian family.
namespace velkor_repo {

/// What a repository file that is fetched may have; bytes.
inline constexpr std::uint64_t kRepoFileLimit = 1 << 20;

inline constexpr const char* kNotImplemented = "not_implemented";  ///< a type of errors

/// Every operation runs a command on the node, as root, and waits for its end, however long the
/// package manager works in silence. A word goes to the node's shell quoted, unless a function says
/// that it goes there as it is.
///
/// Errors, besides those of the session: pnl_err::Error of the types named below. When a package
/// manager failed, its last lines on standard output are the parameter "output". Nothing is undone:
/// a repository file that was copied before a later step failed stays on the node.
///
/// One thread at a time uses an object, and no other the same session meanwhile.
class BREFIR_API Installer {
 public:
  /// Finds out the node's family; kNotImplemented for a system of neither. `local_directory` is
  /// one of this host that InstallVelkorRepo may make a file in.
  Installer(pnl_rpc::SSH& session, const std::string& local_directory);

  /// Whether the list of installed packages has a line with `name` in it: "ssh" is installed where
  /// "openssh" is.
  [[nodiscard]] bool PacketInstalled(const std::string& name);

  /// Fetches the package index anew in the Debian family, "apt_get_update" when that fails; yum
  /// does it by itself.
  void UpdatePkgCache();

  /// Upgrades a package, after UpdatePkgCache. `prefix` goes there as it is, before the name:
  /// options of the package manager. "update_pkg", with the parameter "packet".
  void UpdatePacket(const std::string& name, const std::string& prefix);

  /// Installs an rpm package, `url` going to the shell as it is; does nothing in the Debian family.
  /// "install_url".
  void InstallByURL(const std::string& url);

  /// Installs a package without asking anybody anything, or brings it up to date. `name` goes to
  /// the shell as it is; so does `prefix`, in front of the command: variables or a wrapper.
  /// "install".
  void InstallPackage(const std::string& name, const std::string& prefix);

  /// Adds the panel's base repository. In the Red Hat family its file comes from the download
  /// server, through a temporary file in the local directory, and its key from the signing-key
  /// server; in the Debian family this host's own file is copied: nothing happens when this host
  /// has none, or the node has one. "install_repository", with the file's name.
  void InstallVelkorRepo();

  /// Adds the panel's main repository by copying this host's own file of it: in the Red Hat family
  /// after installing "epel-release", in the Debian family followed by its key, from the
  /// signing-key server, and by fetching the index. "install_repository", with the file's path.
  void InstallCommonRepo();

  /// What the operations run on this node; "" where they run nothing.
  [[nodiscard]] std::string UpdatePkgCacheCommand() const;
  [[nodiscard]] std::string UpdatePacketCommand(const std::string& name,
                                                const std::string& prefix) const;
  [[nodiscard]] std::string InstallByURLCommand(const std::string& url) const;
  [[nodiscard]] std::string InstallPackageCommand(const std::string& name,
                                                  const std::string& prefix) const;
  /// The repository files that the last two put on this node; absolute paths.
  [[nodiscard]] std::string VelkorRepoFile() const;
  [[nodiscard]] std::string CommonRepoFile() const;
  /// Where the first of them comes from; "" when it is a copy of this host's own.
  [[nodiscard]] std::string VelkorRepoUrl() const;

 private:
  void FetchVelkorRepo();
  void CopyVelkorRepo();

  bool redhat_ = false;
  pnl_rpc::SSH ssh_;
  std::string local_directory_;
};

}  // namespace velkor_repo
