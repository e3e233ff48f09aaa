#include "platform/linux/qt_desktop.h"

#include <QApplication>
#include <QCheckBox>
#include <QCursor>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDialog>
#include <QFileIconProvider>
#include <QFileInfo>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>
#include <algorithm>

#include "base/format.h"
#include "platform/linux/application_launch.h"

namespace platform::freedesktop {
namespace {

constexpr const char* kWatcher = "org.kde.StatusNotifierWatcher";
constexpr const char* kThemeIcon = "com.stashwick.Agent-symbolic";
constexpr const char* kBusyThemeIcon = "com.stashwick.Agent-busy-symbolic";
constexpr const char* kApplicationName = "Stashwick";
constexpr int kClosed = -1;
// How long a panel is waited for before the old way of status icons is tried.
constexpr double kPatienceWithPanel = 10;

class Icon : public ports::Image {
 public:
  explicit Icon(QIcon icon) : icon_(std::move(icon)) {}
  const QIcon& icon() const { return icon_; }

 private:
  QIcon icon_;
};

// The texts of alerts are texts, whatever they look like.
void showPlain(QMessageBox& box, const QString& text, const QString& below) {
  box.setTextFormat(Qt::PlainText);
  box.setText(text);
  box.setInformativeText(below);
  if (auto* label = box.findChild<QLabel*>("qt_msgbox_informativelabel")) label->setTextFormat(Qt::PlainText);
  if (auto* label = box.findChild<QLabel*>("qt_msgbox_label")) {
    QFont heading = label->font();
    heading.setBold(true);
    label->setFont(heading);
  }
}

QMessageBox::ButtonRole roleOf(std::size_t button) {
  if (button == 0) return QMessageBox::AcceptRole;
  return button == 1 ? QMessageBox::RejectRole : QMessageBox::DestructiveRole;
}

bool hasPanel() {
  const auto bus = QDBusConnection::sessionBus();
  return bus.isConnected() && bus.interface()->isServiceRegistered(kWatcher);
}

}  // namespace

class QtDesktop::StatusItem : public ports::StatusItem {
 public:
  explicit StatusItem(QtDesktop& desktop) : desktop_(desktop) {}
  ~StatusItem() override {
    desktop_.menu_->show(std::make_shared<ports::Menu>());
    desktop_.tray_.reset();
    desktop_.menu_.reset();
  }
  void setImage(const std::string& resourceName) override {
    desktop_.imageName_ = resourceName;
    // Once the toolkit has put an icon up the old way, it never offers one to a panel: so it waits for one.
    if (hasPanel()) desktop_.placeOnPanel();
    desktop_.setBusy(desktop_.busy_);
  }
  // Panels highlight as they see fit.
  void setHighlightMode(bool /*highlights*/) override {}
  void setMenu(std::shared_ptr<const ports::Menu> menu) override {
    desktop_.menu_->show(std::move(menu));
    if (desktop_.window_) desktop_.fillWindow();
  }

