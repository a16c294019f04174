#pragma once

#include <list>
#include <string>
#include <vector>

#include "brefir/cmdarg.h"

/// Man pages (man(7) macros) of programs, made from the registration of their command lines.
///
///     opts::Args args("nodectl", "Looks after a node.");
///     args.Option("man").Help("print the man page").Last();
///     ... more options ...
///     if (args.Parse(argc, argv).EndedBy() == "man")
///       puts(opts::ManPage(args, {.see_also = {"ssh(1)"}}).c_str());
///
/// All functions are pure. Texts are escaped: nothing in them is a command for groff.
namespace opts {

/// An entry of a man page that is not about the command line.
struct Note {
  std::string name;
  std::string meaning;
};

/// The parts of a page that are not about the command line.
struct ManNotes {
  std::vector<Note> files = {};
  std::vector<std::string> see_also = {};  ///< "ssh(1)"
};

/// NAME(8) of a program without sub-commands.
[[nodiscard]] BREFIR_API std::string ManPage(const Args& program, const ManNotes& notes);

/// The parts of a page, for programs whose pages have sections of their own.
namespace man {

/// `text` escaped for groff, which then prints it unchanged.
[[nodiscard]] BREFIR_API std::string Roff(std::string_view text);
/// A part of a command line: placeholders (words in capitals) in italics, all else in bold.
[[nodiscard]] BREFIR_API std::string Typed(std::string text);
/// The lines of `text` as paragraphs; lines that begin with a blank are examples and are not
/// wrapped.
[[nodiscard]] BREFIR_API std::string Paragraphs(std::string text);
/// `term`, which must be roff already, with `text` indented below it.
[[nodiscard]] BREFIR_API std::string Entry(const std::string& term, const std::string& text);
/// The options or words that are not hidden, as entries.
[[nodiscard]] BREFIR_API std::string Entries(const std::list<Arg>& args);
[[nodiscard]] BREFIR_API std::string Entries(const std::vector<const ArgInfo*>& infos);
[[nodiscard]] BREFIR_API std::string Notes(const std::vector<Note>& notes);
/// `calls` are whole command lines.
[[nodiscard]] BREFIR_API std::string Examples(const std::vector<std::string>& calls);
/// References to other `pages`, such as "ssh(1)".
[[nodiscard]] BREFIR_API std::string SeeAlso(const std::vector<std::string>& pages);

/// A section, which is left out when its body is empty.
[[nodiscard]] BREFIR_API std::string Section(const std::string& title, const std::string& body);
/// The beginning of the page: NAME, SYNOPSIS, and DESCRIPTION with the text of the help of `args`.
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
