#include "platform/fake/desktop.h"

#include <algorithm>
#include <utility>

#include "base/format.h"

namespace platform::fake {
namespace {

using MenuRef = std::shared_ptr<const ports::Menu>;
using ItemRef = std::shared_ptr<ports::MenuItem>;

void forEachItem(const ports::Menu& menu, int depth, const std::function<void(const ItemRef&, int)>& visit) {
  for (const auto& item : menu.items) {
    visit(item, depth);
    if (item->submenu) forEachItem(*item->submenu, depth + 1, visit);
  }
}

std::string joined(const std::vector<std::string>& texts, const char* separator) {
  std::string all;
  for (const auto& text : texts) all += (all.empty() ? "" : separator) + text;
  return all;
}

std::string description(const ports::Alert& alert) {
  return "\"" + alert.messageText + "\" (" + alert.informativeText + ") [" + joined(alert.buttons, "] [") +
         "]";
}

}  // namespace

class Desktop::StatusItem : public ports::StatusItem {
 public:
  StatusItem(Desktop& desktop, std::shared_ptr<StatusItemState> state)
      : desktop_(desktop), state_(std::move(state)) {}
  ~StatusItem() override {
    desktop_.change([&](State& now) { std::erase(now.statusItems, state_); });
  }

  void setImage(const std::string& resourceName) override {
    desktop_.change([&](State&) { state_->image = resourceName; });
  }
  void setHighlightMode(bool highlights) override {
    desktop_.change([&](State&) { state_->highlights = highlights; });
  }
  void setMenu(MenuRef menu) override {
    desktop_.change([&](State&) { state_->menu.swap(menu); });
  }

