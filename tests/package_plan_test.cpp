// What package managers print, as plans.

#include "fleet/package_plan.h"

#include <gtest/gtest.h>

namespace {

using fleet::PackageAnswer;
using fleet::PackageFamily;
using fleet::PackageRequest;
using Action = PackageRequest::Action;

struct Case {
  const char* name;
  PackageRequest request;
  const char* installed;
  int code;
  const char* plan;
  const char* available;
  const char* moves;     ///< or the beginning of the refusal
  const char* expected;  ///< a part of the command, or of no_undo after "!"
};

std::string Told(const fleet::PackagePlan& plan) {
  std::string words;
  for (const auto& [name, move] : plan.moves)
    words += name + ":" + move.before + ">" + move.after + " ";
  return plan.refusal.empty() ? words : (plan.is_absent ? "absent " : "refused ") + plan.refusal;
}

void Check(const PackageAnswer& system, const Case& c) {
  SCOPED_TRACE(c.name);
  PackageAnswer answer = system;
  answer.installed = fleet::ReadPackages(c.installed);
  answer.code = c.code;
  answer.plan = c.plan;
  answer.available = c.available;
  const fleet::PackagePlan plan = fleet::ReadPackagePlan(c.request, answer);
  EXPECT_EQ(Told(plan).substr(0, std::string(c.moves).size()), c.moves) << Told(plan);
  const std::string expected = c.expected;
  if (expected.starts_with('!'))
    EXPECT_EQ(plan.no_undo, expected.substr(1));
  else
    EXPECT_NE(plan.command.find(expected), std::string::npos) << plan.command;
}

TEST(PackagePlanTest, Debian) {
  const PackageAnswer debian{.family = PackageFamily::kDebian,
                             .machine = "x86_64",
                             .manager = "apt-get",
                             .automatic = "libssl3\n"};
  const Case cases[] = {
      {"dependencies are not asked for, foreign ones are named so",
       {Action::kInstall, {"wine"}},
       "libssl3 3.0.9-1\nlibc6 2.36-9\n",
       0,
       "The following NEW packages will be installed:\n  libc6:i386 wine\n"
       "Inst libssl3 [3.0.9-1] (3.0.11-1~deb12u2 Debian:12.5/stable [amd64]) []\n"
       "Inst libc6:i386 (2.36-9 Debian:12.5/stable [i386]) [gcc-12-base:i386 ]\n"
       "Inst wine (1:8.0~repack-4 Debian:12.5/stable [all])\nConf wine (1:8.0 Debian [all])\n",
       "   libssl3 | 3.0.11-1~deb12u2 | http://deb.debian.org/debian bookworm/main amd64 "
       "Packages\n",
       "libc6:i386:>2.36-9 libssl3:3.0.9-1>3.0.11-1~deb12u2 wine:>1:8.0~repack-4 ",
       "--no-remove install libssl3=3.0.11-1~deb12u2 libc6:i386=2.36-9 wine=1:8.0~repack-4 && "
       "apt-mark auto libssl3 libc6:i386 "},
      {"old versions that are nowhere any more",
       {Action::kUpdateAll, {}},
       "a 1\nb 2:1\nc 1\nd 1\ne 1\n",
       0,
       "Inst a [1] (2 X [all])\nInst b [2:1] (2:2 X [all])\nInst c [1] (2 X [all])\n"
       "Inst d [1] (2 X [all])\nInst e [1] (2 X [all])\n",
       " a | 2 | http://x/ ./ Packages\nb_2%3a1_all.deb\n",
       "a:1>2 b:2:1>2:2 ",
       "!a 1, c 1, d 1 and 1 more are in no repository any more"},
      {"removed, with another one in its place",
       {Action::kRemove, {"exim4"}},
       "exim4 4.96\npostfix config\n",
       0,
       "Remv exim4 [4.96] [bsd-mailx:amd64 ]\nInst postfix (3.7.6 Debian:12.5/stable [amd64])\n",
       " exim4 | 4.96 | http://x/ ./ Packages\n",
       "exim4:4.96> postfix:config>3.7.6 ",
       "-o Dpkg::Options::=--force-confold install postfix=3.7.6 exim4- && apt-mark auto postfix"},
      {"unknown",
       {Action::kInstall, {"no", "none"}},
       "a 1\n",
       100,
       "Reading package lists...\nE: Unable to locate package no\nE: Unable to locate package "
       "none\n",
       "",
       "absent there are no packages 'no', 'none': check the name",
       ""},
      {"no such version",
       {Action::kInstall, {"a=3"}},
       "a 1\n",
       100,
       "E: Version '3' for 'a' was not found\n",
       "",
       "absent there is no package 'a=3': ",
       ""},
      {"needs a removal",
       {Action::kInstall, {"b"}},
       "a 1\n",
       100,
       "Remv a [1]\nE: Packages need to be removed but remove is disabled.\n",
       "",
       "refused E: Packages need to be removed but remove is disabled.",
       ""},
      {"no name of a package",
       {Action::kInstall, {"b"}},
       "a 1\n",
       0,
       "Inst b (1 X [all])\nInst c;reboot (1 X [all])\n",
       "",
       "refused its package manager names 'c;reboot=1'",
       ""},
      {"not installed",
       {Action::kUpdate, {"b"}},
       "b config\n",
       0,
       "",
       "",
       "absent package 'b' is not installed",
       ""},
      {"so already",
       {Action::kInstall, {"a"}},
       "a 1\n",
       0,
       "a is already the newest version (1).\n",
       "",
       "",
       ""},
  };
  for (const Case& c : cases) Check(debian, c);
}

TEST(PackagePlanTest, RedHat) {
  const PackageAnswer centos{
      .family = PackageFamily::kRedHat, .machine = "x86_64", .manager = "yum"};
  const std::string head =
      "Loaded plugins: fastestmirror\nResolving Dependencies\n\nDependencies Resolved\n\n=====\n"
      " Package        Arch     Version        Repository   Size\n=====\n";
  const std::string end = "\nTransaction Summary\n=====\nExiting on user command\n";
  const std::string kernels = head +
                              "Installing:\n kernel  x86_64  3.10.0-3.el7  updates  50 M\n"
                              "Updating:\n perl-HTTP-Daemon-A-Name-That-Is-Long\n        noarch   "
                              "4:6.01-8.el7   base   21 k\n"
                              "Removing:\n kernel  x86_64  3.10.0-1.el7  @updates  50 M\n" +
                              end;
  const std::string needs =
      head +
      "Installing:\n httpd  x86_64  2.4.6-99.el7  updates  2.7 M\n"
      "Installing for dependencies:\n glibc  i686  2.17-326.el7_9  updates  4.3 M\n"
      " mailcap  noarch  2.1.41-2.el7  base  31 k\n" +
      end;
  const std::string partly = "No package none available.\n" + needs;
  const std::string replaced = head +
                               "Installing:\n new  x86_64  2-1  base  1 k\n"
                               "     replacing  old.x86_64 1:1-1\n" +
                               end;
  const std::string lost = head +
                           "Installing:\n a  x86_64  2-1  base  1 k\n"
                           "Removing dependent packages:\n b  x86_64  1-1  @base  1 k\n" +
                           end;
  const std::string newer =
      "Updating and loading repositories:\nRepositories loaded.\n"
      "Package Arch   Version Repository Size\nUpgrading:\n a     noarch 0:2-1   lab   4.0 B\n"
      "   replacing a noarch 0:1-1 lab 4.0 B\n\nTransaction Summary:\n Upgrading: 1 package\n";
  const std::string downgrade = head + "Downgrading:\n a  noarch  1-1  base  1 k\n" + end;
  const Case cases[] = {
      {"rows of two lines, kernels beside each other",
       {Action::kUpdateAll, {}},
       "kernel 3.10.0-1.el7.x86_64/3.10.0-2.el7.x86_64\n"
       "perl-HTTP-Daemon-A-Name-That-Is-Long 4:6.01-7.el7.noarch\n",
       1,
       kernels.c_str(),
       "Available Packages\nkernel.x86_64 3.10.0-1.el7 updates\n",
       "kernel:3.10.0-1.el7.x86_64/3.10.0-2.el7.x86_64>3.10.0-2.el7.x86_64/3.10.0-3.el7.x86_64 "
       "perl-HTTP-Daemon-A-Name-That-Is-Long:4:6.01-7.el7.noarch>4:6.01-8.el7.noarch ",
       "!perl-HTTP-Daemon-A-Name-That-Is-Long 4:6.01-7.el7.noarch is in no repository any more"},
      {"dependencies",
       {Action::kInstall, {"httpd"}},
       "glibc 2.17-326.el7_9.x86_64\n",
       1,
       needs.c_str(),
       "",
       "glibc.i686:>2.17-326.el7_9.i686 httpd:>2.4.6-99.el7.x86_64 mailcap:>2.1.41-2.el7.noarch ",
       "install httpd-2.4.6-99.el7.x86_64 glibc-2.17-326.el7_9.i686 mailcap-2.1.41-2.el7.noarch "
       "&& "},
      {"one takes the place of another",
       {Action::kUpdateAll, {}},
       "old 1:1-1.x86_64\n",
       1,
       replaced.c_str(),
       "Available Packages\nold.x86_64 1:1-1 base\n",
       "new:>2-1.x86_64 old:1:1-1.x86_64> ",
       "clean_requirements_on_remove=0 update"},
      {"one would go",
       {Action::kInstall, {"a"}},
       "b 1-1.x86_64\n",
       1,
       lost.c_str(),
       "",
       "refused it would remove 'b'",
       ""},
      {"the table of newer ones",
       {Action::kUpdate, {"a"}},
       "a 1-1.noarch\n",
       1,
       newer.c_str(),
       "Available packages\na.noarch 0:1-1 lab\n",
       "a:1-1.noarch>2-1.noarch ",
       "update a-2-1.noarch"},
      {"an older version",
       {Action::kInstall, {"a=1"}},
       "a 2-1.noarch\n",
       1,
       downgrade.c_str(),
       "",
       "a:2-1.noarch>1-1.noarch ",
       "downgrade a-1-1.noarch"},
      {"another version stays",
       {Action::kInstall, {"a=1"}},
       "a 2-1.noarch\n",
       0,
       "Package matching a-1-1.noarch already installed. Checking for update.\nNothing to do\n",
       "",
       "refused package 'a' would be at version '2-1.noarch', not at '1'",
       ""},
      {"unknown, though others are known",
       {Action::kInstall, {"httpd", "none"}},
       "a 1-1.noarch\n",
       1,
       partly.c_str(),
       "",
       "absent there is no package 'none'",
       ""},
      {"unknown to dnf",
       {Action::kInstall, {"no", "none"}},
       "a 1-1.noarch\n",
       1,
       "No match for argument: no\nNo match for argument: none\n"
       "Error: Unable to find a match: no none\n",
       "",
       "absent there are no packages 'no', 'none'",
       ""},
      {"dependency missing",
       {Action::kInstall, {"a"}},
       "b 1-1.noarch\n",
       1,
       "Resolving\nError: Package: a-1-1.noarch (lab)\n           Requires: nowhere\n",
       "",
       "refused Error: Package: a-1-1.noarch (lab) Requires: nowhere",
       ""},
      {"so already", {Action::kInstall, {"a"}}, "a 1-1.noarch\n", 0, "Nothing to do\n", "", "", ""},
  };
  for (const Case& c : cases) Check(centos, c);
}

}  // namespace
