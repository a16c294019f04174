// prefix: the directory that the panel works in.

#include "tools/commands/families.h"
#include "tools/commands/prefix/samples.h"

namespace tools {

Family PrefixFamily() {
  return {.name = "prefix",
          .summary = "The panel's directory (prefix).",
          .verbs = {PrefixInitVerb()},
          .files = {{"etc/brefir.conf", "settings"},
                    {"etc/nodes", "the inventory of the managed nodes"},
                    {"etc/ostemplates.conf", "repositories of templates and recipes"},
                    {"etc/frontd.conf", "the listen addresses of frontd, the panel's web server"},
                    {"etc/log.conf", "levels of the log"},
                    {"sbin/ost_install", "link to the installer of templates"},
                    {"sbin/pnlctl", "link to the panel's control utility"}},
          .see_also = {"brefir.conf(5)", "brefir-nodes(5)", "ostemplates.conf(5)", "ost_install(8)",
                       "pnlctl(8)"}};
}

}  // namespace tools
