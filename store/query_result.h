#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <thread>
#include <vector>

#include "base/file_url.h"
#include "base/keyed_archive.h"
#include "ports/files.h"

// The record of one scan of a volume: where it is, what was found, how much it is, and whether the scan has
// finished. Construction starts the scan on a thread of its own. All members may be called from any thread;
// destruction ends a scan that still runs.
class ZQStashwickQueryResult : public base::Codable {
 public:
  using FileList = std::shared_ptr<const std::vector<base::FileURL>>;
  using ObserverToken = std::uint64_t;

  // Scans the folder, which may be missing. The flag is stored as ignoresHiddenFiles() as it stands, on
  // purpose: "consider" leaves hidden items out. The files outlive the record.
  static std::shared_ptr<ZQStashwickQueryResult> initWithPath(ports::Files& files, base::FileURL path,
                                                              bool considerHiddenFiles);
  // A record from an archive; starts no scan. Its list of files is read when it is first asked for, so the
  // archive stays open until then.
  static std::shared_ptr<ZQStashwickQueryResult> initWithCoder(const base::KeyedDecoder& coder);

  ~ZQStashwickQueryResult() override;
  ZQStashwickQueryResult(const ZQStashwickQueryResult&) = delete;
  ZQStashwickQueryResult& operator=(const ZQStashwickQueryResult&) = delete;

  std::string_view className() const override { return "ZQStashwickQueryResult"; }
  void encodeWithCoder(base::KeyedEncoder& coder) const override;

  // What was found so far, in the order of the walk; complete once ready() is true.
  FileList files() const;
  // Set when the scan ends, to the sizes that all scans of this process have counted up to then, on purpose:
  // the total is never reset. Hidden items count even when they are left out of files().
  std::int64_t bytes() const;
  const base::FileURL& path() const { return path_; }
  bool ready() const;
  bool ignoresHiddenFiles() const { return ignoresHiddenFiles_; }

  // The estimated duration of a backup: half a second for each file.
  std::int64_t seconds() const;
  // Names of the resource values that the scan asks for.
  std::vector<std::string_view> properties() const;

  // Tells each later change of ready(), on the thread of the scan.
  ObserverToken addReadyObserver(std::function<void()> observer);
  void removeReadyObserver(ObserverToken token);

  // Returns when ready() is true. A decoded record that was archived too early is taken as it is.
  void waitUntilReady() const;

 private:
  struct Scan;

  ZQStashwickQueryResult(base::FileURL path, bool ignoresHiddenFiles);
  void _scanDirectoryAtPath(ports::Files& files);

  base::FileURL path_;
  bool ignoresHiddenFiles_;
  std::shared_ptr<Scan> scan_;
  std::jthread thread_;
};
