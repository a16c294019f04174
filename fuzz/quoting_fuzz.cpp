// Quoting of words for a shell: one /bin/sh runs all the time and prints the words that it gets.

#include <cstdio>
#include <string>

#include "check.h"
#include "pnl/proc.h"
#include "pnl/str.h"

namespace {

constexpr int kTimeout = 15;              // seconds, for the words of one input
constexpr std::size_t kWord = 16;         // bytes of a piece of an input
constexpr const char* kEnd = "\n.end\n";  // after each answer, so that surplus output is noticed

std::size_t words = 0;

/// Joins the statistics that libFuzzer prints.
void PrintWords() {
  std::fprintf(stderr, "stat::words: %zu\n", words);
}

pnl_proc::Execute& Shell() {
  static pnl_proc::Execute shell("exec /bin/sh", pnl_proc::kMergeStderr);
  return shell;
}

/// What the words are quoted to, and what the shell is to answer.
struct Question {
  std::string command = "printf '%s\\0'";
  std::string answer;

  void Ask(std::string_view word) {
    command.append(" ").append(pnl_proc::Escape(word));
    answer.append(word).append(1, '\0');
    ++words;
  }
};

std::string Answer(const std::string& command, std::size_t size) {
  Shell().SetTimeout(kTimeout);  // a quote that is left open would wait for more
  Shell().In() << command << std::flush;
  std::string answer(size, '\0');
  Shell().Out().read(answer.data(), static_cast<std::streamsize>(size));
  answer.resize(static_cast<std::size_t>(Shell().Out().gcount()));
  return answer;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  std::atexit(PrintWords);
  return 0;
}

/// A NUL ends a word, because no word may contain one. Each word is tested whole and in pieces.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Question question;
  std::string_view text = fuzz::Text(data, size);
  do {
    const std::string_view word = str::NextWord(text, '\0');
    question.Ask(word);
    for (std::size_t at = 0; at < word.size() && word.size() > kWord; at += kWord)
      question.Ask(word.substr(at, kWord));
  } while (!text.empty());
  question.command += "; printf '\\n.end\\n'\n";
  question.answer += kEnd;
  fuzz::Check(Answer(question.command, question.answer.size()) == question.answer,
              "every word comes back");
  return 0;
}
