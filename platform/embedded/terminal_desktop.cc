#include "platform/embedded/terminal_desktop.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include "base/format.h"
#include "platform/embedded/terminal_text.h"
#include "platform/posix/system_error.h"

namespace platform::embedded {
namespace {

constexpr std::size_t kMaxColumns = 80;
constexpr std::size_t kMaxLine = 4096;  // bytes of a typed line that are kept

std::size_t columnsOf(int terminal) {
  winsize size{};
  if (::ioctl(terminal, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kMaxColumns;
  return std::min<std::size_t>(size.ws_col, kMaxColumns);
}

std::string trimmed(std::string_view line) {
  const auto first = line.find_first_not_of(" \t\r");
  if (first == line.npos) return {};
  return std::string(line.substr(first, line.find_last_not_of(" \t\r") - first + 1));
}

// The typed number, from 1 to the count, as an index.
std::optional<std::size_t> choice(const std::string& line, std::size_t count) {
  std::size_t number = 0;
  const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), number);
  if (error != std::errc() || end != line.data() + line.size()) return std::nullopt;
  return number >= 1 && number <= count ? std::optional(number - 1) : std::nullopt;
}

// The lower-case first letter of each button; empty unless all are plain letters and no two the same.
std::string firstLetters(const std::vector<std::string>& buttons) {
  std::string letters;
  for (const auto& button : buttons) {
    const char letter = button.empty() ? '\0' : button.front();
    const bool isPlain = (letter >= 'A' && letter <= 'Z') || (letter >= 'a' && letter <= 'z');
    const char lower = static_cast<char>(letter | 0x20);
    if (!isPlain || letters.find(lower) != letters.npos) return {};
    letters += lower;
  }
  return letters;
}

std::optional<std::size_t> chosenButton(const std::string& line, const ports::Alert& alert) {
  if (line.empty()) return 0;
  if (const auto number = choice(line, alert.buttons.size())) return number;
  const auto letters = firstLetters(alert.buttons);
  const char letter = static_cast<char>(line.front() | 0x20);
  const auto at = line.size() == 1 ? letters.find(letter) : letters.npos;
  return at == letters.npos ? std::nullopt : std::optional(at);
}

std::string numbered(std::size_t number, const std::string& text) {
  return "  " + std::to_string(number) + ") " + text + "\n";
}

std::string checkBox(const ports::Alert& alert, bool ticked) {
  return numbered(alert.buttons.size() + 1, (ticked ? "[x] " : "[ ] ") + alert.suppressionTitle);
}

// A descriptor that is readable once the process has ended.
int openProcess(pid_t process) { return static_cast<int>(::syscall(SYS_pidfd_open, process, 0)); }

}  // namespace

class TerminalDesktop::StatusItem : public ports::StatusItem {
 public:
  explicit StatusItem(TerminalDesktop& desktop) : desktop_(desktop.self_) {}
  ~StatusItem() override { show(nullptr); }
  void setImage(const std::string& /*a terminal shows no images*/) override {}
  void setHighlightMode(bool /*nothing is pressed*/) override {}
  void setMenu(std::shared_ptr<const ports::Menu> menu) override { show(std::move(menu)); }

 private:
  void show(Menu menu) {
    if (const auto desktop = desktop_.lock()) (*desktop)->setMenu(std::move(menu));
  }

