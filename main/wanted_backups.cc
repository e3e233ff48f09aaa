#include "main/wanted_backups.h"

#include <cmath>
#include <cstdio>

#include "base/format.h"
#include "platform/embedded/terminal_text.h"
#include "store/backup_catalogue.h"

namespace {

constexpr std::int32_t kBackUpAutomatically = 1;

void say(const std::string& line) {
  std::printf("%s\n", platform::embedded::shownText(line).c_str());
  std::fflush(stdout);
}

}  // namespace

WantedBackups::WantedBackups(const ports::Host& host, const platform::embedded::TerminalDesktop& desktop,
                             const ObservedToolRuns& tools)
    : host_(host),
      desktop_(desktop),
      tools_(tools),
      launched_(host.dates.now()),
      self_(std::make_shared<WantedBackups*>(this)) {
  observe(&WantedBackups::aboutToArrive);
}

WantedBackups::~WantedBackups() {
  for (const auto token : observers_) host_.notifications.removeObserver(token);
  if (agent_ && agent_->stashwick()) agent_->stashwick()->operationQueue()->removeObserver(this);
}

void WantedBackups::follow(ZQAgentAppDelegate& agent, std::function<void()> settled) {
  agent_ = &agent;
  settled_ = std::move(settled);
  // After the agent's own observer: it has asked, and started the engine, when this one is told.
  observe(&WantedBackups::arrived);
  observeQueue();
}

double WantedBackups::secondsToNextBackup(const std::string& volume) const {
  // File systems stamp with a clock that lags by up to a tick.
  constexpr double kTick = 0.02;
  const auto backups = agent_->stashwick()->backupsForVolume(volume);
  const double now = host_.dates.now().unix();
  const double nextSecond = std::floor(now) + 1;
  const bool isThisSecond = !backups.empty() && backups.back()->backupDate().unix() + kTick >= nextSecond - 1;
  return isThisSecond ? nextSecond - now : 0;
}

void WantedBackups::observe(void (WantedBackups::*handler)(const ZQRemovableDevice&)) {
  observers_.push_back(host_.notifications.addObserver(ZQRemovableDeviceCenterDeviceMountedNotification, {},
                                                       [this, handler](const base::Notification& posted) {
                                                         if (const auto* device =
                                                                 std::any_cast<Device>(&posted.object))
                                                           (this->*handler)(**device);
                                                       }));
}

void WantedBackups::observeQueue() {
  agent_->stashwick()->operationQueue()->addObserver(this, [this] { queueChanged(); });
}

void WantedBackups::aboutToArrive(const ZQRemovableDevice& device) {
  known_.try_emplace(device.name(), imagesOf(device.name()));
  answersBeforeArrival_ = desktop_.answeredAlerts().size();
}

void WantedBackups::arrived(const ZQRemovableDevice& device) {
  const bool isAskedAbout = device.type() == ZQRemovableDeviceTypeExternal &&
                            device.protocol() == ZQRemovableDeviceProtocolUSB &&
                            device.connectionDate() > launched_;
  if (!isAskedAbout) return;
  ++arrivals_;
  const bool wasAsked = desktop_.answeredAlerts().size() != answersBeforeArrival_;
  takeAnswers();
  if (!wasAsked && agent_->_backupStateForDevice(device) == kBackUpAutomatically) {
    wanted_.push_back(device.name());
  }
  checkLater();
}

void WantedBackups::takeAnswers() {
  const auto& answers = desktop_.answeredAlerts();
  for (; answersSeen_ < answers.size(); ++answersSeen_) {
    const auto& [message, answer] = answers[answersSeen_];
    if (answer.returnCode != ports::kAlertFirstButtonReturn) continue;
    for (const auto& [volume, images] : known_) {
      const auto question = host_.bundle.localizedString("Backup \"%@\"?");
      if (message == base::stringWithFormat(question, {volume})) wanted_.push_back(volume);
    }
  }
}

// On the main thread the change is a run that begins, elsewhere a step that was queued or is over.
void WantedBackups::queueChanged() {
  if (host_.mainQueue.isMainThread()) {
    ++started_;
    // Behind the engine's own observer, which it adds for each run: the end of the run is told here once the
    // engine has told the agent.
    agent_->stashwick()->operationQueue()->removeObserver(this);
    observeQueue();
  }
  checkLater();
}

void WantedBackups::checkLater() {
  host_.mainQueue.post([self = std::weak_ptr(self_)] {
    if (const auto wanted = self.lock()) (*wanted)->check();
  });
}

void WantedBackups::check() {
  takeAnswers();
  // What was wanted and not started waits for the main application to quit.
  if (agent_->stashwick()->hasOperations() || started_ < wanted_.size()) return;
  for (; judged_ < wanted_.size(); ++judged_) judge(wanted_[judged_]);
  settled_();
}

void WantedBackups::judge(const std::string& volume) {
  auto& known = known_[volume];
  for (const auto& image : imagesOf(volume)) {
    if (!known.insert(image).second) continue;
    ++made_;
    return say(volume + ": backed up to " + image);
  }
  say(volume + ": no backup was made: " + tools_.lastFailure().value_or("see the log above"));
}

std::set<std::string> WantedBackups::imagesOf(const std::string& volume) const {
  std::set<std::string> images;
  host_.files.enumerate(BackupCatalogue(host_).backupDirectory() + "/" + volume, {},
                        [&](const ports::FileItem& item) {
                          if (item.isRegularFile && item.name.ends_with(".dmg")) images.emplace(item.path);
                          return true;
                        });
  return images;
}
