#pragma once

#include <initializer_list>
#include <map>
#include <string>
#include <vector>

/// The table that the fault programs print: one row an operation, with the number of points at
/// which something was made to go wrong, and how often each state was found afterwards.
namespace faults {

/// The row of one operation; printed when it ends. Any thread may call it.
class Row {
 public:
  explicit Row(std::string operation);
  Row(const Row&) = delete;
  Row& operator=(const Row&) = delete;
  ~Row();

  /// One fault point was tried, and `state` ("old", "new", "threw") was found. What is counted here
  /// is allowed.
  void Point(const std::string& state);
  /// A state was found that is not allowed: told at once on standard error, with the operation; the
  /// program fails in the end.
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