 private:
  QtDesktop& desktop_;
};

QtDesktop::QtDesktop(const Surroundings& surroundings, std::function<void()> terminate)
    : around_(surroundings),
      terminate_(std::move(terminate)),
      sounds_(surroundings.log),
      panels_(kWatcher, QDBusConnection::sessionBus(), QDBusServiceWatcher::WatchForRegistration) {
  QApplication::setQuitOnLastWindowClosed(false);
  QObject::connect(&panels_, &QDBusServiceWatcher::serviceRegistered, &panels_, [this] { placeOnPanel(); });
}

QtDesktop::~QtDesktop() { close(); }

std::unique_ptr<ports::StatusItem> QtDesktop::createStatusItem(double /*length*/) {
  menu_ = std::make_unique<StatusMenu>(
      MenuActions{.isEnabled = [this](const ports::MenuItem& item) { return isEnabled(item); },
                  .choose = [this](const std::shared_ptr<ports::MenuItem>& item) { choose(item); }});
  around_.queue.postAfter(kPatienceWithPanel, [this] { explainMissingPanel(); });
  return std::make_unique<StatusItem>(*this);
}

void QtDesktop::placeOnPanel() {
  if (!menu_ || tray_) return;
  tray_ = std::make_unique<QSystemTrayIcon>(statusIcon());
  tray_->setToolTip(kApplicationName);
  tray_->setContextMenu(&menu_->widget());
  QObject::connect(tray_.get(), &QSystemTrayIcon::activated, tray_.get(),
                   [this](QSystemTrayIcon::ActivationReason reason) {
                     if (reason == QSystemTrayIcon::Trigger) openMenu();
                   });
  tray_->show();
}

void QtDesktop::openMenu() {
  // Elsewhere a program cannot know where on the screen the user has clicked.
  if (QGuiApplication::platformName() != "xcb") return showMenuWindow();
  menu_->widget().popup(QCursor::pos());
}

void QtDesktop::explainMissingPanel() {
  if (!menu_ || tray_) return;
  if (QSystemTrayIcon::isSystemTrayAvailable()) return placeOnPanel();
  auto note =
      QDBusMessage::createMethodCall("org.freedesktop.Notifications", "/org/freedesktop/Notifications",
                                     "org.freedesktop.Notifications", "Notify");
  note << kApplicationName << 0U << kThemeIcon
       << QString::fromStdString(around_.bundle.localizedString("Stashwick is running"))
       << QString::fromStdString(around_.bundle.localizedString(
              "This desktop shows no status icons. Start Stashwick again to open its menu."))
       << QStringList() << QVariantMap() << -1;
  QDBusConnection::sessionBus().asyncCall(note);
}

QIcon QtDesktop::statusIcon() const {
  const auto path = around_.bundle.pathForResource(imageName_, "png");
  const QIcon own = path ? QIcon(QString::fromStdString(around_.paths.hostPath(*path))) : QIcon();
  return QIcon::fromTheme(busy_ ? kBusyThemeIcon : kThemeIcon, own);
}

void QtDesktop::setBusy(bool busy) {
  busy_ = busy;
  if (tray_) tray_->setIcon(statusIcon());
}

void QtDesktop::setMenuResponder(ports::MenuResponder* responder) {
  responder_ = responder;
  if (menu_) menu_->validate();
}

bool QtDesktop::isEnabled(const ports::MenuItem& item) const {
  if (item.action.empty()) return false;
  const bool isApplications = item.target == ports::MenuItem::Target::application;
  if (isApplications) return item.action == ports::kTerminateAction;
  return responder_ != nullptr && responder_->validateMenuItem(item);
}

// Later: what the panel asked for is answered first, and an open alert holds the choice up.
void QtDesktop::choose(const std::shared_ptr<ports::MenuItem>& item) {
  around_.queue.post([this, item] {
    if (item->target == ports::MenuItem::Target::application) return terminate_();
    if (responder_ != nullptr) responder_->performMenuAction(item->action, *item);
  });
}

void QtDesktop::playSound(const std::string& resourceName) {
  const auto path = around_.bundle.pathForResource(resourceName, "");
  if (path) sounds_.play(around_.paths.hostPath(*path));
}

int QtDesktop::run(QMessageBox& box) {
  if (closed_) return kClosed;
  const QtMainQueue::ModalScope modal(around_.queue);
  box.setWindowTitle(kApplicationName);
  box.setWindowIcon(QIcon::fromTheme("com.stashwick.Agent", statusIcon()));
  box.setWindowFlag(Qt::WindowStaysOnTopHint, activates_);
  open_.push_back(&box);
  box.show();
  box.raise();
  if (std::exchange(activates_, false)) box.activateWindow();
  box.exec();
  std::erase(open_, &box);
  const auto buttons = box.buttons();
  return closed_ ? kClosed : static_cast<int>(buttons.indexOf(box.clickedButton()));
}

ports::AlertAnswer QtDesktop::runModal(const ports::Alert& alert) {
  QMessageBox box;
  showPlain(box, QString::fromStdString(alert.messageText), QString::fromStdString(alert.informativeText));
  if (const auto* icon = dynamic_cast<const Icon*>(alert.icon.get()))
    box.setIconPixmap(icon->icon().pixmap(64));
  else
    box.setIcon(QMessageBox::Question);
  std::vector<QPushButton*> buttons;
  for (const auto& title : alert.buttons)
    buttons.push_back(box.addButton(plainText(title), roleOf(buttons.size())));
  if (!buttons.empty()) box.setDefaultButton(buttons.front());
  if (buttons.size() > 1) box.setEscapeButton(buttons[1]);
  QCheckBox suppression(plainText(alert.suppressionTitle));
  suppression.setChecked(alert.suppressed);
  if (alert.showsSuppressionButton) box.setCheckBox(&suppression);
  const int code = run(box);
  const auto pressed = std::ranges::find(buttons, code == kClosed ? nullptr : box.clickedButton());
  const ports::AlertAnswer answer{
      .returnCode = pressed == buttons.end()
                        ? kClosed
                        : ports::kAlertFirstButtonReturn + static_cast<int>(pressed - buttons.begin()),
      .suppressed = suppression.isChecked()};
  // The box does not own what stands on this stack.
  suppression.setParent(nullptr);
  return answer;
}

void QtDesktop::runCriticalAlertPanel(const std::string& title, const std::string& messageFormat,
                                      const std::string& defaultButton) {
  QMessageBox box;
  box.setIcon(QMessageBox::Critical);
  showPlain(box, QString::fromStdString(title),
            QString::fromStdString(base::stringWithFormatOnly(messageFormat)));
  box.setDefaultButton(box.addButton(plainText(defaultButton), QMessageBox::AcceptRole));
  activates_ = true;
  run(box);
}

void QtDesktop::launchApplication(const std::string& name) {
  if (const auto failure = launchDesktopEntry(name)) around_.log.log("[Stashwick] " + *failure);
}

std::shared_ptr<const ports::Image> QtDesktop::iconForFile(const std::string& path) {
  const QFileInfo file(QString::fromStdString(around_.paths.hostPath(path)));
  if (!file.exists()) return nullptr;
  const bool isVolume = path.starts_with("/Volumes/") && path.find('/', 9) == std::string::npos;
  const QIcon icon = QFileIconProvider().icon(file);
  return std::make_shared<Icon>(isVolume ? QIcon::fromTheme("drive-removable-media-usb",
                                                            QIcon::fromTheme("drive-removable-media", icon))
                                         : icon);
}

void QtDesktop::showMenuWindow() {
  if (!menu_) return;
  if (!window_) {
    window_ = std::make_unique<QDialog>();
    window_->setWindowTitle(kApplicationName);
    new QVBoxLayout(window_.get());
  }
  fillWindow();
  window_->show();
  window_->raise();
  window_->activateWindow();
}

void QtDesktop::fillWindow() {
  QLayout& layout = *window_->layout();
  while (QLayoutItem* old = layout.takeAt(0)) {
    if (old->widget() != nullptr) old->widget()->deleteLater();
    delete old;
  }
  for (QAction* action : menu_->widget().actions()) {
    if (action->isSeparator()) continue;
    if (action->menu() == nullptr && !action->isEnabled()) {
      layout.addWidget(new QLabel(action->text().replace("&&", "&")));
      continue;
    }
    auto* button = new QPushButton(action->text());
    if (action->menu() != nullptr) {
      button->setMenu(action->menu());
    } else {
      button->setCheckable(action->isCheckable());
      button->setChecked(action->isChecked());
      QObject::connect(button, &QPushButton::clicked, action, &QAction::trigger);
    }
    layout.addWidget(button);
  }
}

void QtDesktop::close() {
  closed_ = true;
  for (QMessageBox* box : std::vector(open_)) box->done(kClosed);
  window_.reset();
}

}  // namespace platform::freedesktop
