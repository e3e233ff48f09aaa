#pragma once

#include <QIcon>
#include <QMenu>
#include <QSystemTrayIcon>
#include <functional>
#include <memory>
#include <string>

#include "ports/desktop.h"

namespace platform::freedesktop {

// What the menu of the status item asks of the desktop around it. Main thread.
struct MenuActions {
  std::function<bool(const ports::MenuItem&)> isEnabled;
  std::function<void(const std::shared_ptr<ports::MenuItem>&)> choose;
};

// The texts of the toolkit give '&' a meaning that ours do not.
QString plainText(const std::string& text);

// A menu of the toolkit that shows ours. It lives as long as its place on the panel and is filled anew in
// place: a panel that has it open would not hear of another one. Where the new items are like the old ones,
// the toolkit's stay too, so that a click that is on its way still meets its item, and an open submenu stays.
class StatusMenu {
 public:
  explicit StatusMenu(MenuActions actions) : actions_(std::move(actions)) {}

  void show(std::shared_ptr<const ports::Menu> menu);
  // Asks again which items are enabled.
  void validate() { show(menu_); }

  const std::shared_ptr<const ports::Menu>& menu() const { return menu_; }
  QMenu& widget() { return widget_; }

 private:
  void fill(QMenu& into, const ports::Menu& from);
  void add(QMenu& into, const ports::MenuItem& item);
  void update(QAction& action, const std::shared_ptr<ports::MenuItem>& item);
  void choose(QAction& action);

  const MenuActions actions_;
  std::shared_ptr<const ports::Menu> menu_ = std::make_shared<ports::Menu>();
  QMenu widget_;
};

}  // namespace platform::freedesktop
