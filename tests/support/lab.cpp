#include "support/lab.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "pnl/proc.h"

namespace support {
namespace {

std::string Variable(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

// Runs a script of lab/ with words that are quoted already; its output.
std::string Lab(const std::string& words) {
  pnl_proc::Execute script(BREFIR_SOURCE_DIR "/lab/" + words, pnl_proc::kNoInput);
  std::string output = script.Str();
  if (script.Result() != 0) throw std::runtime_error("lab/" + words + " failed");
  return output;
}

std::string Line(std::string text) {
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

std::string NewName() {
  static std::atomic<int> count = 0;
  return "n" + std::to_string(getpid()) + "-" + std::to_string(++count);
}

std::string Words(const LabOptions& options) {
  std::string words;
  for (const auto& setting : options.sshd) words += " --sshd " + pnl_proc::Escape(setting);
  if (!options.disk.empty()) words += " --disk " + options.disk;
  if (options.log_commands) words += " --log-commands";
  if (options.systemd) words += " --systemd";
  return words;
}

}  // namespace

void LabTest::SetUp() {
  if (Variable("LAB").empty())
    throw std::runtime_error("needs a lab: run it through lab/run, as root");
}

std::string LabKey() {
  return Variable("LAB_KEY");
}

std::string LabKnownHosts() {
  return Variable("LAB_KNOWN_HOSTS");
}

bool NodesRunSystemd() {
  return pnl_proc::Execute(BREFIR_SOURCE_DIR "/lab/node systemd", pnl_proc::kNoInput).Result() == 0;
}

LabNode::LabNode(const std::string& os, const LabOptions& options)
    : name_(NewName()),
      address_(Line(Lab("node start " + name_ + " --os " + os + Words(options)))),
      root_(Line(Lab("node root " + name_))) {}

LabNode::~LabNode() {
  try {
    Lab("node stop " + name_);
  } catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
  }
}

pnl_rpc::SshOptions LabNode::Login(int connect_timeout) const {
  return {.host = address_,
          .key_file = LabKey(),
          .known_hosts = LabKnownHosts(),
          .connect_timeout = connect_timeout};
}

std::string LabNode::Exec(const std::string& command) const {
  return Lab("node exec " + name_ + " sh -c " + pnl_proc::Escape(command));
}

std::vector<std::string> LabNode::Commands() const {
  std::istringstream log(Lab("node commands " + name_));
  std::vector<std::string> commands;
  for (std::string command; std::getline(log, command, '\0');) commands.push_back(command);
  return commands;
}

void LabNode::ClearCommands() const {
  Lab("node commands " + name_ + " --clear");
}

void LabNode::Fault(const std::string& fault) const {
  Lab("fault " + name_ + " " + fault);
}

void LabNode::Kill() const {
  Lab("node kill " + name_);
}

void LabNode::Reboot() const {
  Lab("node reboot " + name_);
}

}  // namespace support
