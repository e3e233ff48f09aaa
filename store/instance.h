#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "base/date.h"
#include "base/file_url.h"
#include "store/query_result.h"

// One stored backup. Immutable; any thread.
class ZQStashwickInstance {
 public:
  using FileList = ZQStashwickQueryResult::FileList;
  // Reads the list of files from where it is kept. Called each time that it is asked for.
  using FileListReader = std::function<FileList()>;

  // The name is the volume's, and lands in device(). Size in bytes, in single precision.
  static std::shared_ptr<const ZQStashwickInstance> _initWithName(std::string name, std::string path,
                                                                  base::Date backupDate, float andSize,
                                                                  bool encrypted, FileListReader files) {
    return std::shared_ptr<const ZQStashwickInstance>(new ZQStashwickInstance(
        std::move(name), std::move(path), backupDate, andSize, encrypted, std::move(files)));
  }

  const std::string& path() const { return path_; }      // of the image file, absolute
  const std::string& device() const { return device_; }  // the name of the volume that was backed up
  base::Date backupDate() const { return backupDate_; }
  float size() const { return size_; }
  bool encrypted() const { return encrypted_; }
  // What the backup holds, as its manifest lists it; null when there is no list. Reading it costs time in
  // proportion to its length.
  FileList files() const { return files_ ? files_() : nullptr; }

 private:
  ZQStashwickInstance(std::string name, std::string path, base::Date backupDate, float size, bool encrypted,
                      FileListReader files)
      : path_(std::move(path)),
        device_(std::move(name)),
        backupDate_(backupDate),
        size_(size),
        encrypted_(encrypted),
        files_(std::move(files)) {}

  std::string path_;
  std::string device_;
  base::Date backupDate_;
  float size_;
  bool encrypted_;
  FileListReader files_;
};
