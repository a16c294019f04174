#include "fleet/core_module.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <cerrno>
#include <memory>

#include "brefir/str_utils.h"
#include "parser/conf_cache.h"
#include "pnl/client.h"
#include "pnl/err.h"
#include "pnl/file.h"
#include "pnl/test.h"
#include "pnl/utf8.h"

namespace fleet {
namespace {

constexpr const char* kConfKind = "FrontdConf";
constexpr const char* kDataSet = "ListenDS";
constexpr const char* kDefaultPort = "1500";
constexpr int kMaxPort = 65535;

// --- The file

std::string ListenAddress(const std::string& ip, const std::string& port) {
  return str::Append(test::Ip6(ip) ? "[" + ip + "]" : ip, port, ":");
}

/// The lines `Listen IP [PORT [SSLAUTH [SSLONLY]]]`.
class ListenDS : public LineDataSet {
 public:
  dd::Field ip{*this, "ip"};
  dd::Field port{*this, "port"};
  dd::Field sslauth{*this, "sslauth"};
  dd::Field sslonly{*this, "sslonly"};

  std::string Address() const { return ListenAddress(ip.Str(), port.Str()); }
  /// The listen address with its port, even when the line has no port.
  std::string KeyVal() const override {
    return port.Str().empty() ? ListenAddress(ip.Str(), kDefaultPort) : Address();
  }

 protected:
  std::string LinePrefix() const override { return "Listen"; }
};

class FrontdConf : public PnlCachedConfig {
 public:
  FrontdConf() : PnlCachedConfig(kConfKind) {
    pnl_token::Params rules;
    rules.Add(pnl_token::CharToken{pnl_token::Role::kSeparator, "\t\r "})
        .Add(pnl_token::CharToken{pnl_token::Role::kLineEnd, "\n"})
        .Add(pnl_token::Comment{'#', '\n'});
    PnlConfCache::Register(kConfKind, rules);
    AddDataSet<ListenDS>(kDataSet);
  }
};

std::shared_ptr<ListenDS> Lines(const std::string& conf) {
  static const FrontdConf kind;
  ConfCache files(1);
  return std::static_pointer_cast<ListenDS>(files.Config(kConfKind, conf, true).Get(kDataSet));
}

// --- What an entry can be

bool IsIp(const std::string& text) {
  return test::Ip4(text) || test::Ip6(text);
}

bool IsPort(const std::string& text) {
  return test::Numeric(text) && text.front() != '0' && text.size() <= 5 &&
         str::Int(text) <= kMaxPort;
}

bool IsSwitch(const std::string& text) {
  return text == "on" || text == "off";
}

/// An address in inet_ntop's spelling.
std::string Spelled(int family, const void* address) {
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(family, address, text, sizeof text);
  return text;
}

/// The addresses on which a server of this host can listen: its own, and those that mean all.
StringSet HostAddresses() {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) throw pnl_err::System("list", "network addresses", errno);
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, freeifaddrs);
  StringSet addresses = {"0.0.0.0", "::"};
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    const sockaddr* address = entry->ifa_addr;
    if (address == nullptr) continue;
    if (address->sa_family == AF_INET) {
      addresses.insert(Spelled(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr));
    } else if (address->sa_family == AF_INET6) {
      addresses.insert(
          Spelled(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr));
    }
  }
  return addresses;
}

/// All of 127.0.0.0/8 belongs to the loopback interface, which lists only one address (RFC 1122).
bool IsOfHost(const std::string& ip, const StringSet& addresses) {
  if (test::Ip4(ip)) return ip.starts_with("127.") || addresses.contains(ip);
  in6_addr address;
  inet_pton(AF_INET6, ip.c_str(), &address);
  return addresses.contains(Spelled(AF_INET6, &address));
}

