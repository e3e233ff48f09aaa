#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "platform/fake/changes.h"
#include "platform/fake/failure.h"
#include "platform/fake/files.h"
#include "platform/fake/main_queue.h"
#include "ports/desktop.h"

namespace platform::fake {

// The icon of what stands at a path.
struct Icon : ports::Image {
  explicit Icon(std::string iconPath) : path(std::move(iconPath)) {}
  const std::string path;
};

struct StatusItemState {
  double length = 0;
  std::string image;
  bool highlights = false;
  std::shared_ptr<const ports::Menu> menu;
};

struct ShownAlert {
  ports::Alert alert;
  bool onMainThread = false;
};

struct ShownPanel {
  std::string title;
  std::string text;  // as the user reads it
  std::string button;
  bool onMainThread = false;
};

// A status bar, a keyboard and a screen, all held as data. Calls from other threads than the main one are
// carried out too, and can be seen by tests.
class Desktop : public ports::Desktop {
 public:
  Desktop(MainQueue& mainQueue, Files& files, Changes& changes, Failure& fail)
      : mainQueue_(mainQueue), files_(files), changes_(changes), fail_(fail) {}

  std::unique_ptr<ports::StatusItem> createStatusItem(double length) override;
  void setMenuResponder(ports::MenuResponder* responder) override;
  void activateIgnoringOtherApps() override;
  void playSound(const std::string& resourceName) override;
  ports::AlertAnswer runModal(const ports::Alert& alert) override;
  void runCriticalAlertPanel(const std::string& title, const std::string& messageFormat,
                             const std::string& defaultButton) override;
  void launchApplication(const std::string& name) override;
  // There is an icon for every path at which something exists.
  std::shared_ptr<const ports::Image> iconForFile(const std::string& path) override;

  // The status item, the newest if there are several; nullopt when there is none.
  std::optional<StatusItemState> statusItem() const;
  // The menu as the user sees it, one line an item: the title, "-" for a separator, two blanks more for each
  // level of submenus.
  std::vector<std::string> menuLines() const;
  // The first item of that title at any depth of the menu, enabled or not; null when there is none.
  std::shared_ptr<ports::MenuItem> item(const std::string& title) const;
  bool isEnabled(const ports::MenuItem& item) const;
  // Chooses an enabled item by its title, at any depth: the one at this index among those of that title.
  void click(const std::string& title, std::size_t index = 0);

  // How alerts are answered that answerNextAlert() has left unanswered. An alert without an answer is a
  // failure.
  void answerAlertsWith(std::function<ports::AlertAnswer(const ports::Alert&)> answer);
  // Presses this button of the next alert that nobody has answered yet. Can be called ahead several times.
  void answerNextAlert(const std::string& button, bool suppressed = false);
  // Happens, in the thread that shows it, each time an alert or a critical panel is open. The panel's button
  // is pressed afterwards.
  void whileAlertIsOpen(std::function<void()> act);
  // The desktop goes away: alerts, the open one too, get an answer that is no button's.
  void close();

  std::vector<ShownAlert> alerts() const;
  std::vector<ShownPanel> panels() const;
  std::vector<std::string> soundsPlayed() const;
  std::vector<std::string> launchedApplications() const;
  int activations() const;
  bool terminateRequested() const;

 private:
  class StatusItem;

  struct NextAnswer {
    std::string button;
    bool suppressed;
  };
  struct State {
    std::vector<std::shared_ptr<StatusItemState>> statusItems;
    ports::MenuResponder* responder = nullptr;
    std::deque<NextAnswer> nextAnswers;
    std::function<ports::AlertAnswer(const ports::Alert&)> answer;
    std::function<void()> whileOpen;
    std::vector<ShownAlert> alerts;
    std::vector<ShownPanel> panels;
    std::vector<std::string> sounds;
    std::vector<std::string> launched;
    int activations = 0;
    bool terminateRequested = false;
    bool closed = false;
  };

  void change(const std::function<void(State&)>& edit);
  void beOpen();
  ports::MenuResponder* responder() const;
  std::optional<ports::AlertAnswer> answerTo(const ports::Alert& alert);
  std::vector<std::shared_ptr<ports::MenuItem>> itemsTitled(const std::string& title) const;

  MainQueue& mainQueue_;
  Files& files_;
  Changes& changes_;
  Failure& fail_;
  mutable base::Mutex mutex_;
  State state_ GUARDED_BY(mutex_);
};

}  // namespace platform::fake
