#pragma once

#include <string>
#include <utility>
#include <variant>

namespace base {

// Why something could not be done, in words that a person can act on: what was being done, to what, and the
// reason. Made at the edge where the foreign error is seen.
struct Error {
  std::string message;
};

// A value or the Error that stood in its way.
template <class T>
class [[nodiscard]] Result {
 public:
  Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}
  Result(Error error) : state_(std::in_place_index<1>, std::move(error)) {}

  explicit operator bool() const { return state_.index() == 0; }

  T& value() & { return std::get<0>(state_); }
  const T& value() const& { return std::get<0>(state_); }
  T&& value() && { return std::get<0>(std::move(state_)); }
  T& operator*() & { return value(); }
  const T& operator*() const& { return value(); }
  T&& operator*() && { return std::move(*this).value(); }
  T* operator->() { return &value(); }
  const T* operator->() const { return &value(); }

  const Error& error() const { return std::get<1>(state_); }

 private:
  std::variant<T, Error> state_;
};

template <>
class [[nodiscard]] Result<void> {
 public:
  Result() = default;
  Result(Error error) : error_(std::move(error)), failed_(true) {}

  explicit operator bool() const { return !failed_; }
  const Error& error() const { return error_; }

 private:
  Error error_;
  bool failed_ = false;
};

}  // namespace base
