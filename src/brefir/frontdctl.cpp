#include "brefir/frontdctl.h"

#include "brefir/ssh_utils.h"
#include "brefir/str_utils.h"
#include "pnl/client.h"
#include "pnl/file.h"
#include "pnl/host.h"
#include "pnl/log.h"
#include "pnl/test.h"

namespace {

pnl_log::Module log_module("frontdctl");

constexpr const char* kModule = "core";
constexpr const char* kRestart = "service frontd restart";
constexpr int kDefaultPort = 1500;

std::string OnOff(bool flag) {
  return flag ? "on" : "off";
}

/// The address in the form of listen addresses.
std::string Bracketed(const std::string& ip) {
  return test::Ip6(ip) ? "[" + ip + "]" : ip;
}

bool HasEntry(const pnl_xml::Xml& list, const std::string& port) {
  return static_cast<bool>(list.GetNode("/doc/elem[port=" + pnl_xml::EscapePropValue(port) + "]"));
}

}  // namespace

// --- The two ways to the server

class FrontdCtl::Impl {
 public:
  explicit Impl(pnl_host::Host host) : host_(std::move(host)) {}
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;
  virtual ~Impl() = default;
  void Restart() { host_.Do(kRestart); }
  virtual pnl_xml::Xml Call(const std::string& func, StringMap params) = 0;

 private:
  pnl_host::Host host_;
};

namespace {

class Local final : public FrontdCtl::Impl {
 public:
  Local() : Impl(pnl_host::Host()) {}

  pnl_xml::Xml Call(const std::string& func, StringMap params) override {
    std::string query = "func=" + func;
    if (!params.empty()) query += "&" + str::JoinParams(params, "&", "=");
    return client_.Query(query);
  }

 private:
  pnl_client::Local client_{kModule, "frontdctl"};
};

class Remote final : public FrontdCtl::Impl {
 public:
  explicit Remote(pnl_rpc::SSH ssh) : Impl(pnl_host::Host(ssh)), ssh_(std::move(ssh)) {}

  pnl_xml::Xml Call(const std::string& func, StringMap params) override {
    return ssh_utils::PnlCtl(ssh_, pnl_file::GetCurrentDir(), kModule, func, params);
  }

 private:
  pnl_rpc::SSH ssh_;
};

}  // namespace

// --- FrontdCtl

FrontdCtl::FrontdCtl() : impl_(std::make_shared<Local>()) {}

FrontdCtl::FrontdCtl(pnl_rpc::SSH ssh) : impl_(std::make_shared<Remote>(std::move(ssh))) {}

void FrontdCtl::Add(const std::string& ip, int port, bool sslauth, bool sslonly) {
  PNL_ENTRY(log_module);
  impl_->Call("frontd.edit", {{"ip", ip},
                              {"port", str::Str(port)},
                              {"sok", "ok"},
                              {"sslauth", OnOff(sslauth)},
                              {"sslonly", OnOff(sslonly)}});
}

void FrontdCtl::Delete(const std::string& elid) {
  PNL_ENTRY(log_module);
  impl_->Call("frontd.delete", {{"elid", elid}});
}

pnl_xml::Xml FrontdCtl::List() {
  pnl_xml::Xml list = impl_->Call("frontd", {});
  PNL_LOG(log_module, 6, "frontd: \n%s", list.Str(true).c_str());
  return list;
}

bool FrontdCtl::Listening(std::string ip, int port) {
  PNL_ENTRY(log_module);
  const pnl_xml::Xml list = List();
  ip = Bracketed(ip);
  return HasEntry(list, ip + ":" + str::Str(port)) || (port == kDefaultPort && HasEntry(list, ip));
}

bool FrontdCtl::Listening(std::string ip, std::vector<int>& ports) {
  PNL_ENTRY(log_module);
  ports.clear();
  const pnl_xml::Xml list = List();
  ip = Bracketed(ip);
  for (const pnl_xml::XmlNode& node : list.GetNodes("/doc/elem/port")) {
    const auto [address, port] = SplitPort(node.Str());
    if (address == ip) ports.push_back(port.empty() ? kDefaultPort : str::Int(port));
  }
  return !ports.empty();
}

bool FrontdCtl::HasError() {
  PNL_ENTRY(log_module);
  return static_cast<bool>(List().GetNode("/doc/elem/error"));
}

std::string FrontdCtl::ErrorPort() {
  PNL_ENTRY(log_module);
  const pnl_xml::Xml list = List();
  return list.GetNode("/doc/elem/error/../port").Str();
}

void FrontdCtl::Restart() {
  PNL_ENTRY(log_module);
  impl_->Restart();
}

std::pair<std::string, std::string> FrontdCtl::SplitPort(std::string s) {
  std::string address = str::GetWord(s, ":");
  return {std::move(address), std::move(s)};
}

// --- FrontdRestartJob

FrontdRestartJob::FrontdRestartJob(FrontdCtl ctl) : ctl_(std::move(ctl)) {}

FrontdRestartJob::~FrontdRestartJob() = default;

void FrontdRestartJob::onCommit() {
  ctl_.Restart();
}