 private:
  Desktop& desktop_;
  std::shared_ptr<StatusItemState> state_;
};

std::unique_ptr<ports::StatusItem> Desktop::createStatusItem(double length) {
  auto state = std::make_shared<StatusItemState>();
  state->length = length;
  change([&](State& now) { now.statusItems.push_back(state); });
  return std::make_unique<StatusItem>(*this, std::move(state));
}

void Desktop::setMenuResponder(ports::MenuResponder* responder) {
  change([&](State& now) { now.responder = responder; });
}

void Desktop::activateIgnoringOtherApps() {
  change([&](State& now) { ++now.activations; });
}

void Desktop::playSound(const std::string& resourceName) {
  change([&](State& now) { now.sounds.push_back(resourceName); });
}

void Desktop::launchApplication(const std::string& name) {
  change([&](State& now) { now.launched.push_back(name); });
}

ports::AlertAnswer Desktop::runModal(const ports::Alert& alert) {
  change([&](State& now) { now.alerts.push_back({alert, mainQueue_.isMainThread()}); });
  beOpen();
  if (const auto answer = answerTo(alert)) return *answer;
  fail_("an alert that the test does not answer: " + description(alert));
  return {.returnCode = 0};
}

void Desktop::runCriticalAlertPanel(const std::string& title, const std::string& messageFormat,
                                    const std::string& defaultButton) {
  change([&](State& now) {
    now.panels.push_back(
        {title, base::stringWithFormatOnly(messageFormat), defaultButton, mainQueue_.isMainThread()});
  });
  beOpen();
}

std::shared_ptr<const ports::Image> Desktop::iconForFile(const std::string& path) {
  return files_.fileExists(path) ? std::make_shared<Icon>(path) : nullptr;
}

std::optional<StatusItemState> Desktop::statusItem() const {
  const base::MutexLock lock(mutex_);
  if (state_.statusItems.empty()) return std::nullopt;
  return *state_.statusItems.back();
}

std::vector<std::string> Desktop::menuLines() const {
  std::vector<std::string> lines;
  const auto bar = statusItem();
  if (!bar || !bar->menu) return lines;
  forEachItem(*bar->menu, 0, [&](const ItemRef& item, int depth) {
    lines.push_back(std::string(static_cast<std::size_t>(depth) * 2, ' ') +
                    (item->isSeparator ? "-" : item->title));
  });
  return lines;
}

std::vector<ItemRef> Desktop::itemsTitled(const std::string& title) const {
  std::vector<ItemRef> found;
  const auto bar = statusItem();
  if (!bar || !bar->menu) return found;
  forEachItem(*bar->menu, 0, [&](const ItemRef& item, int) {
    if (!item->isSeparator && item->title == title) found.push_back(item);
  });
  return found;
}

ItemRef Desktop::item(const std::string& title) const {
  const auto found = itemsTitled(title);
  return found.empty() ? nullptr : found.front();
}

bool Desktop::isEnabled(const ports::MenuItem& item) const {
  if (item.isSeparator) return false;
  if (item.submenu) return true;
  if (item.target == ports::MenuItem::Target::application) return item.action == ports::kTerminateAction;
  auto* const whoAnswers = responder();
  return !item.action.empty() && whoAnswers != nullptr && whoAnswers->validateMenuItem(item);
}

ports::MenuResponder* Desktop::responder() const {
  const base::MutexLock lock(mutex_);
  return state_.responder;
}

void Desktop::click(const std::string& title, std::size_t index) {
  auto found = itemsTitled(title);
  std::erase_if(found, [&](const ItemRef& item) { return item->submenu || !isEnabled(*item); });
  if (index >= found.size()) {
    return fail_("no enabled item \"" + title + "\" to click in the menu:\n" + joined(menuLines(), "\n"));
  }
  const auto chosen = found[index];
  if (chosen->target == ports::MenuItem::Target::application)
    return change([&](State& now) { now.terminateRequested = true; });
  responder()->performMenuAction(chosen->action, *chosen);
}

void Desktop::answerAlertsWith(std::function<ports::AlertAnswer(const ports::Alert&)> answer) {
  change([&](State& now) { now.answer.swap(answer); });
}

void Desktop::answerNextAlert(const std::string& button, bool suppressed) {
  change([&](State& now) { now.nextAnswers.push_back({button, suppressed}); });
}

void Desktop::whileAlertIsOpen(std::function<void()> act) {
  change([&](State& now) { now.whileOpen.swap(act); });
}

void Desktop::close() {
  change([&](State& now) { now.closed = true; });
}

void Desktop::change(const std::function<void(State&)>& edit) {
  {
    const base::MutexLock lock(mutex_);
    edit(state_);
  }
  changes_.note();
}

void Desktop::beOpen() {
  std::optional<MainQueue::Hold> hold;
  if (mainQueue_.isMainThread()) hold.emplace(mainQueue_);
  std::function<void()> act;
  {
    const base::MutexLock lock(mutex_);
    act = state_.whileOpen;
  }
  if (act) act();
}

std::optional<ports::AlertAnswer> Desktop::answerTo(const ports::Alert& alert) {
  std::optional<NextAnswer> next;
  std::function<ports::AlertAnswer(const ports::Alert&)> answer;
  {
    const base::MutexLock lock(mutex_);
    if (state_.closed) return ports::AlertAnswer{.returnCode = 0};
    answer = state_.answer;
    if (!state_.nextAnswers.empty()) {
      next = std::move(state_.nextAnswers.front());
      state_.nextAnswers.pop_front();
    }
  }
  if (!next) return answer ? std::optional(answer(alert)) : std::nullopt;
  const auto button = std::ranges::find(alert.buttons, next->button);
  if (button == alert.buttons.end()) return std::nullopt;
  const auto index = static_cast<int>(button - alert.buttons.begin());
  return ports::AlertAnswer{ports::kAlertFirstButtonReturn + index, next->suppressed};
}

std::vector<ShownAlert> Desktop::alerts() const {
  const base::MutexLock lock(mutex_);
  return state_.alerts;
}

std::vector<ShownPanel> Desktop::panels() const {
  const base::MutexLock lock(mutex_);
  return state_.panels;
}

std::vector<std::string> Desktop::soundsPlayed() const {
  const base::MutexLock lock(mutex_);
  return state_.sounds;
}

std::vector<std::string> Desktop::launchedApplications() const {
  const base::MutexLock lock(mutex_);
  return state_.launched;
}

int Desktop::activations() const {
  const base::MutexLock lock(mutex_);
  return state_.activations;
}

bool Desktop::terminateRequested() const {
  const base::MutexLock lock(mutex_);
  return state_.terminateRequested;
}

}  // namespace platform::fake
