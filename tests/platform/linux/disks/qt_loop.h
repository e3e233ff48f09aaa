#pragma once

#include <QCoreApplication>
#include <QEventLoop>
#include <functional>

#include "platform/linux/qt_main_queue.h"

// Qt's event loop with a main queue, for one test.
class QtLoop {
 public:
  // Serves events until the condition holds; false when that takes too long.
  bool runUntil(const std::function<bool()>& condition) {
    bool tooLong = false;
    QTimer limit;
    limit.setSingleShot(true);
    QObject::connect(&limit, &QTimer::timeout, [&] { tooLong = true; });
    limit.start(20000);
    while (!condition() && !tooLong) QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    return !tooLong;
  }

 private:
  int argumentCount_ = 1;
  char name_[5] = "test";
  char* arguments_[2] = {name_, nullptr};
  QCoreApplication application_{argumentCount_, arguments_};

 public:
  platform::freedesktop::QtMainQueue queue;
};
