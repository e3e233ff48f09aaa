#include "platform/linux/status_menu.h"

#include <QVariant>
#include <algorithm>

namespace platform::freedesktop {

QString plainText(const std::string& text) { return QString::fromStdString(text).replace('&', "&&"); }

namespace {

// Whether the one can show the other. What a user means to click stays what it says; and of a mark that has
// gone a panel hears only with a new item.
bool fits(const QAction* action, const std::shared_ptr<ports::MenuItem>& item) {
  return action->isSeparator() == item->isSeparator &&
         (action->menu() != nullptr) == (item->submenu != nullptr) &&
         action->isCheckable() == (item->state != 0) &&
         (item->action.empty() || action->text() == plainText(item->title));
}

}  // namespace

void StatusMenu::show(std::shared_ptr<const ports::Menu> menu) {
  menu_ = std::move(menu);
  fill(widget_, *menu_);
}

void StatusMenu::fill(QMenu& into, const ports::Menu& from) {
  if (!std::ranges::equal(into.actions(), from.items, fits)) {
    const auto old = into.findChildren<QMenu*>(Qt::FindDirectChildrenOnly);
    into.clear();
    for (QMenu* submenu : old) {
      // What a panel was told of an item the toolkit drops only when the item is removed.
      submenu->clear();
      submenu->deleteLater();
    }
    for (const auto& item : from.items) add(into, *item);
  }
  const auto actions = into.actions();
  for (qsizetype i = 0; i < actions.size(); ++i) update(*actions[i], from.items[static_cast<std::size_t>(i)]);
}

void StatusMenu::add(QMenu& into, const ports::MenuItem& item) {
  if (item.isSeparator) {
    into.addSeparator();
  } else if (item.submenu) {
    into.addMenu(new QMenu(plainText(item.title), &into));
  } else {
    QAction* action = into.addAction(plainText(item.title));
    action->setCheckable(item.state != 0);
    QObject::connect(action, &QAction::triggered, action, [this, action] { choose(*action); });
  }
}

void StatusMenu::update(QAction& action, const std::shared_ptr<ports::MenuItem>& item) {
  if (item->isSeparator) return;
  action.setText(plainText(item->title));
  if (item->submenu) return fill(*action.menu(), *item->submenu);
  action.setEnabled(actions_.isEnabled(*item));
  action.setChecked(item->state == 1);
  action.setData(QVariant::fromValue(item));
}

void StatusMenu::choose(QAction& action) {
  const auto item = action.data().value<std::shared_ptr<ports::MenuItem>>();
  // The mark tells the item's state, which only a new menu changes.
  if (action.isCheckable()) action.setChecked(item->state == 1);
  actions_.choose(item);
}

}  // namespace platform::freedesktop
