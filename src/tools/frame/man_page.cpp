#include "tools/frame/man_page.h"

#include <algorithm>

#include "brefir/str_utils.h"
#include "pnl/err.h"

namespace tools {
namespace {

using namespace opts::man;
using opts::Args;
using opts::Note;
using Words = std::vector<std::string>;

// --- brefirctl

constexpr const char* kOutput = R"(Data goes to standard output; errors, progress and the log go to
standard error.
By default the output is a table for people. An empty list prints nothing, and a table shows only
the most important fields. Text that could harm a terminal is escaped. Times are local, with their
zone. Names and diffs are coloured on a terminal, unless
.B NO_COLOR
is set.
.PP
Programs use
.BR "\-o json" .
It prints a list as an array of objects, a single record as an object, and a text (a file, a diff)
as an object with one field.
Commands with
.B \-\-nodes
always print one array. Each record begins with the field
.BR node ;
the record of a node that failed has the reason as
.BR error .
Times are UTC, "2024\-05\-31T18:00:00Z".
The section FIELDS in the page of a family lists the fields of each command. Every record has all of
them, except fields with a condition in parentheses.
Sets are arrays of strings. Unknown values are null. Bytes that are not UTF\-8 become U+FFFD.
.B "\-o csv"
prints lists and records as in RFC 4180, but with a line feed as line end. It prints texts unchanged.
.PP
In JSON, an error is one object in one line on standard error, with the fields
.B type
and
.B object
(short words, the same in every release),
.B value
(the subject of the error) and
.B params
(further facts by name; a sentence for people is
.BR message ).
)";

constexpr const char* kFurtherStatus = R"(.TP
.B 3
the answer is no; with \-\-check: there would be a change
.TP
.B 130
interrupted; changes were undone where possible
)";

constexpr const char* kAnswers = R"(.PP
recipe lint returns 1 if the script has an error.
If a reader of the output exits early
.RB ( "brefirctl ... | head" ),
the exit code is 1, without a message. A command that made a change returns its own exit code.
)";

constexpr const char* kEnvironment = R"(.TP
.B BREFIR_PREFIX
the panel's directory, when \-\-prefix is not given
.TP
.B COLUMNS
the width of help and charts if standard output is not a terminal (default: 80)
.TP
.B NO_COLOR
if it is set and not empty, the output has no colours
.TP
.B SSH_AUTH_SOCK
the SSH agent; its keys are used when \-\-key is not given and the panel has no key of its own
.TP
.B TERM
if it is missing or "dumb", no progress is shown
)";

const std::vector<Note>& CommonFiles() {
  static const std::vector<Note> files = {
      {"etc/brefir.conf", "settings of the installation, below the panel's directory"},
      {"/etc/brefir.conf", "its line 'prefix = DIR' is the default of --prefix"},
      {"etc/log.conf", "levels of the log"},
      {"var/brefirctl.log", "the log"}};
  return files;
}

std::string ProgramPage(const Args& program) {
  std::string text;
  Words pages;
  for (const Args& family : program.Commands()) {
    Words verbs;
    for (const Args& verb : family.Commands()) verbs.push_back(verb.Name());
    const std::string list = verbs.empty() ? "" : " Verbs: " + str::Join(verbs, ", ") + ".";
    text += Entry(Typed(family.Name()), family.Summary() + list);
    pages.push_back(program.Name() + "-" + family.Name() + "(1)");
  }
  pages.insert(pages.end(), {"ost_install(8)", "pnlctl(8)", "brefir-nodes(5)", "brefir-recipe(5)",
                             "brefir.conf(5)", "ostemplates.conf(5)", "stat.counters(5)",
                             "templatemacros.values(5)"});
  return Heading(program.Name(), "1", program, opts::Synopsis({&program})) +
         Section("OPTIONS", Entries(program.Options())) + Section("FAMILIES", text) +
         Section("OUTPUT", kOutput) +
         Section("EXIT STATUS", std::string(kExitStatus) + kFurtherStatus + kAnswers) +
         Section("ENVIRONMENT", kEnvironment) + Section("FILES", Notes(CommonFiles())) +
         Section("EXAMPLES", Examples(program.Examples())) + Section("SEE ALSO", SeeAlso(pages));
}

// --- A family

