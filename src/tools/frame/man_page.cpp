#include "tools/frame/man_page.h"

#include <algorithm>

#include "brefir/str_utils.h"
#include "pnl/err.h"
#include "pnl/str.h"

namespace tools {
namespace {

using opts::Args;
using Words = std::vector<std::string>;

// --- Text

/// Text that groff prints as it stands: backslashes and dashes escaped, no line taken for a
/// request.
std::string Roff(std::string_view text) {
  const std::string out =
      str::Replace(text, {{"\\", "\\e"}, {"-", "\\-"}, {"\n.", "\n\\&."}, {"\n'", "\n\\&'"}});
  return out.starts_with(".") || out.starts_with("'") ? "\\&" + out : out;
}

/// Whether the word stands for others: all its letters are capitals.
bool IsPlaceholder(std::string_view word) {
  const auto has = [&](char from, char to) {
    return std::any_of(word.begin(), word.end(), [&](char c) { return c >= from && c <= to; });
  };
  return has('A', 'Z') && !has('a', 'z');
}

/// A piece of a command line: what is typed as it is in bold, what stands for something in italics.
std::string Typed(std::string text) {
  std::string out;
  while (!text.empty()) {
    const std::string word = str::GetWord(text);
    const char* font = IsPlaceholder(word) ? "\\fI" : "\\fB";
    out = str::Append(out, font + Roff(word) + "\\fP", " ");
  }
  return out;
}

std::string Entry(const std::string& term, const std::string& text) {
  return ".TP\n" + term + "\n" + Roff(text) + "\n";
}

/// Lines that begin with a blank are examples and stay as they are.
std::string Paragraphs(std::string text) {
  std::string out;
  while (!text.empty()) {
    const std::string line = str::GetWord(text, '\n');
    out +=
        line.starts_with(" ") ? ".PP\n.EX\n" + Roff(line) + "\n.EE\n" : ".PP\n" + Roff(line) + "\n";
  }
  return out;
}

std::string Examples(const Words& calls) {
  std::string out;
  for (const std::string& call : calls) out += Roff(call) + "\n";
  return out.empty() ? "" : ".RS 4\n.EX\n" + out + ".EE\n.RE\n";
}

std::string Section(const std::string& title, const std::string& body) {
  return body.empty() ? "" : ".SH " + title + "\n" + body;
}

// --- Sections

std::string Heading(const std::string& name, const std::string& section, const Args& args,
                    const std::string& synopsis) {
  std::string summary = args.Summary();
  while (summary.ends_with('.')) summary.pop_back();
  summary.replace(0, 1, str::Lower(summary.substr(0, 1)));
  // The date stays empty: the page changes with the program, not with the day it is printed.
  return ".TH " + str::Upper(name) + " " + section + " \"\" \"brefir\" \"brefir manual\"\n" +
         // Command lines are to be read, and copied, as they are.
         ".nr HY 0\n.nh\n.ad l\n" + Section("NAME", Roff(name) + " \\- " + Roff(summary) + "\n") +
         Section("SYNOPSIS", Typed(synopsis) + "\n") +
         Section("DESCRIPTION", Roff(args.Summary()) + "\n" + Paragraphs(args.Details()));
}

std::string EntryOf(const opts::ArgInfo& info) {
  return info.hidden ? "" : Entry(Typed(opts::Label(info)), opts::Describe(info));
}

std::string Entries(const std::list<opts::Arg>& args) {
  std::string out;
  for (const opts::Arg& arg : args) out += EntryOf(arg.Info());
  return out;
}

std::string Entries(const std::vector<const opts::ArgInfo*>& infos) {
  std::string out;
  for (const opts::ArgInfo* info : infos) out += EntryOf(*info);
  return out;
}

std::string Notes(const std::vector<Note>& notes) {
  std::string out;
  for (const Note& note : notes) out += Entry("\\fI" + Roff(note.name) + "\\fP", note.meaning);
  return out;
}

/// "brefirctl(1)" as groff sets references.
std::string SeeAlso(const Words& pages) {
  std::string out;
  for (const std::string& page : pages) {
    std::string section = page;
    const std::string name = str::GetWord(section, '(');
    out += (out.empty() ? ".BR " : ",\n.BR ") + Roff(name) + " (" + section;
  }
  return out.empty() ? "" : out + "\n";
}

constexpr const char* kExitStatus = R"(.TP
.B 0
done
.TP
.B 1
failed, also when only a part failed
.TP
.B 2
wrong command line; nothing was done
)";

// --- brefirctl

constexpr const char* kOutput = R"(Data goes to standard output; errors, progress and the log go to
standard error.
Tables are for people: without records there is no table, and the columns are not all there is.
Text that could harm a terminal is escaped there.
Nothing is coloured.
.PP
Programs use
.BR "\-o json" :
a table is an array of objects, a single record an object, a text (a file, a diff) an object with
one field.
The fields of each command are listed under FIELDS in the page of its family; every record has all
of them, but for those that come in some cases only, told in parentheses.
Sets are arrays of strings, what is not known is null, and bytes that are no UTF\-8 become U+FFFD.
An error is one object in one line on standard error, with the fields
.B type
and
.B object
(short words, the same in every release),
.B value
(what it was about) and
.B params
(further facts by name; a sentence for people is
.BR message ).
)";

