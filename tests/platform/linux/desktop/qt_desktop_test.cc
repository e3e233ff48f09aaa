#include "platform/linux/qt_desktop.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCheckBox>
#include <QLabel>
#include <QMenu>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QTest>
#include <QTimer>

#include "tests/contract/desktop_contract.h"
#include "tests/platform/posix/recording_log.h"

namespace contract {
namespace {

using platform::freedesktop::QtDesktop;
using platform::freedesktop::QtMainQueue;

// Has one resource.
class AlertSound : public ports::Bundle {
 public:
  static constexpr const char* kPath = "/resources/Alert.wav";

  std::optional<std::string> pathForResource(std::string_view name, std::string_view type) override {
    const std::string file = std::string(name) + (type.empty() ? "" : ".") + std::string(type);
    return file == "Alert.wav" ? std::optional(kPath) : std::nullopt;
  }
  std::string localizedString(std::string_view key) override { return std::string(key); }
};

class Application {
 private:
  int count_ = 1;
  std::array<char, 5> name_{"test"};
  std::array<char*, 2> arguments_{name_.data(), nullptr};
  QApplication application_{count_, arguments_.data()};
};

QMessageBox* openBox() { return qobject_cast<QMessageBox*>(QApplication::activeModalWidget()); }

// A user in front of Qt's own screen, who acts once an alert is open.
class QtFixture {
 public:
  using Act = std::function<void()>;

  QtDesktop& desktop() { return desktop_; }
  ports::MainQueue& mainQueue() { return queue_; }
  bool runUntil(const std::function<bool()>& condition) { return QTest::qWaitFor(condition, 30000); }

  void answerNextAlert(int button, bool suppressed, Act whileOpen) {
    once([button, suppressed, whileOpen = std::move(whileOpen)](QMessageBox& box) {
      if (whileOpen) whileOpen();
      if (box.checkBox() != nullptr && box.checkBox()->isChecked() != suppressed) box.checkBox()->click();
      press(box, kTitles.at(static_cast<std::size_t>(button)));
    });
  }
  void pressTheNextPanelsButton(Act whileOpen) {
    once([this, whileOpen = std::move(whileOpen)](QMessageBox& box) {
      if (whileOpen) whileOpen();
      panelText_ = box.informativeText().toStdString();
      press(box, "OK");
    });
  }
  void closeDesktopAtNextAlert() {
    once([this](QMessageBox&) { desktop_.close(); });
  }
  std::string panelText() const { return panelText_; }
  std::vector<std::string> logLines() const { return log_.lines(); }

  std::vector<std::string> menuTitles() {
    std::vector<std::string> titles;
    if (desktop_.menu() != nullptr) addTitles(desktop_.menu()->widget(), titles);
    return titles;
  }
  bool isEnabled(const std::string& title) { return action(desktop_.menu()->widget(), title)->isEnabled(); }
  void choose(const std::string& title) {
    action(desktop_.menu()->widget(), title)->trigger();
    bool done = false;
    queue_.post([&] { done = true; });
    runUntil([&] { return done; });
  }
  bool terminateRequested() const { return terminateRequested_; }

 private:
  static constexpr std::array kTitles{"Backup", "Later", "Ignore Volume"};

  void once(const std::function<void(QMessageBox&)>& act) {
    QTimer::singleShot(0, &context_, [this, act] {
      QMessageBox* box = openBox();
      box == nullptr ? once(act) : act(*box);
    });
  }
  static void press(QMessageBox& box, const char* title) {
    for (QAbstractButton* button : box.buttons())
      if (button->text() == title) return QTest::mouseClick(button, Qt::LeftButton);
    ADD_FAILURE() << "no button " << title;
  }
  static void addTitles(const QMenu& menu, std::vector<std::string>& titles) {
    for (const QAction* item : menu.actions()) {
      titles.push_back(item->isSeparator() ? "-" : item->text().toStdString());
      if (item->menu() != nullptr) addTitles(*item->menu(), titles);
    }
  }
  static QAction* action(const QMenu& menu, const std::string& title) {
    for (QAction* item : menu.actions()) {
      if (item->text().toStdString() == title) return item;
      if (item->menu() == nullptr) continue;
      if (QAction* inner = action(*item->menu(), title)) return inner;
    }
    return nullptr;
  }

