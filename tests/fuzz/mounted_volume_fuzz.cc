// Seeds: tests/corpus/image/volumes
#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fuse3/fuse_log.h>
#include <linux/fuse.h>
#include <random>
#include <set>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "image/fuse/volume_server.h"
#include "image/volume.h"

namespace {

// What the kernel does not bear of a file system: it fails a whole listing for one such entry.
constexpr std::size_t kLongestName = 1024;
constexpr std::size_t kMostItems = 200;

void require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "the reply has %s\n", what);
  std::abort();
}

struct Reply {
  int error;
  std::string bytes;
};

template <class T>
std::string bytesOf(const T& structure) {
  return {reinterpret_cast<const char*>(&structure), sizeof structure};
}
template <class T>
T structureAt(std::string_view bytes, std::size_t at) {
  T structure;
  require(at <= bytes.size() && bytes.size() - at >= sizeof structure, "too few bytes");
  std::memcpy(&structure, bytes.data() + at, sizeof structure);
  return structure;
}

// The kernel's part of the conversation, over a socket.
class Kernel {
 public:
  Kernel(int socket, unsigned seed) : socket_(socket), random_(seed) {
    require(ask(FUSE_INIT, 0,
                bytesOf(std::array<std::uint32_t, 4>{
                    FUSE_KERNEL_VERSION, 31, 1 << 17,
                    FUSE_DO_READDIRPLUS | FUSE_ASYNC_READ | FUSE_PARALLEL_DIROPS | FUSE_NO_OPEN_SUPPORT}))
                    .error == 0,
            "a refusal to begin");
  }

  void visitEverything() {
    ask(FUSE_STATFS, FUSE_ROOT_ID, "");
    folders_.push_back(FUSE_ROOT_ID);
    while (!folders_.empty() && seen_.size() < kMostItems) {
      const std::uint64_t folder = folders_.front();
      folders_.pop_front();
      visitFolder(folder);
    }
    for (int i = 0; i < 20; ++i) visitItem(random_() % 64, random_() % 2 == 0 ? S_IFREG : S_IFLNK);
    for (int i = 0; i < 5; ++i) visitFolder(random_() % 64 + 1);
  }

 private:
  Reply ask(std::uint32_t operation, std::uint64_t node, const std::string& arguments) {
    const fuse_in_header header{.len = static_cast<std::uint32_t>(sizeof header + arguments.size()),
                                .opcode = operation,
                                .unique = ++last_,
                                .nodeid = node,
                                .uid = static_cast<std::uint32_t>(random_() % 2),
                                .gid = 0,
                                .pid = 1,
                                .total_extlen = 0,
                                .padding = 0};
    const std::string request = bytesOf(header) + arguments;
    const auto send = [&] { return ::send(socket_, request.data(), request.size(), 0); };
    require(TEMP_FAILURE_RETRY(send()) == static_cast<ssize_t>(request.size()), "an end before it");
    const std::string reply = receive();
    const auto out = structureAt<fuse_out_header>(reply, 0);
    require(out.unique == last_, "another request");
    require(out.error <= 0 && out.error > -512, "an impossible error");
    return {out.error, reply.substr(sizeof out)};
  }

  // The next message that answers a request; others bring files unasked.
  std::string receive() {
    for (;;) {
      const auto receiveOne = [&] { return ::recv(socket_, buffer_.data(), buffer_.size(), 0); };
      // The fuzzer's clock interrupts.
      const ssize_t size = TEMP_FAILURE_RETRY(receiveOne());
      require(size >= static_cast<ssize_t>(sizeof(fuse_out_header)), "no header");
      std::string message(buffer_.data(), static_cast<std::size_t>(size));
      const auto header = structureAt<fuse_out_header>(message, 0);
      require(header.len == message.size(), "another length");
      if (header.unique != 0) return message;
      require(header.error == FUSE_NOTIFY_STORE, "news of no possible kind");
    }
  }

  std::uint32_t someSize() {
    return static_cast<std::uint32_t>(random_() % (std::uint32_t{1} << random_() % 17));
  }

  void visitFolder(std::uint64_t folder) {
    const Reply opened = ask(FUSE_OPENDIR, folder, bytesOf(fuse_open_in{}));
    if (opened.error != 0) return;
    fuse_read_in read{};
    read.fh = structureAt<fuse_open_out>(opened.bytes, 0).fh;
    const bool isPlus = random_() % 4 != 0;
    for (read.size = 4096;; read.size = 300 + someSize()) {
      const Reply listed = ask(isPlus ? FUSE_READDIRPLUS : FUSE_READDIR, folder, bytesOf(read));
      require(listed.error == 0 && listed.bytes.size() <= read.size, "more than there is room for");
      if (listed.bytes.empty()) break;
      read.offset = visitEntries(folder, listed.bytes, isPlus);
    }
    read.offset = random_();
    ask(FUSE_READDIR, folder, bytesOf(read));
    fuse_release_in release{};
    release.fh = read.fh;
    require(ask(FUSE_RELEASEDIR, folder, bytesOf(release)).error == 0, "no way to close a folder");
    lookUp(folder, std::string(someSize() % 2000, 'x'));
    lookUp(folder, "..");
  }

