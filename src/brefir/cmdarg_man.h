#pragma once

#include <list>
#include <string>
#include <vector>

#include "brefir/cmdarg.h"

/// Man pages (man(7) macros) of programs, rendered from what parses their command lines.
///
///     opts::Args args("nodectl", "Looks after a node.");
///     args.Option("man").Help("print the man page").Last();
///     ... more options ...
///     if (args.Parse(argc, argv).EndedBy() == "man")
///       puts(opts::ManPage(args, {.see_also = {"ssh(1)"}}).c_str());
///
/// All functions are pure. Texts are taken as they stand, whatever groff would make of them.
namespace opts {

/// A line of a man page that is not about the command line.
struct Note {
  std::string name;
  std::string meaning;
};

/// What a page has beside the command line.
struct ManNotes {
  std::vector<Note> files = {};
  std::vector<std::string> see_also = {};  ///< "ssh(1)"
};

/// NAME(8) of a program without sub-commands.
[[nodiscard]] BREFIR_API std::string ManPage(const Args& program, const ManNotes& notes);

/// The pieces of a page, for programs whose pages have sections of their own. What begins a
/// section or an entry stands in lines of its own.
namespace man {

/// Text that groff prints as it stands: backslashes and dashes escaped, no line taken for a
/// request.
[[nodiscard]] BREFIR_API std::string Roff(std::string_view text);
/// A piece of a command line: what is typed as it is in bold, what stands for something (all its
/// letters are capitals) in italics.
[[nodiscard]] BREFIR_API std::string Typed(std::string text);
/// Lines of `text` as paragraphs; those that begin with a blank are examples and stay as they are.
[[nodiscard]] BREFIR_API std::string Paragraphs(std::string text);
/// `term`, which is roff already, with `text` indented below it.
[[nodiscard]] BREFIR_API std::string Entry(const std::string& term, const std::string& text);
/// The options or words that are not hidden, as entries.
[[nodiscard]] BREFIR_API std::string Entries(const std::list<Arg>& args);
[[nodiscard]] BREFIR_API std::string Entries(const std::vector<const ArgInfo*>& infos);
[[nodiscard]] BREFIR_API std::string Notes(const std::vector<Note>& notes);
/// Whole command lines, as they are typed.
[[nodiscard]] BREFIR_API std::string Examples(const std::vector<std::string>& calls);
/// References to other pages, "ssh(1)" each.
[[nodiscard]] BREFIR_API std::string SeeAlso(const std::vector<std::string>& pages);

/// A section, which is left out when its body is empty.
[[nodiscard]] BREFIR_API std::string Section(const std::string& title, const std::string& body);
/// The page's beginning: NAME, SYNOPSIS, and DESCRIPTION, which is what the help of `args` says.
[[nodiscard]] BREFIR_API std::string Heading(const std::string& name, const std::string& section,
                                             const Args& args, const std::string& synopsis);

/// The exit codes that all programs have.
inline constexpr const char* kExitStatus = R"(.TP
.B 0
done
.TP
.B 1
failed, also when only a part failed
.TP
.B 2
wrong command line; nothing was done
)";

}  // namespace man
}  // namespace opts
