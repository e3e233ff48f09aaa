#include "platform/posix/locale_settings.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string_view>
#include <utility>

namespace platform::posix {
namespace {

bool isLetters(std::string_view text) {
  return std::ranges::all_of(text, [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); });
}

// LANGUAGE[_REGION][.ENCODING][@MODIFIER], as setlocale(3) takes it.
struct LocaleName {
  std::string language;  // empty for "C", "POSIX" and what is no locale name
  std::string script;    // of the modifiers that mean one
  std::string region;

  friend bool operator==(const LocaleName&, const LocaleName&) = default;
  std::string tag() const {
    return language + (script.empty() ? "" : "-" + script) + (region.empty() ? "" : "-" + region);
  }
};

LocaleName parse(std::string_view name) {
  static constexpr std::array<std::pair<std::string_view, const char*>, 3> kScripts = {
      {{"@latin", "Latn"}, {"@cyrillic", "Cyrl"}, {"@devanagari", "Deva"}}};
  LocaleName parsed;
  const auto territory = name.substr(0, name.find_first_of(".@"));
  const auto language = territory.substr(0, territory.find('_'));
  if (language.size() < 2 || language.size() > 3 || !isLetters(language)) return parsed;
  parsed.language = language;
  for (const auto& [modifier, script] : kScripts) {
    if (name.ends_with(modifier)) parsed.script = script;
  }
  if (territory.size() > language.size()) {
    const auto region = territory.substr(language.size() + 1);
    if (region.size() == 2 && isLetters(region)) parsed.region = region;
  }
  return parsed;
}

std::string_view firstSet(std::initializer_list<std::string_view> values) {
  const auto found = std::ranges::find_if(values, [](std::string_view value) { return !value.empty(); });
  return found == values.end() ? std::string_view() : *found;
}

void append(std::vector<LocaleName>& names, const LocaleName& name) {
  if (!name.language.empty() && std::ranges::find(names, name) == names.end()) names.push_back(name);
}

}  // namespace

LocaleVariables LocaleVariables::fromEnvironment() {
  const auto value = [](const char* variable) {
    const char* set = std::getenv(variable);
    return std::string(set ? set : "");
  };
  return {value("LANGUAGE"), value("LC_ALL"), value("LC_MESSAGES"), value("LC_TIME"), value("LANG")};
}

LocaleSettings LocaleSettings::from(const LocaleVariables& variables) {
  const auto messages = parse(firstSet({variables.lcAll, variables.lcMessages, variables.lang}));
  if (messages.language.empty()) return {{"en"}, "en"};
  std::vector<LocaleName> wanted;
  std::string_view list = variables.language;
  while (!list.empty()) {
    const auto end = std::min(list.find(':'), list.size());
    append(wanted, parse(list.substr(0, end)));
    list.remove_prefix(std::min(end + 1, list.size()));
  }
  append(wanted, messages);

  auto dates = wanted.front();
  const auto time = parse(firstSet({variables.lcAll, variables.lcTime, variables.lang}));
  if (!time.region.empty()) dates.region = time.region;
  LocaleSettings settings{{}, dates.tag()};
  for (const auto& name : wanted) settings.languages.push_back(name.tag());
  return settings;
}

}  // namespace platform::posix