  // Where the next ones begin.
  std::uint64_t visitEntries(std::uint64_t folder, std::string_view entries, bool isPlus) {
    std::uint64_t next = 0;
    for (std::size_t at = 0; at < entries.size();) {
      const std::size_t self = isPlus ? at + sizeof(fuse_entry_out) : at;
      const auto entry = structureAt<fuse_dirent>(entries, self);
      require(entry.namelen <= entries.size() - self - FUSE_NAME_OFFSET, "a name beyond its end");
      const std::string name(entries.substr(self + FUSE_NAME_OFFSET, entry.namelen));
      checkName(name);
      require(entry.off > next, "a place that is not behind the one before");
      next = entry.off;
      if (isPlus) check(structureAt<fuse_entry_out>(entries, at).attr, name != "." && name != "..");
      if (name != "." && name != "..") lookUp(folder, name);
      at = self + FUSE_DIRENT_ALIGN(FUSE_NAME_OFFSET + entry.namelen);
    }
    return next;
  }

  static void checkName(const std::string& name) {
    require(!name.empty() && name.size() <= kLongestName, "a name of no possible length");
    require(name.find('/') == std::string::npos && name.find('\0') == std::string::npos,
            "a name that is a path");
  }
  static void check(const fuse_attr& attributes, bool isWhole = true) {
    if (!isWhole) return;
    require(attributes.size <= INT64_MAX, "a file of no possible size");
    require(attributes.ctimensec < 1'000'000'000 && attributes.mtimensec < 1'000'000'000 &&
                attributes.atimensec < 1'000'000'000,
            "more than a second of nanoseconds");
    const auto type = attributes.mode & S_IFMT;
    require(S_ISREG(type) || S_ISDIR(type) || S_ISLNK(type) || S_ISCHR(type) || S_ISBLK(type) ||
                S_ISFIFO(type) || S_ISSOCK(type),
            "an impossible type");
  }

  void lookUp(std::uint64_t folder, const std::string& name) {
    const Reply found = ask(FUSE_LOOKUP, folder, name + '\0');
    if (found.error != 0) return;
    const auto entry = structureAt<fuse_entry_out>(found.bytes, 0);
    if (entry.nodeid == 0) return;
    check(entry.attr);
    if (seen_.size() >= kMostItems || !seen_.insert(entry.nodeid).second) return;
    visitItem(entry.nodeid, entry.attr.mode & S_IFMT);
    if (S_ISDIR(entry.attr.mode)) folders_.push_back(entry.nodeid);
  }

  void visitItem(std::uint64_t node, mode_t type) {
    const Reply attributes = ask(FUSE_GETATTR, node, bytesOf(fuse_getattr_in{}));
    const auto attribute =
        attributes.error == 0 ? structureAt<fuse_attr_out>(attributes.bytes, 0).attr : fuse_attr{};
    if (attributes.error == 0) check(attribute);
    if (S_ISLNK(type)) ask(FUSE_READLINK, node, "");
    if (S_ISREG(type)) {
      for (const std::uint64_t offset :
           {std::uint64_t{0}, attribute.size - std::min<std::uint64_t>(attribute.size, 9),
            std::uint64_t{random_()}}) {
        fuse_read_in read{};
        read.offset = offset & INT64_MAX;
        read.size = someSize();
        require(ask(FUSE_READ, node, bytesOf(read)).bytes.size() <= read.size, "more than was asked for");
      }
    }
    visitAttributes(node);
  }

  void visitAttributes(std::uint64_t node) {
    fuse_getxattr_in size{};
    size.size = 65'536;
    const Reply names = ask(FUSE_LISTXATTR, node, bytesOf(size));
    require(names.bytes.empty() || names.bytes.back() == '\0', "a list without an end");
    for (std::size_t at = 0; at < names.bytes.size(); at += std::strlen(&names.bytes[at]) + 1) {
      require(names.bytes[at] != '\0', "an attribute without a name");
      size.size = random_() % 2 == 0 ? 0 : someSize();
      ask(FUSE_GETXATTR, node, bytesOf(size) + &names.bytes[at] + '\0');
    }
    size.size = someSize();
    ask(FUSE_LISTXATTR, node, bytesOf(size));
  }

  int socket_;
  std::minstd_rand random_;
  std::uint64_t last_ = 0;
  std::vector<char> buffer_ = std::vector<char>(1 << 21);
  std::deque<std::uint64_t> folders_;
  std::set<std::uint64_t> seen_;
};

std::unique_ptr<image::Volume> open(std::span<const std::byte> bytes) {
  auto image = image::OpenedImage::plain(
      std::make_unique<base::MemoryRandomAccess>(std::vector<std::byte>(bytes.begin(), bytes.end())));
  if (!image) return nullptr;
  auto volume = image::Volume::open(*std::move(image), {.cacheBytes = 1 << 20, .workers = 1});
  return volume ? *std::move(volume) : nullptr;
}

}  // namespace

// Whatever stands in a volume, its server answers each request of the kernel, and with nothing that the
// kernel does not bear.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  const auto volume = open(std::as_bytes(std::span(bytes, size)));
  if (!volume) return 0;
  std::signal(SIGPIPE, SIG_IGN);
  fuse_set_log_func([](fuse_log_level, const char*, va_list) {});
  std::array<int, 2> ends;
  require(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) == 0, "no socket");
  {
    image::fuse::VolumeServer server(*volume);
    require(bool(server.mount("/dev/fd/" + std::to_string(ends[1]), "image.dmg")), "no session");
    const std::jthread serving([&] { server.serve(); });
    const std::string_view text(reinterpret_cast<const char*>(bytes), size);
    Kernel(ends[0], static_cast<unsigned>(std::hash<std::string_view>()(text))).visitEverything();
    ::close(ends[0]);
  }
  return 0;
}
