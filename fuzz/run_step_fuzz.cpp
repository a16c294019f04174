// The steps of runs, as the journal and saved plans have them.

#include <algorithm>
#include <string>

#include "check.h"
#include "fleet/run_step.h"

namespace {

bool IsLine(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

bool Same(const fleet::FileText& a, const fleet::FileText& b) {
  return a == b || (a && b && *a == *b);
}

/// A step whose line is written and read comes back.
void CheckText(const fleet::RunStep& step) {
  const std::string line = step.Text();
  fuzz::Check(IsLine(line), "one line of ASCII");
  const fleet::RunStep again = fleet::RunStep::Read(line);
  fuzz::Check(again.Text() == line, "the same line again");
  fuzz::Check(again.object == step.object && again.from == step.from, "the same paths");
  if (step.secret) {
    fuzz::Check(!again.before.content && !again.after.content, "a secret stays out");
    return;
  }
  fuzz::Check(Same(again.before.content, step.before.content), "the content before");
  fuzz::Check(Same(again.after.content, step.after.content), "the content after");
  fuzz::Check(again.value == step.value && again.value_before == step.value_before, "the values");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fleet::RunStep step;
  try {
    step = fleet::RunStep::Read(fuzz::Text(data, size));
  } catch (const pnl_err::Error& error) {
    fuzz::Check(error.type() == "step" && error.object() == "read", "the error");
    return 0;
  }
  CheckText(step);
  for (const fleet::RunStep& back : fleet::Inverse(step)) CheckText(back);
  return 0;
}
