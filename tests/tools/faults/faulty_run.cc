#include "tests/tools/faults/faulty_run.h"

#include <algorithm>
#include <ostream>
#include <random>
#include <sstream>
#include <sys/xattr.h>

#include "image/open.h"
#include "image/verify.h"

std::ostream& operator<<(std::ostream& out, Naming naming) {
  return out << (naming == Naming::hidden ? "hidden" : "nameless");
}

std::string failingCalls(const ScratchFolder& scratch) {
  const std::filesystem::path link = scratch / "failing_calls";
  if (!std::filesystem::is_symlink(link)) std::filesystem::create_symlink(FAILING_CALLS, link);
  return link;
}

FaultyRuns::FaultyRuns(Naming naming, std::string password)
    : naming_(naming), password_(std::move(password)) {
  scratch_.write("password", password_);
  std::minstd_rand random(1);
  std::string noise(300'000, '\0');
  for (char& b : noise) b = static_cast<char>(random());
  scratch_.write("source/noise", noise);
  scratch_.write("source/folder/text", std::string(5000, 't'));
  scratch_.write("source/folder/deeper/empty", "");
  std::filesystem::create_symlink("text", scratch_ / "source/folder/link");
  std::filesystem::create_hard_link(scratch_ / "source/noise", scratch_ / "source/folder/again");
  std::filesystem::create_directory(scratch_ / "images");
  ::setxattr((scratch_ / "source/noise").c_str(), "user.note", "value", 5, 0);
  create();
  contents_ = contentsOfImage();
  removeImage();
}

std::string FaultyRuns::commandLine(const Fault& fault, const std::string& options) const {
  std::string line = "FAULT_COUNTS=" + scratch_ / "counts" + " FAULT_READS=" + scratch_ / "reads";
  if (naming_ == Naming::hidden) line += " FAULT_NO_TMPFILE=1";
  if (!fault.call.empty())
    line += " FAULT_CALL=" + fault.call +
            (fault.place ? " FAULT_PLACE=" + std::to_string(*fault.place)
                         : " FAULT_AT=" + std::to_string(fault.at)) +
            " FAULT_KIND=" + fault.kind + (fault.lasts ? " FAULT_LASTS=1" : "");
  return line + " LD_PRELOAD=" + failingCalls(scratch_) + " exec " + shellWord(HDIUTIL_PROGRAM) +
         " create -fs HFS+ -volname V -srcfolder " + source() + " " + image() + options;
}

std::string FaultyRuns::commandLine(const Fault& fault) const {
  return commandLine(fault,
                     password_.empty() ? "" : " -encryption AES-256 -stdinpass < " + scratch_ / "password");
}

ProgramResult FaultyRuns::create(const Fault& fault) const { return runShell(commandLine(fault)); }

ProgramResult FaultyRuns::createPlain() const { return runShell(commandLine({}, "")); }

std::vector<Fault> FaultyRuns::everyCall() {
  create();
  removeImage();
  std::vector<Fault> calls;
  std::istringstream counts(readFile(scratch_ / "counts"));
  for (Fault call; counts >> call.call >> call.at;)
    if (call.at != 0) calls.push_back(call);
  return calls;
}

std::vector<ImageRead> FaultyRuns::reads() const {
  std::vector<ImageRead> reads;
  std::istringstream lines(readFile(scratch_ / "reads"));
  std::string outcome;
  for (ImageRead read; lines >> read.offset >> read.size >> outcome;) {
    read.isStruck = outcome == "struck";
    reads.push_back(read);
  }
  std::ranges::sort(reads, {}, &ImageRead::offset);
  return reads;
}

std::vector<std::string> FaultyRuns::names() const {
  std::vector<std::string> list;
  for (const auto& entry : std::filesystem::directory_iterator(scratch_ / "images"))
    list.push_back(entry.path().filename());
  std::ranges::sort(list);
  return list;
}

void FaultyRuns::removeImage() const { std::filesystem::remove(image()); }

// All files one after the other, as 7-Zip finds them.
std::string FaultyRuns::contentsOfImage() const {
  return runShell("7zz x -so " + image() + " 2>/dev/null").output;
}

std::string FaultyRuns::faultOfImage() const {
  const base::Secret password(password_);
  const auto opened = image::OpenedImage::open(image(), password_.empty() ? nullptr : &password);
  if (!opened) return opened.error().message;
  if (const auto counts = image::checkImage(**opened, 1, nullptr); !counts) return counts.error().message;
  if (!password_.empty()) return "";
  const auto test = runShell("7zz t -tdmg " + image());
  if (test.status != 0 || test.output.find("WARNING") != std::string::npos) return test.output;
  return contentsOfImage() == contents_ ? "" : "other contents than the folder";
}