constexpr const char* kNoStatus = R"(.TP
.B 3
the answer is no (node exists, package installed, frontd listening)
)";

constexpr const char* kAnswers = R"(.PP
recipe lint ends with 1 when there is an error.
A reader that goes away early
.RB ( "brefirctl ... | head" )
makes it 1 without a message.
)";

constexpr const char* kEnvironment = R"(.TP
.B BREFIR_PREFIX
the panel's directory, when \-\-prefix is not given
.TP
.B COLUMNS
the width of help and charts, when standard output is no terminal; else 80
.TP
.B SSH_AUTH_SOCK
the agent that offers keys to nodes, when \-\-key is not given and the panel has no key of its own
.TP
.B TERM
without it, or when it is dumb, no progress is drawn
)";

const std::vector<Note>& CommonFiles() {
  static const std::vector<Note> files = {
      {"etc/brefir.conf", "settings of the installation, below the panel's directory"},
      {"/etc/brefir.conf", "its line 'prefix = DIR' names the panel's directory by default"},
      {"etc/log.conf", "what goes to the log"},
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
  pages.insert(pages.end(),
               {"ost_install(8)", "pnlctl(8)", "brefir-recipe(5)", "brefir.conf(5)",
                "ostemplates.conf(5)", "stat.counters(5)", "templatemacros.values(5)"});
  return Heading(program.Name(), "1", program, opts::Synopsis({&program})) +
         Section("OPTIONS", Entries(program.Options())) + Section("FAMILIES", text) +
         Section("OUTPUT", kOutput) +
         Section("EXIT STATUS", std::string(kExitStatus) + kNoStatus + kAnswers) +
         Section("ENVIRONMENT", kEnvironment) + Section("FILES", Notes(CommonFiles())) +
         Section("EXAMPLES", Examples(program.Examples())) + Section("SEE ALSO", SeeAlso(pages));
}

// --- A family

/// Fields that have no meaning of their own stand with the one before them.
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

/// The verbs whose records have just these fields.
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
  for (const Verb& verb : verbs) all.push_back({verb.name, AllFields(verb)});
  std::string out;
  for (const VerbFields& of : all) {
    if (of.fields.empty()) continue;
    const Words same = VerbsWith(of.fields, all);
    if (same.front() != of.verb) continue;
    out += ".SS " + Roff(str::Join(same, ", ")) + "\n";
    const VerbFields* base = BaseOf(of, all);
    if (base != nullptr) out += "Those of " + Roff(base->verb) + ", and\n";
    out += FieldEntries(of.fields, base == nullptr ? 0 : base->fields.size());
  }
  if (out.empty()) return out;
  return "What\n.B \\-o json\nprints; OUTPUT in\n.BR brefirctl (1)\ntells its form.\n" + out;
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
         Section("EXIT STATUS", std::string(kExitStatus) + kNoStatus) +
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
  throw pnl_err::Error("usage", family)
      .add_param("message", "there is no man page of '" + family + "'; '" + program.Name() +
                                " --help' lists the families");
}

std::string ManPage(const Args& program, const ManNotes& notes) {
  return Heading(program.Name(), "8", program, opts::Synopsis({&program})) +
         Section("OPTIONS", Entries(program.Positionals()) + Entries(program.Options())) +
         Section("EXIT STATUS", kExitStatus) + Section("FILES", Notes(notes.files)) +
         Section("EXAMPLES", Examples(program.Examples())) +
         Section("SEE ALSO", SeeAlso(notes.see_also));
}

}  // namespace tools
