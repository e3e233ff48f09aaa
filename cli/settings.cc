// Passwords, settings, and the list of what to do when a volume arrives.

#include <algorithm>
#include <array>

#include "base/property_list.h"
#include "cli/commands.h"
#include "cli/image_tool.h"
#include "cli/text.h"
#include "devices/keychain.h"

namespace cli {
namespace {

using base::PropertyList;

constexpr const char* kService = "Stashwick 3";
constexpr std::string_view kEncryptionKey = "ZQStashwickBackupEncryption";
constexpr std::string_view kAutomaticKey = "ZQCreatesAutomaticBackups";
constexpr const char* kNoKeychain =
    "there is no keychain on this machine that answers; give the password with each command (see "
    "--password-stdin and --password-file)";

Problem keychainProblem(const std::optional<base::DomainError>& error) {
  const auto code = error ? error->code : 0;
  if (code == ports::errSecNotAvailable) return {Exit::failed, kNoKeychain};
  if (code == ports::errSecInteractionNotAllowed)
    return {Exit::authentication, "the keychain is locked; unlock it on the desktop first"};
  if (code == ports::errSecItemNotFound) return {Exit::notFound, "there is no password in the keychain"};
  if (code == ports::errSecAuthFailed) return {Exit::authentication, "the keychain refused access"};
  return {Exit::failed, "the keychain does not answer (status " + std::to_string(code) + ")"};
}

struct Setting {
  std::string_view name;
  std::string_view key;
};
constexpr std::array kSettings{Setting{"automatic-backups", kAutomaticKey},
                               Setting{"encryption", kEncryptionKey}};

std::string valueOf(Session& session, const Setting& setting) {
  auto& defaults = session.host().defaults;
  if (setting.key == kAutomaticKey) return defaults.boolForKey(kAutomaticKey) ? "on" : "off";
  return defaults.stringForKey(kEncryptionKey).value_or("none");
}

std::optional<Problem> set(Session& session, const Setting& setting, const std::string& value) {
  auto& defaults = session.host().defaults;
  if (setting.key == kAutomaticKey) {
    if (value != "on" && value != "off") return Problem{Exit::usage, "automatic-backups is on or off"};
    defaults.setBool(value == "on", kAutomaticKey);
  } else {
    if (value != "none" && value != "AES-128" && value != "AES-256")
      return Problem{Exit::usage, "encryption is none, AES-128 or AES-256"};
    defaults.setString(value == "none" ? std::nullopt : std::optional(value), kEncryptionKey);
  }
  if (valueOf(session, setting) == value) return std::nullopt;
  return Problem{Exit::failed, "the settings could not be written"};
}

constexpr std::int32_t kAutomatic = 1;
constexpr std::int32_t kIgnored = -1;
constexpr std::int32_t kAsked = 0;

std::string answerOf(std::int32_t flag) {
  if (flag == kAutomatic) return "on";
  return flag == kIgnored ? "off" : "ask";
}

std::optional<std::int32_t> flagOf(const std::string& answer) {
  for (const auto flag : {kAutomatic, kIgnored, kAsked})
    if (answerOf(flag) == answer) return flag;
  return std::nullopt;
}

}  // namespace

Outcome setPassword(Session& session) {
  if (!session.isPasswordGiven() && !session.around().terminal.isAttended())
    return Problem{Exit::usage, "there is nobody to ask for the password (see --password-stdin)"};
  const auto password = session.newPassword();
  if (!password) return password.problem();
  std::optional<base::DomainError> error;
  const auto stored = KXKeychain::setPassword(session.host().keychain, password->get(), kService,
                                              session.host().user.fullUserName(), &error);
  if (!stored) return keychainProblem(error);
  session.say("The password is in the keychain.");
  return Exit::done;
}

Outcome forgetPassword(Session& session) {
  std::optional<base::DomainError> error;
  if (!KXKeychain::deletePasswordForService(session.host().keychain, kService,
                                            session.host().user.fullUserName(), &error))
    return keychainProblem(error);
  session.say("The password is no longer in the keychain.");
  return Exit::done;
}

Outcome checkPassword(Session& session, const std::optional<std::string>& name) {
  if (name) {
    const auto backup = session.backups().find(*name);
    if (!backup) return backup.problem();
    if (!backup->instance->encrypted()) {
      session.say(backup->name() + ": it is not encrypted");
      return Exit::done;
    }
    if (const auto problem = ImageTool(session).tryPassword(*backup)) return *problem;
    session.say(backup->name() + ": the password opens it");
    return Exit::done;
  }
  std::optional<base::DomainError> error;
  const auto stored = KXKeychain::passwordForService(session.host().keychain, kService,
                                                     session.host().user.fullUserName(), &error);
  if (!stored) return keychainProblem(error);
  session.say("There is a password in the keychain.");
  return Exit::done;
}

Outcome settings(Session& session, const std::optional<std::string>& key,
                 const std::optional<std::string>& value) {
  std::vector<Setting> chosen(kSettings.begin(), kSettings.end());
  if (key)
    std::erase_if(chosen,
                  [&](const Setting& setting) { return setting.name != *key && setting.key != *key; });
  if (chosen.empty())
    return Problem{Exit::notFound, "there is no setting \"" + *key + "\"; see stashwickctl settings"};
  if (value) {
    const auto problem = set(session, chosen[0], *value);
    return problem ? Outcome(*problem) : Outcome(Exit::done);
  }
  PropertyList::Dictionary described;
  std::vector<std::vector<std::string>> rows;
  for (const auto& setting : chosen) {
    described.emplace(setting.name, valueOf(session, setting));
    rows.push_back({std::string(setting.name), valueOf(session, setting)});
  }
  if (session.options().json) {
    session.print(jsonText(described));
  } else if (key) {
    session.print(valueOf(session, chosen[0]) + "\n");
  } else {
    session.printTable({"SETTING", "VALUE"}, std::move(rows));
  }
  return Exit::done;
}

std::vector<std::string> settingNames() {
  std::vector<std::string> names;
  for (const auto& setting : kSettings) names.emplace_back(setting.name);
  return names;
}

Outcome automaticBackup(Session& session, const std::string& name, const std::optional<std::string>& answer) {
  const auto device = session.attachedVolume(name);
  if (!device) return device.problem();
  if (!(*device)->UDID())
    return Problem{Exit::failed, "\"" + (*device)->name() + "\" has no identity that could be remembered"};
  auto& list = session.around().automatic;
  if (answer) {
    const auto flag = flagOf(*answer);
    if (!flag) return Problem{Exit::usage, "automatic backups of a volume are on, off or ask"};
    session.host().files.createDirectory(session.backups().root());
    list.setFlag(**device, *flag);
    if (list.flag(**device) != *flag) return Problem{Exit::failed, "the list could not be written"};
    return Exit::done;
  }
  const std::string stands = answerOf(list.flag(**device));
  if (session.options().json) {
    session.print(jsonText(PropertyList::Dictionary{
        {"name", (*device)->name()}, {"udid", *(*device)->UDID()}, {"automatic", stands}}));
  } else {
    session.print(stands + "\n");
  }
  return Exit::done;
}

}  // namespace cli