  std::weak_ptr<TerminalDesktop*> desktop_;
};

TerminalDesktop::TerminalDesktop(posix::MainLoop& loop, ports::SystemLog& log, Options options,
                                 std::function<void()> terminate)
    : loop_(loop),
      log_(log),
      options_(options),
      terminate_(std::move(terminate)),
      self_(std::make_shared<TerminalDesktop*>(this)) {
  if (!options_.isInteractive) return;
  inputWatch_ = loop_.watch(
      options_.input, [this] { readInput(); }, posix::MainLoop::InModals::served);
}

TerminalDesktop::~TerminalDesktop() = default;

void TerminalDesktop::print(std::string_view text) const {
  while (!text.empty()) {
    const ssize_t written = ::write(options_.output, text.data(), text.size());
    if (written < 0 && errno != EINTR) return;
    text.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
  }
}

// --- what is typed ---

void TerminalDesktop::readInput() {
  std::array<char, 1024> buffer;
  const ssize_t size = ::read(options_.input, buffer.data(), buffer.size());
  if (size < 0 && errno == EINTR) return;
  if (size <= 0) {
    inputEnded_ = true;
    inputWatch_.reset();
  }
  for (const char c : std::string_view(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)))) {
    if (c == '\n') {
      lines_.push_back(trimmed(std::exchange(partialLine_, {})));
    } else if (partialLine_.size() < kMaxLine) {
      partialLine_ += c;
    }
  }
  // Later: an alert that is open takes them first, and holds the queue up.
  loop_.post([self = std::weak_ptr(self_)] {
    if (const auto desktop = self.lock()) (*desktop)->performTypedLines();
  });
}

std::optional<std::string> TerminalDesktop::nextLine() {
  if (lines_.empty()) return std::nullopt;
  auto line = std::move(lines_.front());
  lines_.pop_front();
  return line;
}

std::optional<std::string> TerminalDesktop::askLine() {
  const posix::MainLoop::ModalScope modal(loop_);
  loop_.runUntil([this] { return !lines_.empty() || inputEnded_; });
  return nextLine();
}

void TerminalDesktop::performTypedLines() {
  while (const auto line = nextLine()) {
    const auto number = choice(*line, choices_.size());
    if (number) {
      const auto item = choices_[*number];
      perform(*item);
    } else if (line->empty()) {
      print(shownMenu_);
    } else {
      print("There is no number " + shownText(*line) + " to choose.\n");
    }
  }
  if (inputEnded_) terminate_();
}

// --- the menu ---

std::unique_ptr<ports::StatusItem> TerminalDesktop::createStatusItem(double /*length*/) {
  return std::make_unique<StatusItem>(*this);
}

void TerminalDesktop::setMenuResponder(ports::MenuResponder* responder) { responder_ = responder; }

void TerminalDesktop::setMenu(Menu menu) {
  menu_ = std::move(menu);
  if (!options_.isInteractive || std::exchange(showingMenu_, true)) return;
  // Once, however often it is set until then.
  loop_.post([self = std::weak_ptr(self_)] {
    if (const auto desktop = self.lock()) (*desktop)->showMenuIfChanged();
  });
}

void TerminalDesktop::showMenuIfChanged() {
  showingMenu_ = false;
  choices_.clear();
  if (!menu_) return;
  const std::string text = "\n" + menuText(*menu_, 0, choices_) + "Type a number and press Enter.\n";
  if (text == shownMenu_) return;
  shownMenu_ = text;
  print(text);
}

std::string TerminalDesktop::menuText(const ports::Menu& menu, std::size_t depth,
                                      std::vector<std::shared_ptr<ports::MenuItem>>& choices) const {
  std::string text;
  for (const auto& item : menu.items) {
    if (item->isSeparator) {
      text += "\n";
      continue;
    }
    const bool isChoice = !item->submenu && isEnabled(*item);
    if (isChoice) choices.push_back(item);
    const std::string number = isChoice ? std::to_string(choices.size()) + ")" : "";
    text += std::string(number.size() < 4 ? 4 - number.size() : 0, ' ') + number + " ";
    text += std::string(depth * 3, ' ');
    if (item->state != 0) text += item->state > 0 ? "[x] " : "[-] ";
    text += shownText(item->title) + "\n";
    if (item->submenu) text += menuText(*item->submenu, depth + 1, choices);
  }
  return text;
}

bool TerminalDesktop::isEnabled(const ports::MenuItem& item) const {
  if (item.action.empty()) return false;
  if (item.target == ports::MenuItem::Target::application) return item.action == ports::kTerminateAction;
  return responder_ && responder_->validateMenuItem(item);
}

void TerminalDesktop::perform(ports::MenuItem& item) {
  if (item.target == ports::MenuItem::Target::application) {
    terminate_();
  } else if (responder_) {
    responder_->performMenuAction(item.action, item);
  }
}

// --- alerts ---

