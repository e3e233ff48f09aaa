#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "platform/posix/file_descriptor.h"
#include "platform/posix/main_loop.h"
#include "ports/desktop.h"
#include "ports/system_log.h"

namespace platform::embedded {

// A desktop made of lines of text. On a terminal the menu is shown whenever it has changed, and a typed
// number chooses from it; alerts ask with numbers (or first letters, where those are all different), the
// line's end alone being the default button, and the check box is one more number. Elsewhere nothing is read:
// alerts are answered by the automatic answer and shown with it, critical panels are shown and pass, menus
// are not shown.
//
// What comes from outside is shown without its control characters.
class TerminalDesktop : public ports::Desktop {
 public:
  struct Options {
    int input = 0;  // descriptors; they outlive the desktop
    int output = 1;
    // Whether both are a terminal with somebody in front of it.
    bool isInteractive = false;
    // The button that answers every alert, from 0; nullopt: somebody is asked. Never nullopt where nobody is
    // there.
    std::optional<int> automaticAnswer{};
    // Whether an automatic answer also ticks the check box.
    bool automaticallySuppresses = false;
  };

  struct AnsweredAlert {
    std::string messageText;
    ports::AlertAnswer answer;
  };

  // The code of an alert that was closed without an answer.
  static constexpr int kAlertAborted = -1001;

  // The loop and the log outlive this. `terminate` is called when the user quits, or their input ends.
  TerminalDesktop(posix::MainLoop& loop, ports::SystemLog& log, Options options,
                  std::function<void()> terminate);
  ~TerminalDesktop() override;

  std::unique_ptr<ports::StatusItem> createStatusItem(double length) override;
  void setMenuResponder(ports::MenuResponder* responder) override;
  void activateIgnoringOtherApps() override {}
  // The terminal's bell, whatever the sound.
  void playSound(const std::string& resourceName) override;
  ports::AlertAnswer runModal(const ports::Alert& alert) override;
  void runCriticalAlertPanel(const std::string& title, const std::string& messageFormat,
                             const std::string& defaultButton) override;
  // Starts the program of that name from the search path, on its own.
  void launchApplication(const std::string& name) override;
  // A terminal shows no icons.
  std::shared_ptr<const ports::Image> iconForFile(const std::string& path) override;

  // Every alert so far, in order, with its answer. Main thread.
  const std::vector<AnsweredAlert>& answeredAlerts() const { return answered_; }

 private:
  class StatusItem;
  struct Launched {
    pid_t process;
    posix::FileDescriptor end;
    posix::MainLoop::Watch watch;
  };
  using Menu = std::shared_ptr<const ports::Menu>;

  void print(std::string_view text) const;
  void readInput();
  std::optional<std::string> nextLine();
  // The next line that is typed while an alert is open; nullopt when the desktop is being closed.
  std::optional<std::string> askLine();

  void setMenu(Menu menu);
  void showMenuIfChanged();
  std::string menuText(const ports::Menu& menu, std::size_t depth,
                       std::vector<std::shared_ptr<ports::MenuItem>>& choices) const;
  bool isEnabled(const ports::MenuItem& item) const;
  void performTypedLines();
  void perform(ports::MenuItem& item);

  ports::AlertAnswer answerAutomatically(const ports::Alert& alert) const;
  ports::AlertAnswer ask(const ports::Alert& alert);

  posix::MainLoop& loop_;
  ports::SystemLog& log_;
  const Options options_;
  const std::function<void()> terminate_;
  std::shared_ptr<TerminalDesktop*> self_;  // for closures that are still on their way

  ports::MenuResponder* responder_ = nullptr;
  Menu menu_;
  std::string shownMenu_;
  std::vector<std::shared_ptr<ports::MenuItem>> choices_;  // of the shown menu, by number from 1
  bool showingMenu_ = false;

  std::string partialLine_;
  std::deque<std::string> lines_;  // typed and not yet taken
  bool inputEnded_ = false;
  posix::MainLoop::Watch inputWatch_;

  std::vector<AnsweredAlert> answered_;
  std::list<Launched> launched_;
};

}  // namespace platform::embedded
