#pragma once

#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

#include "platform/posix/file_descriptor.h"

// A program that runs beside the test, killed if it still does when the test ends. Its standard input is
// empty, or a terminal that the test types on.
class Program {
 public:
  enum class Screen { none, terminal };

  // Variables are set over this process's own; an empty value takes one away.
  Program(const std::vector<std::string>& commandLine, const std::map<std::string, std::string>& variables,
          const std::string& workingFolder, Screen screen = Screen::none);
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  // Waits for the text in what came after the text expected last, and fails when it does not come.
  void expect(const std::string& text);
  void type(const std::string& keys);
  void signal(int number) const;
  // Waits for the end. The exit status, or 128 and the signal that ended it.
  int wait();

  pid_t process() const { return process_; }
  // All that came so far; on a terminal both outputs are one.
  const std::string& output() const { return output_; }
  const std::string& errors() const { return errors_; }

 private:
  bool readMore(int milliseconds);

  pid_t process_ = -1;
  platform::posix::FileDescriptor input_;
  platform::posix::FileDescriptor outputEnd_;
  platform::posix::FileDescriptor errorsEnd_;
  std::string output_;
  std::string errors_;
  std::size_t expected_ = 0;  // how far in output_
};
