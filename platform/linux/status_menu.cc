#include "platform/linux/status_menu.h"

namespace platform::freedesktop {

QString plainText(const std::string& text) { return QString::fromStdString(text).replace('&', "&&"); }

void StatusMenu::show(std::shared_ptr<const ports::Menu> menu) {
  menu_ = std::move(menu);
  const auto old = widget_.findChildren<QMenu*>(Qt::FindDirectChildrenOnly);
  widget_.clear();
  // One of them may be the one whose item has just been chosen.
  for (QMenu* submenu : old) submenu->deleteLater();
  fill(widget_, *menu_);
}

void StatusMenu::fill(QMenu& into, const ports::Menu& from) {
  for (const auto& item : from.items) item->isSeparator ? void(into.addSeparator()) : add(into, item);
}

void StatusMenu::add(QMenu& into, const std::shared_ptr<ports::MenuItem>& item) {
  if (item->submenu) {
    auto* submenu = new QMenu(plainText(item->title), &into);
    fill(*submenu, *item->submenu);
    into.addMenu(submenu);
    return;
  }
  QAction* action = into.addAction(plainText(item->title));
  action->setEnabled(actions_.isEnabled(*item));
  action->setCheckable(item->state != 0);
  action->setChecked(item->state == 1);
  QObject::connect(action, &QAction::triggered, action, [this, action, item] {
    // The mark tells the item's state, which only a new menu changes.
    if (action->isCheckable()) action->setChecked(item->state == 1);
    actions_.choose(item);
  });
}

}  // namespace platform::freedesktop
