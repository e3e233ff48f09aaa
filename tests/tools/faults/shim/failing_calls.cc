// Loaded before the C library (LD_PRELOAD), makes one system call of a program go wrong. What is asked for
// stands in the environment:
//   FAULT_CALL    which: pwrite, fsync, openat, ...; "writing" stands for every call that changes the disk
//   FAULT_AT      at which call of that name, from 1
//   FAULT_KIND    an errno's number; "short" for half of what was asked for; "kill-before" or "kill-after"
//   FAULT_LASTS   when set, all calls from then on fail, too
//   FAULT_PLACE   instead of FAULT_AT, for pread, which several threads call in any order: the first call
//   that
//                 is to read the byte at this offset, or with FAULT_LASTS every such call
//   FAULT_READS   a file for lines "OFFSET BYTES struck|passed" at the program's end, for each pread
//   FAULT_COUNTS  a file for lines "NAME CALLS" at the program's end
//   FAULT_NO_TMPFILE  when set, nameless files are what the file system does not have
//   FAULT_NO_MOUNT_ROOT  when set, folders on which something is mounted do not say so
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <limits>
#include <mutex>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

enum Call {
  kOpen,
  kOpenat,
  kRead,
  kPread,
  kWrite,
  kPwrite,
  kFsync,
  kLinkat,
  kRenameat2,
  kUnlinkat,
  kFallocate,
  kStatx,
  kReadlinkat,
  kFtruncate,
  kLlistxattr,
  kLgetxattr,
  kCalls
};
constexpr std::array<const char*, kCalls> kNames{
    "open",      "openat",   "read",      "pread", "write",      "pwrite",    "fsync",      "linkat",
    "renameat2", "unlinkat", "fallocate", "statx", "readlinkat", "ftruncate", "llistxattr", "lgetxattr"};

constexpr bool isWriting(Call call) {
  return call == kOpenat || call == kPwrite || call == kFsync || call == kLinkat || call == kRenameat2 ||
         call == kUnlinkat || call == kFallocate || call == kFtruncate;
}

std::string_view setting(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? std::string_view() : value;
}

class Plan {
 public:
  Plan()
      : call_(setting("FAULT_CALL")), kind_(setting("FAULT_KIND")), lasts_(!setting("FAULT_LASTS").empty()) {
    if (const auto at = setting("FAULT_AT"); !at.empty()) at_ = std::atol(at.data());
    if (const auto place = setting("FAULT_PLACE"); !place.empty()) place_ = std::atol(place.data());
  }
  ~Plan() {
    if (std::FILE* const out = open("FAULT_COUNTS")) {
      for (std::size_t call = 0; call < kCalls; ++call)
        std::fprintf(out, "%s %ld\n", kNames[call], counts_[call].load());
      std::fclose(out);
    }
    if (std::FILE* const out = open("FAULT_READS")) {
      const std::lock_guard lock(mutex_);
      for (const Read& read : reads_)
        std::fprintf(out, "%ld %zu %s\n", read.offset, read.size, read.isStruck ? "struck" : "passed");
      std::fclose(out);
    }
  }
  Plan(const Plan&) = delete;
  Plan& operator=(const Plan&) = delete;

  bool strikes(Call call) {
    const long number = ++counts_[call];
    if (call_ == "writing") return isWriting(call) && isDue(++writing_);
    return call_ == kNames[call] && isDue(number);
  }
  bool strikesRead(long offset, std::size_t size) {
    const bool isDueAsCall = strikes(kPread);
    const std::lock_guard lock(mutex_);
    const bool isPlace = place_ >= offset && place_ - offset < static_cast<long>(size);
    const bool isDueAsPlace = isPlace && call_ == kNames[kPread] && (lasts_ || !placeStruck_);
    placeStruck_ |= isDueAsPlace;
    reads_.push_back({offset, size, isDueAsCall || isDueAsPlace});
    return reads_.back().isStruck;
  }
  bool isKilling() const { return kind_.starts_with("kill"); }
  bool isShort() const { return kind_ == "short"; }
  bool killsBefore() const { return kind_ == "kill-before"; }
  int error() const { return std::atoi(kind_.data()); }

 private:
  struct Read {
    long offset;
    std::size_t size;
    bool isStruck;
  };

  static std::FILE* open(const char* name) {
    const auto path = setting(name);
    return path.empty() ? nullptr : std::fopen(path.data(), "w");
  }
  bool isDue(long number) const { return number == at_ || (lasts_ && number > at_); }

  std::string_view call_;
  std::string_view kind_;
  bool lasts_;
  long at_ = std::numeric_limits<long>::max();
  long place_ = -1;
  std::array<std::atomic<long>, kCalls> counts_{};
  std::atomic<long> writing_ = 0;
  std::mutex mutex_;
  bool placeStruck_ = false;
  std::vector<Read> reads_;
};

Plan& plan() {
  static Plan thePlan;
  return thePlan;
}

[[noreturn]] void die() {
  ::raise(SIGKILL);
  std::abort();
}

// Carries a call out as the plan has it, once it is known whether it strikes; `half` does it for half of what
// was asked.
template <class Carry, class Half>
auto carryOut(bool isStruck, Carry carry, Half half) -> decltype(carry()) {
  if (!isStruck) return carry();
  if (plan().isKilling()) {
    if (!plan().killsBefore()) carry();
    die();
  }
  if (plan().isShort()) return half();
  errno = plan().error();
  return -1;
}
template <class Carry, class Half>
auto carryOut(Call call, Carry carry, Half half) -> decltype(carry()) {
  return carryOut(plan().strikes(call), carry, half);
}
template <class Carry>
auto carryOut(Call call, Carry carry) -> decltype(carry()) {
  return carryOut(call, carry, carry);
}

