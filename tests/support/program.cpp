#include "support/program.h"

#include "pnl/file.h"
#include "pnl/proc.h"

namespace support {

bool Has(const std::string& text, const std::string& part) {
  return part.empty() ? text.empty() : text.find(part) != std::string::npos;
}

void ProgramTest::SetUp() {
  LabTest::SetUp();
  std::filesystem::create_directories("/srv/panel/etc");
  std::filesystem::create_directories("/srv/panel/var");
  std::filesystem::current_path("/srv/panel");
}

Finished ProgramTest::Shell(const std::string& command) {
  const int code = pnl_proc::Execute("exec >var/out 2>var/err; " + command).Result();
  return {code, pnl_file::Read("var/out"), pnl_file::Read("var/err")};
}

std::string ProgramTest::Line(const std::string& arguments, const LabNode* node) {
  return pnl_proc::Escape(BREFIR_BIN_DIR "/brefirctl") + " " + arguments +
         (node == nullptr ? "" : " --node " + node->Address() + " --key " + LabKey());
}

Finished ProgramTest::Run(const std::string& arguments, const LabNode* node) {
  return Shell(Line(arguments, node));
}

void ProgramTest::Check(const std::vector<Case>& cases, const LabNode* node) {
  for (const Case& c : cases) {
    const Finished run = Run(c.arguments, node);
    EXPECT_EQ(run.code, c.code) << c.arguments << "\n" << run.err;
    EXPECT_TRUE(Has(run.out, c.out)) << c.arguments << "\n" << run.out;
    EXPECT_TRUE(Has(run.err, c.err)) << c.arguments << "\n" << run.err;
  }
}

}  // namespace support
