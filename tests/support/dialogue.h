#pragma once

#include <gtest/gtest.h>

#include <string>

namespace support {

/// Tests a command, on this host or a node, that answers each line with "<LINE>".
constexpr const char* kAnswering = "while read line; do echo \"<$line>\"; done";

template <class Command>
void ExpectDialogue(Command&& command) {
  std::string answer;
  for (const char* line : {"one", "two"}) {
    command.In() << line << '\n';  // not flushed: reading the answer sends it
    std::getline(command.Out(), answer);
    EXPECT_EQ(answer, "<" + std::string(line) + ">");
  }
  command.In() << "three\nfour\n";
  command.CloseIn();
  std::getline(command.Out(), answer);
  EXPECT_EQ(command.Str(), "<four>\n");
}

}  // namespace support
