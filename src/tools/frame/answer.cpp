#include "tools/frame/answer.h"

namespace tools {

void Print(Output& out, const Answer& answer) {
  if (answer.text && out.ForPeople()) return out.Plain(*answer.text);
  if (answer.is_list) return out.List(answer.records, answer.columns);
  const Record& record = answer.records.front();
  if (!answer.word.empty()) return out.Word(record, answer.word);
  out.One(record, answer.columns);
}

}  // namespace tools
