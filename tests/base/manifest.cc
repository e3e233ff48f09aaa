#include "tests/base/manifest.h"

namespace base {
namespace {

class ScanRecord : public Codable {
 public:
  explicit ScanRecord(const ManifestScan& scan) : scan_(scan) {}
  std::string_view className() const override { return "ZQStashwickQueryResult"; }
  void encodeWithCoder(KeyedEncoder& coder) const override {
    coder.encodeURLs("files", scan_.files);
    coder.encodeURL("path", scan_.path);
    coder.encodeInteger("bytes", scan_.bytes);
    coder.encodeBool("ready", scan_.ready);
    coder.encodeBool("ignoresHiddenFiles", scan_.ignoresHiddenFiles);
  }

 private:
  const ManifestScan& scan_;
};

class OperationRecord : public Codable {
 public:
  explicit OperationRecord(const Manifest& manifest) : manifest_(manifest) {
    if (manifest.scan) scan_.emplace(*manifest.scan);
  }
  std::string_view className() const override { return "ZQStashwickOperation"; }
  void encodeWithCoder(KeyedEncoder& coder) const override {
    coder.encodeString("format", manifest_.format);
    coder.encodeString("encryption", manifest_.encryption);
    coder.encodeObject("result", scan_ ? &*scan_ : nullptr);
  }

 private:
  const Manifest& manifest_;
  std::optional<ScanRecord> scan_;
};

}  // namespace

std::vector<std::byte> archived(const Manifest& manifest) {
  return archivedDataWithRootObject(OperationRecord(manifest));
}

Manifest manifestFrom(const KeyedDecoder& root) {
  Manifest manifest{root.decodeString("format"), root.decodeString("encryption"), std::nullopt};
  const auto scan = root.decodeObject("result");
  if (!scan) return manifest;
  manifest.scan = ManifestScan{.files = scan->decodeURLs("files").value_or(std::vector<FileURL>{}),
                               .path = scan->decodeURL("path"),
                               .bytes = scan->decodeInteger("bytes"),
                               .ready = scan->decodeBool("ready"),
                               .ignoresHiddenFiles = scan->decodeBool("ignoresHiddenFiles")};
  return manifest;
}

Manifest sampleManifest() {
  return {.format = "HFS+",
          .encryption = "AES-256",
          .scan = ManifestScan{.files = {{"/Volumes/STICK/a b", false}, {"/Volumes/STICK/é", true}},
                               .path = FileURL{"/Volumes/STICK", true},
                               .bytes = 5000000000,
                               .ready = true,
                               .ignoresHiddenFiles = true}};
}

Manifest manifestOfFiles(int count) {
  Manifest manifest = sampleManifest();
  manifest.scan->files.clear();
  for (int i = 0; i < count; ++i)
    manifest.scan->files.push_back(
        {"/Volumes/STICK/Pictures/Summer/IMG " + std::to_string(i) + ".jpeg", false});
  return manifest;
}

}  // namespace base
