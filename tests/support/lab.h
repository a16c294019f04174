#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "pnl/ssh.h"

namespace support {

/// The base of cases with real nodes. Each case runs on a private panel host of its own (lab/run),
/// where it may write any file. Outside of a lab a case fails; when labs are not possible, lab/run
/// reports that with its exit code.
///
///     class CopyTest : public support::LabTest {};
///     TEST_F(CopyTest, Copies) { support::LabNode node("centos7"); ... node.Address() ... }
class LabTest : public testing::Test {
 protected:
  void SetUp() override;
};

std::string LabKey();         ///< the private key that every node accepts for root
std::string LabKnownHosts();  ///< a known_hosts file with the key of every node

struct LabOptions {
  std::vector<std::string> sshd = {};  ///< settings of the SSH server: "MaxSessions 1"
  std::string disk = {};               ///< size of a small disk: "3m"
  bool log_commands = false;           ///< for Commands
  bool systemd = false;                ///< as process 1; only where NodesRunSystemd()
};

/// Whether nodes can run systemd here; if not, standard error says why. For GTEST_SKIP.
bool NodesRunSystemd();

/// A node that lives as long as the object; it takes about 0.1 s to make, with systemd 1 s. Different
/// threads may make nodes at the same time. Failures of the lab throw std::runtime_error.
class LabNode {
 public:
  /// `os` as lab/node names it.
  explicit LabNode(const std::string& os = "debian12", const LabOptions& options = {});
  LabNode(const LabNode&) = delete;
  LabNode& operator=(const LabNode&) = delete;
  ~LabNode();

  const std::string& Name() const { return name_; }
  const std::string& Address() const { return address_; }  ///< the server listens on port 22
  /// The directory of its files on the panel host; without /run, /proc and /dev.
  const std::filesystem::path& Root() const { return root_; }

  /// For a session as root; the time-out is in seconds.
  pnl_rpc::SshOptions Login(int connect_timeout = 10) const;

  /// Runs a shell command on the node, without SSH. Its standard output; its exit code must be 0.
  std::string Exec(const std::string& command) const;

  /// The command lines that were run there through SSH, in order, including running ones.
  std::vector<std::string> Commands() const;
  void ClearCommands() const;

  void Fault(const std::string& fault) const;  ///< "silence", "slow 1mbit", ...: see lab/fault
  void Kill() const;                           ///< crashes it
  void Reboot() const;                         ///< starts it again, crashing it first when it is up

 private:
  std::string name_;
  std::string address_;
  std::filesystem::path root_;
};

}  // namespace support
