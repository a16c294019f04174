#pragma once

#include <string>
#include <vector>

#include "support/lab.h"

namespace support {

/// How a command ended, and what it said.
struct Finished {
  int code;
  std::string out;
  std::string err;
};

/// What a command line of brefirctl should do.
struct Case {
  std::string arguments;  ///< shell words behind "brefirctl"
  int code;
  std::string out;  ///< a part of what it prints; "": nothing
  std::string err;
};

/// Whether `text` contains `part`; "" matches only the empty text.
bool Has(const std::string& text, const std::string& part);

/// The base of cases for brefirctl. They run on a private panel host; the working directory is a
/// panel's prefix, /srv/panel, with etc and var.
class ProgramTest : public LabTest {
 protected:
  void SetUp() override;

  /// Runs a shell command with its output in var/out and var/err.
  static Finished Shell(const std::string& command);
  /// The shell command of brefirctl; `node` adds --node and --key, null nothing.
  static std::string Line(const std::string& arguments, const LabNode* node = nullptr);
  static Finished Run(const std::string& arguments, const LabNode* node = nullptr);
  static void Check(const std::vector<Case>& cases, const LabNode* node = nullptr);
};

}  // namespace support
