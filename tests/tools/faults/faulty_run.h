#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "tests/tools/scratch_folder.h"

// One way for a system call to go wrong; see shim/failing_calls.cc.
struct Fault {
  std::string call{};
  long at = 1;
  std::string kind{};
  bool lasts = false;
  // Of pread, instead of `at`: an offset in the image.
  std::optional<long> place{};
};

// A pread of the image that a run made.
struct ImageRead {
  long offset = 0;
  long size = 0;
  bool isStruck = false;

  bool has(long place) const { return place >= offset && place - offset < size; }
};

enum class Naming { nameless, hidden };
std::ostream& operator<<(std::ostream& out, Naming naming);

// Where to load the library from in which system calls fail; LD_PRELOAD takes no path with a blank.
std::string failingCalls(const ScratchFolder& scratch);

// Runs of the real tool over a small folder, in an environment where system calls fail.
class FaultyRuns {
 public:
  // Naming::hidden: on a file system that has no nameless files.
  explicit FaultyRuns(Naming naming) : FaultyRuns(naming, "") {}
  // With a password, images are encrypted.
  FaultyRuns(Naming naming, std::string password);

  ProgramResult create(const Fault& fault = {}) const;
  // Without faults or encryption.
  ProgramResult createPlain() const;
  // How often a run without faults makes each call that it makes at all.
  std::vector<Fault> everyCall();
  // That the last run made, in the order of their beginnings.
  std::vector<ImageRead> reads() const;
  // Everything in the image's folder.
  std::vector<std::string> names() const;
  // Empty when the image is whole and holds what the folder holds; otherwise what is wrong with it.
  std::string faultOfImage() const;
  void removeImage() const;

  std::string source() const { return scratch_ / "source"; }
  std::string image() const { return scratch_ / "images/out.dmg"; }
  // The line of shell that makes the image.
  std::string commandLine(const Fault& fault) const;

 private:
  std::string commandLine(const Fault& fault, const std::string& options) const;
  std::string contentsOfImage() const;

  ScratchFolder scratch_;
  Naming naming_;
  std::string password_;
  std::string contents_;
};
