#include "cli/session.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <ranges>
#include <thread>

#include "cli/text.h"
#include "devices/keychain.h"

namespace cli {
namespace {

constexpr const char* kKeychainService = "Stashwick 3";

bool isYes(std::string answer) {
  std::ranges::transform(answer, answer.begin(), [](unsigned char c) { return std::tolower(c); });
  return answer == "y" || answer == "yes";
}

}  // namespace

// One line that is drawn over on the terminal: what goes on, and for how long.
class Session::Activity {
 public:
  Activity(const Surroundings& around, const CommonOptions& options, const std::string& text)
      : around_(around), text_(text), begin_(around.host.dates.now()) {
    if (!around.streams.errorIsTerminal || options.quiet || text.empty()) return;
    self_ = std::make_shared<Activity*>(this);
    // What the tool before told is still there.
    draw(std::nullopt);
  }
  ~Activity() {
    if (self_) around_.streams.error << "\r\033[K" << std::flush;
  }
  Activity(const Activity&) = delete;
  Activity& operator=(const Activity&) = delete;

 private:
  static constexpr double kInterval = 0.2;  // seconds

  static std::string bar(std::optional<double> fraction) {
    constexpr std::size_t kWidth = 24;
    if (!fraction) return " ... ";
    const auto filled = static_cast<std::size_t>(*fraction * kWidth);
    return " [" + std::string(filled, '#') + std::string(kWidth - filled, ' ') + "] " +
           std::to_string(static_cast<int>(*fraction * 100)) + "% ";
  }

  void draw(std::optional<double> fraction) {
    const auto seconds = static_cast<long>(around_.host.dates.now().unix() - begin_.unix());
    const auto rest = std::to_string(seconds % 60);
    around_.streams.error << "\r\033[K" << shownText(text_) << bar(fraction) << seconds / 60 << ':'
                          << (rest.size() < 2 ? "0" : "") << rest << std::flush;
    around_.host.mainQueue.postAfter(kInterval, [weak = std::weak_ptr(self_)] {
      if (const auto self = weak.lock()) (*self)->draw((*self)->around_.toolProgress());
    });
  }