  Application application_;
  QtMainQueue queue_;
  platform::posix::PathMap paths_{"/tools", "/volumes"};
  AlertSound bundle_;
  RecordingLog log_;
  bool terminateRequested_ = false;
  std::string panelText_;
  QObject context_;
  QtDesktop desktop_{{.queue = queue_, .paths = paths_, .bundle = bundle_, .log = log_},
                     [this] { terminateRequested_ = true; }};
};
INSTANTIATE_TYPED_TEST_SUITE_P(Qt, DesktopContract, QtFixture);

// Sounds without a way to play them: what cannot be played is logged.
class QtSound : public testing::Test {
 protected:
  static void SetUpTestSuite() { ::setenv("CANBERRA_DRIVER", "there is none", 1); }
  static void TearDownTestSuite() { ::unsetenv("CANBERRA_DRIVER"); }

  QtFixture fixture;
};

TEST_F(QtSound, isTheResourceOfItsWholeName) {
  fixture.desktop().playSound("Missing.wav");
  fixture.desktop().playSound("Alert.wav");
  fixture.runUntil([this] { return !fixture.logLines().empty(); });
  EXPECT_THAT(fixture.logLines(), testing::ElementsAre(testing::HasSubstr(AlertSound::kPath)));
}

// A box that is open, and what a test looks at in it.
class QtAlert : public testing::Test {
 protected:
  void whileOpen(const ports::Alert& alert, const std::function<void(QMessageBox&)>& look) {
    fixture.answerNextAlert(0, false, [&] { look(*openBox()); });
    fixture.desktop().runModal(alert);
  }
  static ports::Alert alert(std::string message, std::string below, std::vector<std::string> buttons) {
    ports::Alert alert;
    alert.messageText = std::move(message);
    alert.informativeText = std::move(below);
    alert.buttons = std::move(buttons);
    return alert;
  }

  QtFixture fixture;
};

TEST_F(QtAlert, hasTheFirstButtonAsDefaultAndLeavesWithTheSecondByEscape) {
  whileOpen(alert("m", "i", {"Backup", "Later", "Ignore Volume"}), [](QMessageBox& box) {
    EXPECT_EQ(box.defaultButton()->text(), "Backup");
    EXPECT_EQ(box.escapeButton()->text(), "Later");
  });
}

TEST_F(QtAlert, showsTextsAsTheyAre) {
  whileOpen(alert("<b>A & B</b>", "<i>50%</i> && more", {"Backup"}), [](QMessageBox& box) {
    EXPECT_EQ(box.text(), "<b>A & B</b>");
    EXPECT_EQ(box.textFormat(), Qt::PlainText);
    EXPECT_EQ(box.findChild<QLabel*>("qt_msgbox_informativelabel")->textFormat(), Qt::PlainText);
  });
}

TEST_F(QtAlert, ticksTheBoxBeforehandWhereItIsAskedTo) {
  auto ticked = alert("m", "i", {"Backup"});
  ticked.showsSuppressionButton = true;
  ticked.suppressionTitle = "Always & ever";
  ticked.suppressed = true;
  whileOpen(ticked, [](QMessageBox& box) {
    EXPECT_TRUE(box.checkBox()->isChecked());
    EXPECT_EQ(box.checkBox()->text(), "Always && ever");
  });
}

class QtMenu : public testing::Test {
 protected:
  static std::shared_ptr<ports::Menu> menuOf(std::shared_ptr<ports::MenuItem> item) {
    return std::make_shared<ports::Menu>(ports::Menu{{std::move(item)}});
  }
  QMenu& widget() { return fixture.desktop().menu()->widget(); }