/// Fields without a meaning of their own are listed with the field before them.
std::string FieldEntries(const std::vector<Field>& fields, std::size_t from) {
  std::string out;
  for (std::size_t i = from; i < fields.size();) {
    std::string names = fields[i].name;
    const Field& first = fields[i];
    for (++i; i < fields.size() && fields[i].meaning.empty(); ++i) names += ", " + fields[i].name;
    out += Entry("\\fB" + Roff(names) + "\\fP",
                 first.meaning + (first.when.empty() ? "" : " (" + first.when + ")"));
  }
  return out;
}

struct VerbFields {
  std::string verb;
  std::vector<Field> fields;
};

/// The verbs whose records have exactly these fields.
Words VerbsWith(const std::vector<Field>& fields, const std::vector<VerbFields>& all) {
  Words verbs;
  for (const VerbFields& of : all) {
    if (of.fields == fields) verbs.push_back(of.verb);
  }
  return verbs;
}

/// A verb before `last` that has some of its fields, the first ones; nullptr when there is none.
const VerbFields* BaseOf(const VerbFields& last, const std::vector<VerbFields>& all) {
  const auto is_base = [&](const VerbFields& other) {
    const std::size_t size = other.fields.size();
    return size > 2 && size < last.fields.size() &&
           std::equal(other.fields.begin(), other.fields.end(), last.fields.begin());
  };
  const auto found = std::find_if(all.begin(), all.end(), is_base);
  return found == all.end() || &*found >= &last ? nullptr : &*found;
}

/// Verbs with the same fields share their list; one that adds to another's says so.
std::string FieldsOf(const std::vector<Verb>& verbs) {
  std::vector<VerbFields> all;
  all.reserve(verbs.size());
  for (const Verb& verb : verbs) all.push_back({verb.name, AllFields(verb)});
  std::string out;
  for (const VerbFields& of : all) {
    if (of.fields.empty()) continue;
    const Words same = VerbsWith(of.fields, all);
    if (same.front() != of.verb) continue;
    if (!of.verb.empty()) out += ".SS " + Roff(str::Join(same, ", ")) + "\n";
    const VerbFields* base = BaseOf(of, all);
    if (base != nullptr) out += "The fields of " + Roff(base->verb) + ", and\n";
    out += FieldEntries(of.fields, base == nullptr ? 0 : base->fields.size());
  }
  if (out.empty()) return out;
  return "The output of\n.BR \"\\-o json\" ;\nfor its form see\n.BR brefirctl (1).\n" + out;
}

std::string FamilyPage(const Family& family, const Args& program, const Args& args) {
  std::string verbs;
  Words examples = args.Commands().empty() ? args.Examples() : Words();
  for (const Args& verb : args.Commands()) {
    verbs += ".SS " + Roff(verb.Name()) + "\n" + Typed(opts::Synopsis({&program, &args, &verb})) +
             "\n.PP\n" + Roff(verb.Summary()) + "\n" + Paragraphs(verb.Details()) +
             Entries(verb.Positionals()) + Entries(verb.Options());
    examples.insert(examples.end(), verb.Examples().begin(), verb.Examples().end());
  }
  Words pages = {program.Name() + "(1)"};
  pages.insert(pages.end(), family.see_also.begin(), family.see_also.end());
  std::vector<Note> files = family.files;
  files.insert(files.end(), CommonFiles().begin(), CommonFiles().end());
  const std::string name = program.Name() + "-" + family.name;
  return Heading(name, "1", args, opts::Synopsis({&program, &args})) + Section("COMMANDS", verbs) +
         Section(args.Commands().empty() ? "OPTIONS" : "OPTIONS OF ALL COMMANDS",
                 Entries(args.Options())) +
         Section("COMMON OPTIONS", Entries(opts::OuterOptions({&program, &args}))) +
         Section("FIELDS", FieldsOf(family.verbs)) +
         Section("EXIT STATUS", std::string(kExitStatus) + kFurtherStatus) +
         Section("FILES", Notes(files)) + Section("EXAMPLES", Examples(examples)) +
         Section("SEE ALSO", SeeAlso(pages));
}

}  // namespace

std::string ManPage(const std::vector<Family>& families, const Args& program,
                    const std::string& family) {
  if (family.empty()) return ProgramPage(program);
  const auto found = std::find_if(families.begin(), families.end(),
                                  [&](const Family& one) { return one.name == family; });
  if (found != families.end()) return FamilyPage(*found, program, *program.FindCommand(family));
  throw UsageError(family, "",
                   "there is no man page for '" + family + "'; '" + program.Name() +
                       " --help' lists the families");
}

}  // namespace tools