void TerminalDesktop::playSound(const std::string& /*resourceName*/) {
  if (options_.isInteractive) print("\a");
}

ports::AlertAnswer TerminalDesktop::runModal(const ports::Alert& alert) {
  const auto answer = options_.automaticAnswer ? answerAutomatically(alert) : ask(alert);
  answered_.push_back({alert.messageText, answer});
  return answer;
}

ports::AlertAnswer TerminalDesktop::answerAutomatically(const ports::Alert& alert) const {
  const auto button = static_cast<std::size_t>(*options_.automaticAnswer);
  const bool suppressed =
      alert.showsSuppressionButton && (alert.suppressed || options_.automaticallySuppresses);
  std::string text = alert.messageText + " " + alert.informativeText + "\n-> ";
  text += button < alert.buttons.size() ? alert.buttons[button] : "-";
  if (suppressed) text += " [x] " + alert.suppressionTitle;
  print(shownText(text) + "\n");
  if (button >= alert.buttons.size()) return {kAlertAborted, suppressed};
  return {ports::kAlertFirstButtonReturn + *options_.automaticAnswer, suppressed};
}

ports::AlertAnswer TerminalDesktop::ask(const ports::Alert& alert) {
  bool ticked = alert.suppressed;
  std::string text = "\n" + wrappedText(alert.messageText, columnsOf(options_.output)) + "\n" +
                     wrappedText(alert.informativeText, columnsOf(options_.output)) + "\n\n";
  for (std::size_t i = 0; i < alert.buttons.size(); ++i) text += numbered(i + 1, alert.buttons[i]);
  if (alert.showsSuppressionButton) text += checkBox(alert, ticked);
  text += firstLetters(alert.buttons).empty() ? "Type a number" : "Type a number or a first letter";
  text += " and press Enter; Enter alone means \"" + alert.buttons.front() + "\".\n";
  print(shownText(text));
  while (const auto line = askLine()) {
    if (const auto button = chosenButton(*line, alert)) {
      return {ports::kAlertFirstButtonReturn + static_cast<int>(*button), ticked};
    }
    if (alert.showsSuppressionButton && *line == std::to_string(alert.buttons.size() + 1)) {
      ticked = !ticked;
      print(shownText(checkBox(alert, ticked)));
    } else {
      print("\"" + shownText(*line) + "\" is none of the answers.\n");
    }
  }
  return {kAlertAborted, ticked};
}

void TerminalDesktop::runCriticalAlertPanel(const std::string& title, const std::string& messageFormat,
                                            const std::string& defaultButton) {
  const std::string text = title + "\n" + base::stringWithFormatOnly(messageFormat) + "\n";
  if (!options_.isInteractive || options_.automaticAnswer) return print(shownText(text));
  print(shownText("\n" + text + "\n" + numbered(1, defaultButton) + "Press Enter.\n"));
  askLine();
}

// --- other programs ---

void TerminalDesktop::launchApplication(const std::string& name) {
  const auto say = [&](int error) {
    log_.log("[Stashwick] starting \"" + name + "\": " + posix::errnoText(error));
  };
  if (name.empty() || name.find('/') != name.npos) return say(ENOENT);
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_t files;
  posix_spawnattr_init(&attributes);
  posix_spawn_file_actions_init(&files);
  sigset_t none;
  sigemptyset(&none);
  sigset_t all;
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    posix_spawn_file_actions_addopen(&files, stream, "/dev/null", O_RDWR, 0);
  }
  std::string program = name;
  std::array<char*, 2> arguments{program.data(), nullptr};
  pid_t process = 0;
  const int error = ::posix_spawnp(&process, name.c_str(), &files, &attributes, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&files);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) return say(error);

  launched_.push_back({process, posix::FileDescriptor(openProcess(process)), {}});
  const auto launched = std::prev(launched_.end());
  launched->watch = loop_.watch(launched->end.get(), [this, launched] {
    ::waitpid(launched->process, nullptr, 0);
    launched_.erase(launched);
  });
}

std::shared_ptr<const ports::Image> TerminalDesktop::iconForFile(const std::string& /*path*/) {
  return nullptr;
}

}  // namespace platform::embedded
