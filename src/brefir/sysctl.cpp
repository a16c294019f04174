#include "brefir/sysctl.h"

#include <utility>

#include "pnl/file.h"
#include "pnl/host.h"

namespace sysctl {
namespace {

constexpr const char* kConf = "/etc/sysctl.conf";
constexpr const char* kLoad = "sysctl -p";
constexpr std::size_t kMaxConf = std::size_t{16} << 20;  // bytes, of a node's file

/// The parameter that a line sets; for a commented-out line, the name directly after the "#".
std::string KeyOf(std::string_view line) {
  std::string key = str::Trim(str::NextWord(line, '='));
  return key.starts_with('#') ? str::RGetWord(key, "#") : key;
}

std::string NewLine(const StringMap::value_type& param) {
  return param.first + " = " + param.second + "\n";
}

}  // namespace

// --- This host

ConnectionBase::~ConnectionBase() = default;

std::string ConnectionLocal::ReadConf() {
  return pnl_file::Read(kConf);
}

void ConnectionLocal::WriteConf(const std::string& text) {
  pnl_file::Write(kConf, text);
}

void ConnectionLocal::ExecSysctl() {
  pnl_host::Host().Do(kLoad);
}

// --- A node

ConnectionRemote::ConnectionRemote(pnl_rpc::SSH ssh) : ssh_(std::move(ssh)) {}

std::string ConnectionRemote::ReadConf() {
  return pnl_host::Host(ssh_).Run("cat /etc/sysctl.conf", {}, kMaxConf).output;
}

void ConnectionRemote::WriteConf(const std::string& text) {
  pnl_host::Host(ssh_).Run("cat > /etc/sysctl.conf", text);
}

void ConnectionRemote::ExecSysctl() {
  pnl_host::Host(ssh_).Do(kLoad);
}

std::shared_ptr<ConnectionBase> Local() {
  return std::make_shared<ConnectionLocal>();
}

std::shared_ptr<ConnectionBase> Remote(pnl_rpc::SSH ssh) {
  return std::make_shared<ConnectionRemote>(std::move(ssh));
}

// --- The change

std::string Rewrite(std::string_view text, StringMap params) {
  std::string out;
  while (!text.empty()) {
    const std::string_view line = str::NextWord(text, '\n');
    const bool setting = !line.empty() && line.front() != '#';
    const auto param = setting ? params.find(KeyOf(line)) : params.end();
    if (param == params.end()) {
      out.append(line) += '\n';
    } else {
      out += NewLine(*param);
      params.erase(param);
    }
  }
  for (const auto& param : params) out += NewLine(param);
  return out;
}

Conf::Conf(std::shared_ptr<ConnectionBase> connection)
    : connection_(std::move(connection)), prior_(connection_->ReadConf()) {}

Conf::~Conf() = default;

void Conf::SetParamValue(const std::string& name, int value) {
  SetParamValue(name, std::to_string(value));
}

void Conf::SetParamValue(const std::string& name, const std::string& value) {
  params_[name] = value;
}

void Conf::Run() {
  connection_->WriteConf(Rewrite(connection_->ReadConf(), params_));
  params_.clear();  // only now: after an error the values stay for the next Run
  connection_->ExecSysctl();
}

void Conf::onRollback() {
  connection_->WriteConf(prior_);
}

}  // namespace sysctl