template <class Function>
Function next(const char* name) {
  return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

// Direct reads and writes end at whole blocks however short they are.
std::size_t halfOf(std::size_t size) {
  constexpr std::size_t kBlock = 4096;
  if (size % kBlock == 0 && size != 0) return (size / kBlock + 1) / 2 * kBlock;
  return (size + 1) / 2;
}

}  // namespace

extern "C" {

int open64(const char* path, int flags, ...) {
  static const auto real = next<int (*)(const char*, int, ...)>("open64");
  va_list more;
  va_start(more, flags);
  const mode_t mode = va_arg(more, mode_t);
  va_end(more);
  return carryOut(kOpen, [&] { return real(path, flags, mode); });
}

int openat64(int folder, const char* path, int flags, ...) {
  static const auto real = next<int (*)(int, const char*, int, ...)>("openat64");
  va_list more;
  va_start(more, flags);
  const mode_t mode = va_arg(more, mode_t);
  va_end(more);
  if ((flags & O_TMPFILE) == O_TMPFILE && !setting("FAULT_NO_TMPFILE").empty()) {
    errno = EOPNOTSUPP;
    return -1;
  }
  return carryOut(kOpenat, [&] { return real(folder, path, flags, mode); });
}

ssize_t read(int file, void* into, std::size_t size) {
  static const auto real = next<ssize_t (*)(int, void*, std::size_t)>("read");
  return carryOut(
      kRead, [&] { return real(file, into, size); }, [&] { return real(file, into, halfOf(size)); });
}

ssize_t pread64(int file, void* into, std::size_t size, off_t offset) {
  static const auto real = next<ssize_t (*)(int, void*, std::size_t, off_t)>("pread64");
  return carryOut(
      plan().strikesRead(offset, size), [&] { return real(file, into, size, offset); },
      [&] { return real(file, into, halfOf(size), offset); });
}

ssize_t write(int file, const void* from, std::size_t size) {
  static const auto real = next<ssize_t (*)(int, const void*, std::size_t)>("write");
  return carryOut(
      kWrite, [&] { return real(file, from, size); }, [&] { return real(file, from, halfOf(size)); });
}

ssize_t pwrite64(int file, const void* from, std::size_t size, off_t offset) {
  static const auto real = next<ssize_t (*)(int, const void*, std::size_t, off_t)>("pwrite64");
  return carryOut(
      kPwrite, [&] { return real(file, from, size, offset); },
      [&] { return real(file, from, halfOf(size), offset); });
}

int fsync(int file) {
  static const auto real = next<int (*)(int)>("fsync");
  return carryOut(kFsync, [&] { return real(file); });
}

int linkat(int fromFolder, const char* from, int toFolder, const char* to, int flags) noexcept {
  static const auto real = next<int (*)(int, const char*, int, const char*, int)>("linkat");
  return carryOut(kLinkat, [&] { return real(fromFolder, from, toFolder, to, flags); });
}

int renameat2(int fromFolder, const char* from, int toFolder, const char* to, unsigned flags) noexcept {
  static const auto real = next<int (*)(int, const char*, int, const char*, unsigned)>("renameat2");
  return carryOut(kRenameat2, [&] { return real(fromFolder, from, toFolder, to, flags); });
}

int unlinkat(int folder, const char* path, int flags) noexcept {
  static const auto real = next<int (*)(int, const char*, int)>("unlinkat");
  return carryOut(kUnlinkat, [&] { return real(folder, path, flags); });
}

int fallocate64(int file, int mode, off_t offset, off_t size) {
  static const auto real = next<int (*)(int, int, off_t, off_t)>("fallocate64");
  return carryOut(kFallocate, [&] { return real(file, mode, offset, size); });
}

int statx(int folder, const char* path, int flags, unsigned mask, struct statx* status) noexcept {
  static const auto real = next<int (*)(int, const char*, int, unsigned, struct statx*)>("statx");
  const int done = carryOut(kStatx, [&] { return real(folder, path, flags, mask, status); });
  if (done == 0 && !setting("FAULT_NO_MOUNT_ROOT").empty())
    status->stx_attributes &= ~std::uint64_t{STATX_ATTR_MOUNT_ROOT};
  return done;
}

ssize_t readlinkat(int folder, const char* path, char* into, std::size_t size) noexcept {
  static const auto real = next<ssize_t (*)(int, const char*, char*, std::size_t)>("readlinkat");
  return carryOut(kReadlinkat, [&] { return real(folder, path, into, size); });
}

int ftruncate64(int file, off_t size) noexcept {
  static const auto real = next<int (*)(int, off_t)>("ftruncate64");
  return carryOut(kFtruncate, [&] { return real(file, size); });
}

ssize_t llistxattr(const char* path, char* into, std::size_t size) noexcept {
  static const auto real = next<ssize_t (*)(const char*, char*, std::size_t)>("llistxattr");
  return carryOut(kLlistxattr, [&] { return real(path, into, size); });
}

ssize_t lgetxattr(const char* path, const char* name, void* into, std::size_t size) noexcept {
  static const auto real = next<ssize_t (*)(const char*, const char*, void*, std::size_t)>("lgetxattr");
  return carryOut(kLgetxattr, [&] { return real(path, name, into, size); });
}

}  // extern "C"
