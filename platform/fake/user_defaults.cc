#include "platform/fake/user_defaults.h"

#include <cstdio>
#include <utility>

namespace platform::fake {
namespace {

// The platform's reading of a text as a boolean: it begins, after blanks, a sign and zeros, with Y, y, T, t
// or a digit from 1 to 9.
bool readsTrue(std::string_view text) {
  const auto begin = text.find_first_not_of(" \t\n\r\v\f");
  if (begin == std::string_view::npos) return false;
  text.remove_prefix(begin);
  if (text.starts_with('+') || text.starts_with('-')) text.remove_prefix(1);
  const auto first = text.find_first_not_of('0');
  return first != std::string_view::npos && std::string_view("YyTt123456789").find(text[first]) != text.npos;
}

std::string numberText(double number) {
  char text[32];
  std::snprintf(text, sizeof text, "%.16g", number);
  return text;
}

}  // namespace

void UserDefaults::registerDefaults(const std::optional<base::PropertyList::Dictionary>& defaults) {
  if (!defaults) return;
  const base::MutexLock lock(mutex_);
  for (const auto& [key, value] : *defaults) registered_.insert_or_assign(key, value);
}

std::optional<base::PropertyList> UserDefaults::value(std::string_view key) const {
  const base::MutexLock lock(mutex_);
  for (const auto* layer : {&user_, &registered_}) {
    if (const auto entry = layer->find(key); entry != layer->end()) return entry->second;
  }
  return std::nullopt;
}

bool UserDefaults::boolForKey(std::string_view key) {
  const auto found = value(key);
  if (!found) return false;
  if (const auto* boolean = found->as<bool>()) return *boolean;
  if (const auto* integer = found->as<std::int64_t>()) return *integer != 0;
  if (const auto* real = found->as<double>()) return *real != 0;
  const auto* text = found->as<std::string>();
  return text != nullptr && readsTrue(*text);
}

std::optional<std::string> UserDefaults::stringForKey(std::string_view key) {
  const auto found = value(key);
  if (!found) return std::nullopt;
  if (const auto* text = found->as<std::string>()) return *text;
  if (const auto* boolean = found->as<bool>()) return *boolean ? "1" : "0";
  if (const auto* integer = found->as<std::int64_t>()) return std::to_string(*integer);
  if (const auto* real = found->as<double>()) return numberText(*real);
  return std::nullopt;
}

void UserDefaults::set(base::PropertyList value, std::string_view key) {
  const base::MutexLock lock(mutex_);
  user_.insert_or_assign(std::string(key), std::move(value));
}

void UserDefaults::remove(std::string_view key) {
  const base::MutexLock lock(mutex_);
  if (const auto entry = user_.find(key); entry != user_.end()) user_.erase(entry);
}

base::PropertyList::Dictionary UserDefaults::userValues() const {
  const base::MutexLock lock(mutex_);
  return user_;
}

}  // namespace platform::fake
