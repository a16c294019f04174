#pragma once

#include <string>

#include "fleet/facts.h"

/// The command of AskFacts; for the sources of this directory only.
namespace fleet {

/// Each line of its output that counts begins with `nonce` and a blank:
///
///      is TAG TEXT       a line of a file or of a command
///      has NAME          the file /etc/NAME exists
///      begun PART        a command that may hang was started
///      ran PART CODE     it has ended
///      end               the output is complete
///
/// Only whole lines are written, at most some KiB at once (pipe(7), PIPE_BUF), and nothing else is
/// written by commands: what a late one prints gets into no other line.
[[nodiscard]] std::string FactsCommand(const std::string& nonce, const FactsQuestion& question);

}  // namespace fleet
