#pragma once

#include <memory>
#include <string>

#include "fleet/host_file.h"
#include "pnl/file.h"
#include "tools/frame/login.h"
#include "tools/frame/verb.h"

/// The host that a command works on, and its files as changes.
namespace tools {

using fleet::HostContent;
using fleet::HostText;
using fleet::MakeDirCommand;
using fleet::MakeNodeDir;
using fleet::OnHostFile;
using fleet::ReplaceText;
using fleet::RequireThere;
using fleet::RunOnFile;
using fleet::Said;

/// The change of one file's text; `answer` is its output. While the change is made, `lock` keeps
/// other runs of these programs out.
[[nodiscard]] Change FileChange(pnl_host::Host host, const std::string& path,
                                const pnl_host::Content& before, const std::string& after,
                                std::shared_ptr<const pnl_file::Lock> lock, Answer answer);
/// The lock for FileChange; none for a file of a node, or when the change is only planned.
[[nodiscard]] std::shared_ptr<const pnl_file::Lock> LockForChange(const Context& context,
                                                                  const pnl_host::Host& host,
                                                                  const std::string& path);

}  // namespace tools
