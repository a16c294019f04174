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

/// A change of the listen entries: `work` is tried on a copy of their file, and then done by the
/// panel; `quoted` when a shell reads the words. With --restart the server follows.
struct ListenChange {
  std::function<void(FrontdCtl& frontd, bool quoted)> work;
  std::function<Record(FrontdCtl& frontd)> answer;  ///< when all is done
};
[[nodiscard]] Change ChangeListen(const Context& context, const ListenChange& change);
void DescribeListenChange(opts::Args& args);  ///< --restart

}  // namespace tools