  const Surroundings& around_;
  const std::string text_;
  const base::Date begin_;
  std::shared_ptr<Activity*> self_;  // null where nothing is drawn
};

Session::Session(const Surroundings& surroundings, CommonOptions options)
    : around_(surroundings), options_(std::move(options)), backups_(surroundings.host) {}

void Session::print(std::string_view text) { around_.streams.out << text; }

void Session::say(const std::string& line) {
  if (!options_.quiet && !options_.json) around_.streams.out << shown(line) << "\n" << std::flush;
}

void Session::warn(const std::string& text) {
  std::string shownLines = "stashwickctl: ";
  for (const auto line : std::views::split(text, '\n'))
    shownLines += shownText(std::string_view(line.begin(), line.end())) + "\n";
  around_.streams.error << shownLines << std::flush;
}

void Session::printTable(std::vector<std::string> head, std::vector<std::vector<std::string>> rows,
                         const std::vector<std::size_t>& right) {
  for (auto& row : rows) std::ranges::transform(row, row.begin(), [this](auto& cell) { return shown(cell); });
  const bool hasHead = !options_.quiet;
  if (hasHead) rows.insert(rows.begin(), std::move(head));
  std::string text = tableText(rows, right);
  if (hasHead && around_.streams.outIsTerminal && around_.streams.mayColour) {
    text.insert(text.find('\n'), "\033[0m");
    text.insert(0, "\033[1m");
  }
  print(text);
}

std::string Session::shown(std::string_view text) const {
  return around_.streams.outIsTerminal ? shownText(text) : std::string(text);
}

Outcome Session::agree(const std::string& question) {
  if (options_.yes) return Exit::done;
  if (!around_.terminal.isAttended())
    return Problem{Exit::usage, "there is nobody to ask: " + question + " (--yes answers yes)"};
  const auto answer = around_.terminal.ask(shownText(question) + " [y/N] ");
  if (!answer) return interrupted();
  if (!isYes(*answer)) return Problem{Exit::failed, "it was not wanted; nothing was changed"};
  return Exit::done;
}

bool Session::serveUntil(const std::string& activity, const std::function<bool()>& done) {
  const Activity line(around_, options_, activity);
  return around_.serveUntil(done);
}

bool Session::perform(const std::string& activity, const std::function<void()>& work) {
  std::atomic<bool> done = false;
  const std::jthread worker([&] {
    work();
    done = true;
    host().mainQueue.post([] {});
  });
  return serveUntil(activity, [&] { return done.load(); });
}

Expected<std::string> Session::run(const std::string& activity, const ports::ToolRun& run) {
  std::string output;
  if (!perform(activity, [&] { output = host().tools.run(run); })) return interrupted();
  return output;
}

Expected<Device> Session::volume(const std::string& nameOrFolder) {
  auto device = attachedVolume(nameOrFolder);
  if (device && around_.volumes.place(**device).empty())
    return Problem{Exit::notFound, "\"" + (*device)->name() + "\" is not mounted"};
  return device;
}

Expected<Device> Session::attachedVolume(const std::string& nameOrFolder) {
  if (nameOrFolder.find('/') != nameOrFolder.npos || nameOrFolder == "." || nameOrFolder == "..") {
    auto attached = around_.volumes.attach(nameOrFolder);
    if (!attached) return Problem{Exit::notFound, attached.error().message};
    return *std::move(attached);
  }
  for (const auto& device : around_.volumes.attached())
    if (device->name() == nameOrFolder) return device;
  return Problem{Exit::notFound, "no volume \"" + nameOrFolder +
                                     "\" is attached; a folder is given by a path, such as ./" +
                                     nameOrFolder};
}

Expected<std::unique_ptr<StoreFolders::Hold>> Session::hold(const std::string& volume) {
  std::string holder;
  const std::string folder = backups_.folder(volume);
  host().files.createDirectory(folder);
  auto held = around_.folders.hold(folder, holder);
  if (!held) return Problem{Exit::failed, held.error().message};
  if (*held) return *std::move(held);
  return Problem{Exit::busy, (holder.empty() ? "another program" : holder) +
                                 " is working on the backups of \"" + volume + "\""};
}

Expected<Session::Password> Session::givenPassword() {
  if (password_ || !isPasswordGiven()) return password_;
  auto read = options_.passwordFile ? around_.terminal.readPasswordFile(*options_.passwordFile)
                                    : around_.terminal.readPassword();
  if (!read) return Problem{Exit::authentication, read.error().message};
  password_ = std::make_shared<const base::Secret>(*std::move(read));
  return password_;
}

std::optional<base::Secret> Session::storedPassword() const {
  return KXKeychain::passwordForService(host().keychain, kKeychainService, host().user.fullUserName());
}

Expected<Session::Password> Session::password(bool twice) {
  auto given = givenPassword();
  if (!given || *given) return given;
  auto stored = storedPassword();
  if (!stored) return askPassword(twice);
  password_ = std::make_shared<const base::Secret>(*std::move(stored));
  return password_;
}

Expected<Session::Password> Session::newPassword() {
  auto given = givenPassword();
  return !given || *given ? given : askPassword(true);
}

Expected<Session::Password> Session::otherPassword() {
  if (isPasswordGiven() || !around_.terminal.isAttended())
    return Problem{Exit::authentication, "Authentication error: the password is not the backup's"};
  return askPassword(false);
}

Expected<Session::Password> Session::askPassword(bool twice) {
  if (!around_.terminal.isAttended())
    return Problem{Exit::authentication,
                   "Authentication error: a password is needed (see --password-stdin and --password-file)"};
  auto typed = around_.terminal.askPassword("Password: ");
  if (!typed) return interrupted();
  if (typed->empty()) return Problem{Exit::authentication, "Authentication error: the password is empty"};
  if (twice) {
    const auto again = around_.terminal.askPassword("The same again: ");
    if (!again) return interrupted();
    if (again->reveal() != typed->reveal())
      return Problem{Exit::authentication, "Authentication error: the two passwords differ"};
  }
  password_ = std::make_shared<const base::Secret>(*std::move(typed));
  return password_;
}

}  // namespace cli
