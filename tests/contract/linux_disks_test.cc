#include <map>
#include <string>

#include "platform/linux/qt_main_queue.h"
#include "platform/linux/udisks_arbitration.h"
#include "platform/posix/icu_dates.h"
#include "tests/contract/disk_arbitration_contract.h"
#include "tests/contract/main_queue_contract.h"
#include "tests/platform/linux/disks/mock_udisks.h"
#include "tests/platform/linux/disks/qt_loop.h"
#include "tests/platform/posix/recording_log.h"

namespace contract {
namespace {

struct QtQueue {
  ports::MainQueue& queue() { return loop_.queue; }
  bool runUntil(const std::function<bool()>& condition) { return loop_.runUntil(condition); }
  void end() { loop_.queue.close(); }

 private:
  QtLoop loop_;
};
INSTANTIATE_TYPED_TEST_SUITE_P(Linux, MainQueueContract, QtQueue);

// Sticks of a simulated UDisks2, which the desktop mounts at once.
class UDisks {
 public:
  ports::DiskArbitration& disks() { return disks_; }
  ports::MainQueue& mainQueue() { return loop_.queue; }
  bool runUntil(const std::function<bool()>& condition) { return loop_.runUntil(condition); }
  void plug(const std::string& name) {
    const Stick stick{.device = "sd" + QString::number(plugged_.size()),
                      .label = QString::fromStdString(name),
                      .mounted = true};
    plugged_.emplace(name, stick);
    udisks_.plug(stick);
  }
  void pull(const std::string& name) { udisks_.pull(plugged_.at(name)); }

 private:
  QtLoop loop_;
  PrivateBus bus_;
  MockUDisks udisks_{bus_};
  platform::posix::PathMap paths_{"/nonexistent/tools", "/nonexistent/volumes"};
  platform::posix::IcuDates dates_;
  RecordingLog log_;
  platform::freedesktop::UDisksArbitration disks_{{loop_.queue, paths_, dates_, log_},
                                                  {.busAddress = bus_.address(), .sysfs = udisks_.sysfs()}};
  std::map<std::string, Stick> plugged_;
};
INSTANTIATE_TYPED_TEST_SUITE_P(Linux, DiskArbitrationContract, UDisks);

}  // namespace
}  // namespace contract
