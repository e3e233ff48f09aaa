#pragma once

#include <string>
#include <utility>
#include <variant>

namespace cli {

// The exit statuses, as the manual lists them.
enum class Exit : int {
  done = 0,
  failed = 1,
  usage = 2,
  notFound = 3,
  authentication = 4,
  busy = 5,
  differences = 6,
  interrupted = 130,
};

// Why a command could not do what it was asked for: the text goes behind "COMMAND failed - ".
struct Problem {  // NOLINT(clang-analyzer-core.uninitialized.Assign): not where an Expected holds a value
  Exit exit = Exit::failed;
  std::string text;
};

// A value or the Problem that stood in its way.
template <class T>
class [[nodiscard]] Expected {
 public:
  Expected(T value) : state_(std::in_place_index<0>, std::move(value)) {}
  Expected(Problem problem) : state_(std::in_place_index<1>, std::move(problem)) {}

  explicit operator bool() const { return state_.index() == 0; }
  T& operator*() { return std::get<0>(state_); }
  const T& operator*() const { return std::get<0>(state_); }
  T* operator->() { return &std::get<0>(state_); }
  const T* operator->() const { return &std::get<0>(state_); }
  const Problem& problem() const { return std::get<1>(state_); }

 private:
  std::variant<T, Problem> state_;
};

using Outcome = Expected<Exit>;

}  // namespace cli
