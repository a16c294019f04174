#pragma once

#include <functional>

#include "brefir/frontdctl.h"
#include "pnl/host.h"
#include "tools/frame/verb.h"

/// What the verbs of the family "frontd" share.
namespace tools {

Verb FrontdListVerb();
Verb FrontdListeningVerb();
Verb FrontdAddVerb();
Verb FrontdRemoveVerb();
Verb FrontdRestartVerb();

/// The server of a host where the panel has to be.
[[nodiscard]] FrontdCtl OpenPanel(pnl_host::Host host);

/// The word IP.
[[nodiscard]] std::string ListenIp(const Context& context);
/// The word PORT, which may be left out.
opts::Arg& DescribePort(opts::Args& args);

/// The listen entries, as the list of FrontdCtl has them.
extern const FieldTable<pnl_xml::XmlNode> kListenFields;
/// What such an entry says of a flag; false where there is no entry.
[[nodiscard]] bool IsOn(const pnl_xml::XmlNode& entry, const std::string& flag);

/// A change of the listen entries.
struct ListenChange {
  std::function<void(FrontdCtl& frontd)> work;  ///< is tried on a copy of their file
  /// The output, from the entries after it. `knows`: whether their errors are those of the host.
  std::function<Record(FrontdCtl& frontd, bool knows)> answer;
  std::string line = {};  ///< with --restart: the line of the file whose port then has to answer
  int port = 0;
};
[[nodiscard]] HostEdit ListenEdit(const Context& context, const ListenChange& change);
void DescribeListenChange(opts::Args& args);  ///< --restart

/// Restarts the server; for a host's shell.
inline constexpr const char* kRestart = "service frontd restart";

}  // namespace tools
