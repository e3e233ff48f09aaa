#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "app/agent_app_delegate.h"
#include "base/date.h"
#include "base/notification_center.h"
#include "main/observed_tool_runs.h"
#include "platform/embedded/terminal_desktop.h"
#include "ports/host.h"

// Follows which backups were wanted (the question was answered "Backup", or the volume's flag says so), and
// what became of each: whether its image stands in the store once the engine is idle. Says so on standard
// output. Main thread.
class WantedBackups {
 public:
  // All outlive this. Made before the agent is launched.
  WantedBackups(const ports::Host& host, const platform::embedded::TerminalDesktop& desktop,
                const ObservedToolRuns& tools);
  ~WantedBackups();
  WantedBackups(const WantedBackups&) = delete;
  WantedBackups& operator=(const WantedBackups&) = delete;

  // Once the agent was launched. `settled` is called from the main queue each time that the agent has dealt
  // with something and nothing that was wanted is left to do.
  void follow(ZQAgentAppDelegate& agent, std::function<void()> settled);

  // Looks, later, whether all is settled.
  void checkLater();

  // How long it takes until a backup of the volume would have a name that none in the store has: names tell
  // seconds, and no fractions.
  double secondsToNextBackup(const std::string& volume) const;

  // Volumes that the agent could ask about, so far.
  int arrivals() const { return arrivals_; }
  // Whether every backup that was wanted stands in the store.
  bool allMade() const { return made_ == wanted_.size(); }

 private:
  using Device = std::shared_ptr<ZQRemovableDevice>;

  void observe(void (WantedBackups::*handler)(const ZQRemovableDevice&));
  void aboutToArrive(const ZQRemovableDevice& device);
  void arrived(const ZQRemovableDevice& device);
  void takeAnswers();
  void queueChanged();
  void observeQueue();
  void check();
  void judge(const std::string& volume);
  std::set<std::string> imagesOf(const std::string& volume) const;

  ports::Host host_;
  const platform::embedded::TerminalDesktop& desktop_;
  const ObservedToolRuns& tools_;
  ZQAgentAppDelegate* agent_ = nullptr;
  std::function<void()> settled_;
  const base::Date launched_;
  std::vector<base::NotificationCenter::Token> observers_;

  int arrivals_ = 0;
  std::size_t answersSeen_ = 0;
  std::size_t answersBeforeArrival_ = 0;
  // For each volume that was there: the images that were in the store before, or have been told of.
  std::map<std::string, std::set<std::string>> known_;
  std::vector<std::string> wanted_;  // volume names, in order
  std::size_t judged_ = 0;
  std::size_t made_ = 0;
  std::size_t started_ = 0;  // runs of the engine
  std::shared_ptr<WantedBackups*> self_;
};