  QtFixture fixture;
  RecordingResponder responder;
};

TEST_F(QtMenu, isFilledAnewInPlace) {
  const auto status = fixture.desktop().createStatusItem(ports::kSquareStatusItemLength);
  const QMenu* before = &widget();
  for (const char* title : {"One", "Two"}) status->setMenu(menuOf(std::make_shared<ports::MenuItem>(title)));
  EXPECT_EQ(&widget(), before);
  EXPECT_THAT(fixture.menuTitles(), testing::ElementsAre("Two"));
}

TEST_F(QtMenu, keepsAnItemThatSaysTheSameAndPerformsTheNewOne) {
  fixture.desktop().setMenuResponder(&responder);
  const auto status = fixture.desktop().createStatusItem(ports::kSquareStatusItemLength);
  status->setMenu(menuOf(std::make_shared<ports::MenuItem>("Act", "old:")));
  const QAction* before = widget().actions().front();
  status->setMenu(menuOf(std::make_shared<ports::MenuItem>("Act", "new:")));
  EXPECT_EQ(widget().actions().front(), before);
  fixture.choose("Act");
  EXPECT_THAT(responder.performed, testing::ElementsAre("new: Act"));
  fixture.desktop().setMenuResponder(nullptr);
}

TEST_F(QtMenu, replacesAnItemThatSaysSomethingElseOrLosesItsMark) {
  const auto status = fixture.desktop().createStatusItem(ports::kSquareStatusItemLength);
  const auto itemFor = [&](const char* title, int state) {
    auto item = std::make_shared<ports::MenuItem>(title, "act:");
    item->state = state;
    status->setMenu(menuOf(item));
    return QPointer(widget().actions().front());
  };
  const auto marked = itemFor("Act", 1);
  const auto plain = itemFor("Act", 0);
  EXPECT_TRUE(marked.isNull());
  itemFor("Act on another", 0);
  EXPECT_TRUE(plain.isNull());
}

TEST_F(QtMenu, keepsAMarkUntilTheNextMenu) {
  fixture.desktop().setMenuResponder(&responder);
  const auto status = fixture.desktop().createStatusItem(ports::kSquareStatusItemLength);
  auto item = std::make_shared<ports::MenuItem>("Automatic", "toggle:");
  item->state = 1;
  status->setMenu(menuOf(item));
  fixture.choose("Automatic");
  EXPECT_TRUE(widget().actions().front()->isChecked());
  EXPECT_THAT(responder.performed, testing::ElementsAre("toggle: Automatic"));
  fixture.desktop().setMenuResponder(nullptr);
}

TEST_F(QtMenu, showsAnAmpersandAsOne) {
  const auto status = fixture.desktop().createStatusItem(ports::kSquareStatusItemLength);
  status->setMenu(menuOf(std::make_shared<ports::MenuItem>("Backup \"A&B\"")));
  EXPECT_EQ(widget().actions().front()->text(), "Backup \"A&&B\"");
}

TEST_F(QtMenu, opensAsAWindowWhereNoPanelShowsIt) {
  fixture.desktop().setMenuResponder(&responder);
  const auto status = fixture.desktop().createStatusItem(ports::kSquareStatusItemLength);
  status->setMenu(menuOf(std::make_shared<ports::MenuItem>("Act", "act:")));
  fixture.desktop().showMenuWindow();
  const auto windows = QApplication::topLevelWidgets();
  const auto window =
      std::ranges::find_if(windows, [](QWidget* each) { return each->windowTitle() == "Stashwick"; });
  ASSERT_NE(window, windows.end());
  auto* button = (*window)->findChild<QPushButton*>();
  ASSERT_NE(button, nullptr);
  EXPECT_EQ(button->text(), "Act");
  QTest::mouseClick(button, Qt::LeftButton);
  EXPECT_TRUE(fixture.runUntil([&] { return !responder.performed.empty(); }));
  fixture.desktop().setMenuResponder(nullptr);
}

}  // namespace
}  // namespace contract
