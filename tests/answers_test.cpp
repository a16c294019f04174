// What is made of the answers of nodes, as they were recorded.

#include <gtest/gtest.h>

#include "brefir/ssh_utils.h"
#include "fleet/package_answer.h"

namespace {

namespace os_info = ssh_utils::os_info;

TEST(Answers, OperatingSystems) {
  const struct {
    StringMap files;
    int type;
    const char* version;
  } cases[] = {
      {{{"/etc/redhat-release", "AlmaLinux release 9.3 (Shamrock Pampas Cat)\n"}},
       0x20101,
       "9.3.1"},
      {{{"/etc/redhat-release", "CentOS release 5.11 (Final)\n"}}, 0x20103, "9.3.1"},
      {{{"/etc/debian_version", "13.1\n"}}, 0x20201, "13.1"},
      {{{"/etc/debian_version", "trixie/sid\n"}, {"/etc/issue", "Debian GNU/Linux 13 \\n \\l\n"}},
       0x20201,
       "13"},
      {{{"/etc/debian_version", "bookworm/sid\n"},
        {"/etc/issue", "Linux Mint 21.3 Virginia \\n \\l\n"},
        {"/etc/lsb-release", "DISTRIB_ID=LinuxMint\nDISTRIB_RELEASE=21.3\n"}},
       0x20201,
       "21.3"},
      {{{"/etc/gentoo-release", "Gentoo Base System release 2.14\n"}}, 0x20001, ""},
      {{{"/etc/alpine-release", "3.19.1\n"}}, 0, ""},
  };
  for (const auto& c : cases) {
    const os_info::release::Answers answers{
        .exists = [&](const std::string& path) { return c.files.contains(path); },
        .read = [&](const std::string& path) { return c.files.at(path); },
        .rpm_release = [] { return "9.3.1"; }};
    const os_info::OsType type = os_info::release::Type(answers);
    EXPECT_EQ(type, c.type) << c.files.begin()->second;
    EXPECT_EQ(os_info::release::Version(type, answers), c.version) << c.files.begin()->second;
  }
}

TEST(Answers, FailuresOfPackageManagers) {
  const std::pair<const char*, const char*> cases[] = {
      {"Reading package lists...\nBuilding dependency tree...\nE: Unable to locate package x\n",
       "E: Unable to locate package x"},
      {"Loaded plugins: fastestmirror\nNo package x available.\nError: Nothing to do\n",
       "Error: Nothing to do"},
      {"Selecting previously unselected package x.\ndpkg: error processing archive x.deb "
       "(--unpack):\n"
       " cannot copy: No space left on device\nE: Sub-process /usr/bin/dpkg returned an error code "
       "(1)",
       "dpkg: error processing archive x.deb (--unpack): cannot copy: No space left on device E: "
       "Sub-process /usr/bin/dpkg returned an error code (1)"},
      {"No match for argument: x\nError: Unable to find a match: x\n",
       "No match for argument: x Error: Unable to find a match: x"},
      {"error: Failed dependencies:\n\ty is needed by x-1-1.noarch\n",
       "error: Failed dependencies: y is needed by x-1-1.noarch"},
      {"Complete!\n", ""},
  };
  for (const auto& [output, reason] : cases) EXPECT_EQ(fleet::FailureOf(output), reason);
}

}  // namespace
