#pragma once

#include <memory>
#include <string>
#include <vector>

namespace ports {

struct Menu;

// The selector that the desktop carries out itself when its item's target is the application.
inline constexpr const char* kTerminateAction = "terminate:";

// One entry of a menu, as data.
class MenuItem {
 public:
  enum class Target { firstResponder, application };

  MenuItem() = default;
  explicit MenuItem(std::string itemTitle, std::string itemAction = {})
      : title(std::move(itemTitle)), action(std::move(itemAction)) {}
  virtual ~MenuItem() = default;

  std::string title;
  std::string action;  // a selector; empty: the item does nothing
  Target target = Target::firstResponder;
  std::string keyEquivalent;
  int state = 0;  // 1 on, 0 off, -1 mixed
  bool isSeparator = false;
  std::shared_ptr<Menu> submenu;
};

struct Menu {
  std::vector<std::shared_ptr<MenuItem>> items;
};

// Who answers the actions of menu items that have no target of their own.
class MenuResponder {
 public:
  virtual ~MenuResponder() = default;
  virtual bool validateMenuItem(const MenuItem& item) = 0;
  virtual void performMenuAction(const std::string& selector, MenuItem& sender) = 0;
};

// The length that makes a status item as wide as the bar is high.
inline constexpr double kSquareStatusItemLength = -2.0;

// The agent's place in the status bar; gone when destroyed.
class StatusItem {
 public:
  virtual ~StatusItem() = default;
  virtual void setImage(const std::string& resourceName) = 0;
  virtual void setHighlightMode(bool highlights) = 0;
  // Replaces the menu. An item is enabled when it has a submenu, or an action that the responder validates (a
  // terminate: of the application needs no responder); separators and items without action are not.
  virtual void setMenu(std::shared_ptr<const Menu> menu) = 0;
};

// An icon as the desktop knows it.
class Image {
 public:
  virtual ~Image() = default;
};

struct Alert {
  std::shared_ptr<const Image> icon;
  std::string messageText;
  std::string informativeText;
  std::vector<std::string> buttons;  // the first is the default
  bool showsSuppressionButton = false;
  std::string suppressionTitle;
  bool suppressed = false;  // the check box, beforehand
};

inline constexpr int kAlertFirstButtonReturn = 1000;
inline constexpr int kAlertSecondButtonReturn = 1001;
inline constexpr int kAlertThirdButtonReturn = 1002;

struct AlertAnswer {
  int returnCode = kAlertSecondButtonReturn;  // kAlertFirstButtonReturn + index of the button
  bool suppressed = false;                    // the check box, afterwards
};

// What the user sees and touches. Main thread only.
class Desktop {
 public:
  virtual ~Desktop() = default;

  virtual std::unique_ptr<StatusItem> createStatusItem(double length) = 0;
  // The responder is not owned and is asked only while it is set; null takes it away.
  virtual void setMenuResponder(MenuResponder* responder) = 0;

  virtual void activateIgnoringOtherApps() = 0;
  // Returns at once; the sound is a resource of the application.
  virtual void playSound(const std::string& resourceName) = 0;
  // Blocks until the user has answered. Delayed calls of the main queue wait meanwhile. A desktop that is
  // being closed answers with a code that is none of the buttons'.
  virtual AlertAnswer runModal(const Alert& alert) = 0;
  // Blocks until the user has pressed the button. The message is a format without arguments: an adapter shows
  // base::stringWithFormatOnly of it.
  virtual void runCriticalAlertPanel(const std::string& title, const std::string& messageFormat,
                                     const std::string& defaultButton) = 0;
  virtual void launchApplication(const std::string& name) = 0;
  // The icon of what stands at a logical path; null when there is none to be had.
  virtual std::shared_ptr<const Image> iconForFile(const std::string& path) = 0;
};

}  // namespace ports