/// Why the server cannot use the entry; "" when it can.
std::string Fault(const ListenDS& line, const StringSet& addresses, bool again) {
  const std::string& ip = line.ip.Str();
  if (!IsIp(ip)) return "'" + ip + "' is not an IP address";
  if (!line.port.Str().empty() && !IsPort(line.port.Str()))
    return "'" + line.port.Str() + "' is not a port from 1 to 65535";
  for (const dd::Field* flag : {&line.sslauth, &line.sslonly}) {
    if (!flag->Str().empty() && !IsSwitch(flag->Str()))
      return "'" + flag->Str() + "' is neither on nor off";
  }
  if (again) return "another entry has the same address and port";
  return IsOfHost(ip, addresses) ? "" : "this host has no address " + ip;
}

// --- Functions

pnl_xml::Xml List(const StringMap& /*params*/, const std::string& conf) {
  const StringSet addresses = HostAddresses();
  StringSet seen;
  pnl_xml::Xml reply;
  const auto line = Lines(conf);
  for (line->First(); !line->Eof(); line->Next()) {
    pnl_xml::XmlNode elem = reply.GetRoot().AppendChild("elem");
    elem.AppendChild("port", utf8::Printable(line->Address()));
    elem.AppendChild("sslauth", line->sslauth.Str() == "on" ? "on" : "off");
    elem.AppendChild("sslonly", line->sslonly.Str() == "on" ? "on" : "off");
    const std::string fault = Fault(*line, addresses, !seen.insert(line->KeyVal()).second);
    if (!fault.empty()) elem.AppendChild("error", utf8::Printable(fault));
  }
  return reply;
}

/// The parameter `name`; throws unless `good` accepts it.
std::string Param(const StringMap& params, const std::string& name,
                  bool (*good)(const std::string&), const char* wanted) {
  const auto found = params.find(name);
  std::string value = found == params.end() ? "" : found->second;
  if (good(value)) return value;
  throw pnl_err::Error("value", name, value)
      .add_param("message", name + " '" + value + "' is not " + wanted);
}

pnl_xml::Xml Edit(const StringMap& params, const std::string& conf) {
  const auto is_ok = [](const std::string& text) { return text == "ok"; };
  Param(params, "sok", is_ok, "ok; without sok=ok nothing is changed");
  const std::string ip = Param(params, "ip", IsIp, "an IP address");
  const std::string port = Param(params, "port", IsPort, "from 1 to 65535");
  const std::string sslauth = Param(params, "sslauth", IsSwitch, "on or off");
  const std::string sslonly = Param(params, "sslonly", IsSwitch, "on or off");
  const auto line = Lines(conf);
  if (!line->Locate(ListenAddress(ip, port))) {
    line->NewRecord();
    line->ip.Set(ip);
  }
  line->port.Set(port);
  line->sslauth.Set(sslauth);
  line->sslonly.Set(sslonly);
  line->Post();
  return {};
}

pnl_xml::Xml Delete(const StringMap& params, const std::string& conf) {
  const auto found = params.find("elid");
  const std::string elid = found == params.end() ? "" : found->second;
  const auto line = Lines(conf);
  if (!line->Locate(elid) && !line->Locate(ListenAddress(elid, kDefaultPort))) {
    throw pnl_err::Missed("listen", elid)
        .add_param("message", "frontd has no listen entry '" + elid + "'");
  }
  line->_Delete();
  return {};
}

}  // namespace

pnl_xml::Xml CallCore(const std::string& function, const StringMap& params,
                      const std::string& conf) {
  if (function == "frontd") return List(params, conf);
  if (function == "frontd.edit") return Edit(params, conf);
  if (function == "frontd.delete") return Delete(params, conf);
  throw pnl_err::Missed("function", function)
      .add_param("message", "the module core has no function '" + function + "'");
}

std::string TriedOnCopy(const std::string& text, const std::function<void()>& work) {
  pnl_file::Tmp copy("/tmp/frontd.conf");
  copy.Write(text);
  copy.Close();
  const pnl_client::Module core("core", [&](const std::string& query) {
    const StringMap params = str::SplitParamsRaw(query, "&", "=");
    return CallCore(params.at("func"), params, copy);
  });
  work();
  return pnl_file::ReadE(copy);
}

}  // namespace fleet
