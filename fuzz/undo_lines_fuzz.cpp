// Lines of a text that are taken back while others have changed it.

#include <string>
#include <vector>

#include "check.h"
#include "fleet/undo_lines.h"
#include "pnl/str.h"

/// The input is three texts with a NUL between them.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view rest = fuzz::Text(data, size);
  const std::string before(str::NextWord(rest, '\0'));
  const std::string after(str::NextWord(rest, '\0'));
  const std::string now(rest);
  const fleet::LinesUndone undone = fleet::UndoLines(before, after, now);
  fuzz::Check(undone.text.has_value() == undone.why.empty(), "a text, or a reason");
  fuzz::Check(fleet::UndoLines(before, after, after).text == before,
              "what nobody else has changed");
  fuzz::Check(fleet::UndoLines(before, before, now).text == now, "nothing to be taken back");
  return 0;
}
