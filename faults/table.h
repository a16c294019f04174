#pragma once

#include <initializer_list>
#include <map>
#include <string>
#include <vector>

/// The table that the fault programs print: one row per operation, with the number of tested points
/// and how often each state was found afterwards.
namespace faults {

/// The row of one operation; printed when it ends. Any thread may call it.
class Row {
 public:
  explicit Row(std::string operation);
  Row(const Row&) = delete;
  Row& operator=(const Row&) = delete;
  ~Row();

  /// Counts one fault point with the allowed state `state` ("old", "new", "threw").
  void Point(const std::string& state);
  /// Reports a state that is not allowed, at once on standard error; the program will fail.
  void Violation(const std::string& what);

 private:
  std::string operation_;
  std::map<std::string, int> states_;
  int points_ = 0;
};

template <class T>
std::vector<T> Joined(std::initializer_list<std::vector<T>> groups) {
  std::vector<T> all;
  for (const auto& group : groups) all.insert(all.end(), group.begin(), group.end());
  return all;
}

void PrintHead();
/// Prints the total; the exit code of the program.
int Finish();

}  // namespace faults
