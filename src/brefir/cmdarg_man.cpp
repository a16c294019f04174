#include "brefir/cmdarg_man.h"

#include <algorithm>

#include "pnl/str.h"

namespace opts {
namespace {

/// Whether the word is a placeholder: all its letters are capitals.
bool IsPlaceholder(std::string_view word) {
  const auto has = [&](char from, char to) {
    return std::any_of(word.begin(), word.end(), [&](char c) { return c >= from && c <= to; });
  };
  return has('A', 'Z') && !has('a', 'z');
}

}  // namespace

namespace man {
namespace {

std::string EntryOf(const ArgInfo& info) {
  return info.hidden ? "" : Entry(Typed(Label(info)), Describe(info));
}

}  // namespace

std::string Roff(std::string_view text) {
  const std::string out =
      str::Replace(text, {{"\\", "\\e"}, {"-", "\\-"}, {"\n.", "\n\\&."}, {"\n'", "\n\\&'"}});
  return out.starts_with(".") || out.starts_with("'") ? "\\&" + out : out;
}

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

std::string Paragraphs(std::string text) {
  std::string out;
  while (!text.empty()) {
    const std::string line = str::GetWord(text, '\n');
    out +=
        line.starts_with(" ") ? ".PP\n.EX\n" + Roff(line) + "\n.EE\n" : ".PP\n" + Roff(line) + "\n";
  }
  return out;
}

std::string Examples(const std::vector<std::string>& calls) {
  std::string out;
  for (const std::string& call : calls) out += Roff(call) + "\n";
  return out.empty() ? "" : ".RS 4\n.EX\n" + out + ".EE\n.RE\n";
}

std::string Section(const std::string& title, const std::string& body) {
  return body.empty() ? "" : ".SH " + title + "\n" + body;
}

std::string Heading(const std::string& name, const std::string& section, const Args& args,
                    const std::string& synopsis) {
  std::string summary = args.Summary();
  while (summary.ends_with('.')) summary.pop_back();
  summary.replace(0, 1, str::Lower(summary.substr(0, 1)));
  // The date stays empty, so that the page does not change from day to day.
  return ".TH " + str::Upper(name) + " " + section + " \"\" \"brefir\" \"brefir manual\"\n" +
         // Command lines must not be wrapped or changed: people copy them.
         ".nr HY 0\n.nh\n.ad l\n" + Section("NAME", Roff(name) + " \\- " + Roff(summary) + "\n") +
         Section("SYNOPSIS", Typed(synopsis) + "\n") +
         Section("DESCRIPTION", Roff(args.Summary()) + "\n" + Paragraphs(args.Details()));
}

std::string Entries(const std::list<Arg>& args) {
  std::string out;
  for (const Arg& arg : args) out += EntryOf(arg.Info());
  return out;
}

std::string Entries(const std::vector<const ArgInfo*>& infos) {
  std::string out;
  for (const ArgInfo* info : infos) out += EntryOf(*info);
  return out;
}

std::string Notes(const std::vector<Note>& notes) {
  std::string out;
  for (const Note& note : notes) out += Entry("\\fI" + Roff(note.name) + "\\fP", note.meaning);
  return out;
}

std::string SeeAlso(const std::vector<std::string>& pages) {
  std::string out;
  for (const std::string& page : pages) {
    std::string section = page;
    const std::string name = str::GetWord(section, '(');
    out += (out.empty() ? ".BR " : ",\n.BR ") + Roff(name) + " (" + section;
  }
  return out.empty() ? "" : out + "\n";
}

}  // namespace man

std::string ManPage(const Args& program, const ManNotes& notes) {
  return man::Heading(program.Name(), "8", program, Synopsis({&program})) +
         man::Section("OPTIONS",
                      man::Entries(program.Positionals()) + man::Entries(program.Options())) +
         man::Section("EXIT STATUS", man::kExitStatus) +
         man::Section("FILES", man::Notes(notes.files)) +
         man::Section("EXAMPLES", man::Examples(program.Examples())) +
         man::Section("SEE ALSO", man::SeeAlso(notes.see_also));
}

}  // namespace opts
