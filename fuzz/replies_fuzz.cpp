// Answers of nodes: replies of the control utility, and the files that identify their system.

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "brefir/frontdctl.h"
#include "brefir/ssh_utils.h"
#include "check.h"
#include "pnl/client.h"
#include "pnl/err.h"
#include "pnl/str.h"
#include "pnl/test.h"

namespace {

namespace release = ssh_utils::os_info::release;
using ssh_utils::os_info::OsType;

std::optional<pnl_err::Error> ErrorIn(const pnl_xml::Xml& reply) try {
  pnl_client::ThrowError(reply);
  return std::nullopt;
} catch (const pnl_err::Error& error) {
  return error;
}

bool Same(const pnl_err::Error& a, const pnl_err::Error& b) {
  return a.type() == b.type() && a.object() == b.object() &&
         std::equal(
             a.params().begin(), a.params().end(), b.params().begin(), b.params().end(),
             [](const auto& p, const auto& q) { return p.name == q.name && p.value == q.value; });
}

/// An error crosses the connection as it is.
void CheckErrorReply(const pnl_err::Error& error) {
  pnl_xml::Xml reply;
  try {
    reply = pnl_client::ErrorReply(error);
  } catch (const pnl_err::Error& refused) {
    fuzz::Check(refused.object() == "text", "only what XML cannot hold is refused");
    return;
  }
  pnl_err::Error wanted(error.type(), error.object());
  if (!error.value().empty()) wanted.add_param("value", error.value());
  for (const auto& param : error.params()) wanted.add_param(param.name, param.value);
  const auto told = ErrorIn(pnl_xml::Xml(reply.Str()));
  fuzz::Check(told && Same(*told, wanted), "the error that was told");
}

/// The functions of FrontdCtl agree about a reply.
void CheckListen(const pnl_xml::Xml& reply) {
  const pnl_client::Module core("core", [&](const std::string& /*query*/) { return reply; });
  FrontdCtl frontd;
  fuzz::Check(frontd.HasError() || frontd.ErrorPort().empty(), "no port in error without an error");
  for (const pnl_xml::XmlNode& node : reply.GetNodes("/doc/elem/port")) {
    const auto [address, port] = FrontdCtl::SplitPort(node.Str());
    std::vector<int> ports;
    fuzz::Check(test::Ip6(address) || frontd.Listening(address, ports), "the address is listed");
  }
}

/// An entry is found by its own words, whatever quotes are in them.
void CheckListening(const std::string& address) {
  pnl_xml::Xml reply;
  try {
    reply.GetRoot().AppendChild("elem").AppendChild("port", address + ":80");
  } catch (const pnl_err::Error&) {
    return;
  }
  const pnl_client::Module core("core", [&](const std::string& /*query*/) { return reply; });
  FrontdCtl frontd;
  fuzz::Check(test::Ip6(address) || frontd.Listening(address, 80), "the entry is found");
  fuzz::Check(!frontd.Listening(address, 81), "another port is not");
}

void CheckReply(std::string_view text) {
  const auto reply = fuzz::ReadXml(text);
  if (!reply) return;
  if (const auto error = ErrorIn(*reply)) {
    CheckErrorReply(*error);
  } else {
    CheckListen(*reply);
  }
}

// --- Files

/// The first word that begins with a digit, by its bytes.
std::string IssueModel(std::string_view text) {
  bool begins = true;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (begins && test::Numeric(text[i])) {
      text.remove_prefix(i);
      return std::string(text.substr(0, text.find_first_of(" \t\r\n\v\f")));
    }
    begins = std::string_view(" \t\r\n\v\f").find(text[i]) != std::string_view::npos;
  }
  return "";
}

/// Digits, and more digits behind a dot; a line end or a further dot ends them.
std::string DebianModel(std::string_view text) {
  if (text.ends_with('\n')) text.remove_suffix(1);
  const auto digits = [&text] {
    const std::size_t count = std::min(text.find_first_not_of("0123456789"), text.size());
    const std::string taken(text.substr(0, count));
    text.remove_prefix(count);
    return taken;
  };
  const std::string major = digits();
  if (major.empty() || (!text.empty() && text.front() != '.')) return "";
  if (!text.empty()) text.remove_prefix(1);
  const std::string minor = digits();
  if (!text.empty() && text.front() != '.') return "";
  return major + "." + (minor.empty() ? "0" : minor);
}

void CheckRelease(const std::string& text) {
  const OsType redhat = release::RedHatType(text);
  fuzz::Check((redhat & ~0xFF) == 0x20100, "a member of the Red Hat family");
  fuzz::Check(redhat == ssh_utils::os_info::OsRedHat || release::RedHatType(text + "x") == redhat,
              "only the beginning counts");
  const bool ubuntu = release::DebianType(text) == ssh_utils::os_info::OsUbuntu;
  fuzz::Check(ubuntu == (str::Replace(text, "Ubuntu", "") != text), "the mark of Ubuntu");
  fuzz::Check(release::IssueVersion(text) == IssueModel(text), "the version of an issue");

  fuzz::Check(release::DebianVersion(text) == DebianModel(text), "the version of Debian");
  const std::string last = "\nDISTRIB_RELEASE = 7.8\n";
  fuzz::Check(release::UbuntuVersion(text + last) == "7.8", "the last line of a key counts");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = fuzz::Text(data, size);
  CheckReply(text);
  CheckRelease(std::string(text));
  std::string rest(text);
  const std::string type = str::GetWord(rest, '\n');
  const std::string name = str::GetWord(rest, '\n');
  CheckErrorReply(pnl_err::Error(type, name, rest).add_param(name, type));
  CheckListening(type.substr(0, 64));
  return 0;
}
