// The rewrite of /etc/sysctl.conf.

#include <string>

#include "brefir/sysctl.h"
#include "check.h"
#include "pnl/str.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(fuzz::Text(data, size));
  const std::string name = str::GetWord(text, '\n');
  const std::string unchanged = sysctl::Rewrite(text, {});
  fuzz::Check(unchanged == (text.empty() || text.ends_with('\n') ? text : text + "\n"),
              "without parameters only the last line end may come");
  const std::string changed = sysctl::Rewrite(text, {{name, "7"}});
  const std::string line = name + " = 7\n";
  fuzz::Check(changed.find(line) != std::string::npos, "the parameter is there");
  // A name that is one: setting it again finds its own line and changes nothing.
  if (!name.empty() && name == str::Trim(name) && name.find_first_of("#=") == std::string::npos)
    fuzz::Check(sysctl::Rewrite(changed, {{name, "7"}}) == changed, "setting it again");
  return 0;
}
