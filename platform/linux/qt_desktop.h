#pragma once

#include <QDBusServiceWatcher>
#include <QDialog>
#include <QIcon>
#include <QMessageBox>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/qt_main_queue.h"
#include "platform/linux/sound_player.h"
#include "platform/linux/status_menu.h"
#include "platform/posix/path_map.h"
#include "ports/bundle.h"
#include "ports/desktop.h"
#include "ports/system_log.h"

namespace platform::freedesktop {

// The desktop of a Linux user, by Qt: a status notifier item, its menu and alerts. Needs a QApplication, made
// before and gone after it. Where no panel shows status items, the same menu can be shown as a window.
class QtDesktop : public ports::Desktop {
 public:
  struct Surroundings {
    QtMainQueue& queue;
    const posix::PathMap& paths;
    ports::Bundle& bundle;
    ports::SystemLog& log;
  };

  // terminate: what the menu's quit item does.
  QtDesktop(const Surroundings& surroundings, std::function<void()> terminate);
  ~QtDesktop() override;

  std::unique_ptr<ports::StatusItem> createStatusItem(double length) override;
  void setMenuResponder(ports::MenuResponder* responder) override;
  void activateIgnoringOtherApps() override { activates_ = true; }
  void playSound(const std::string& resourceName) override;
  ports::AlertAnswer runModal(const ports::Alert& alert) override;
  void runCriticalAlertPanel(const std::string& title, const std::string& messageFormat,
                             const std::string& defaultButton) override;
  void launchApplication(const std::string& name) override;
  std::shared_ptr<const ports::Image> iconForFile(const std::string& path) override;

  // A distinct icon while a backup runs.
  void setBusy(bool busy);
  // Shows the status item's menu as a window, for a user whose desktop has no place for status items.
  void showMenuWindow();
  // The desktop goes away: an alert that is open, and all later ones, answer with no button's code.
  void close();

  // Null without a status item.
  StatusMenu* menu() { return menu_.get(); }

 private:
  class StatusItem;

  bool isEnabled(const ports::MenuItem& item) const;
  void choose(const std::shared_ptr<ports::MenuItem>& item);
  int run(QMessageBox& box);
  QIcon statusIcon() const;
  void placeOnPanel();
  void openMenu();
  void explainMissingPanel();
  void fillWindow();

  Surroundings around_;
  const std::function<void()> terminate_;
  ports::MenuResponder* responder_ = nullptr;
  SoundPlayer sounds_;
  std::unique_ptr<StatusMenu> menu_;
  std::unique_ptr<QSystemTrayIcon> tray_;
  std::unique_ptr<QDialog> window_;
  std::string imageName_;
  bool busy_ = false;
  bool activates_ = false;
  bool closed_ = false;
  std::vector<QMessageBox*> open_;
  QDBusServiceWatcher panels_;
};

}  // namespace platform::freedesktop
