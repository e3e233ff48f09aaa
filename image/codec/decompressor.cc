#include "image/codec/decompressor.h"

#include <cstdlib>

#include "image/codec/adc_decompressor.h"
#include "image/codec/bzip2_decompressor.h"
#include "image/codec/xz_decompressor.h"
#include "image/codec/zlib_codec.h"

namespace image::codec {
namespace {

class ZlibStreams final : public Decompressor {
 public:
  bool decompress(std::span<const std::byte> from, std::span<std::byte> into) override {
    return library_.decompress(from, into);
  }

 private:
  ZlibDecompressor library_;
};

}  // namespace

std::unique_ptr<Decompressor> makeDecompressor(Compression compression) {
  switch (compression) {
    case Compression::adc:
      return std::make_unique<ADCDecompressor>();
    case Compression::zlib:
      return std::make_unique<ZlibStreams>();
    case Compression::bzip2:
      return std::make_unique<Bzip2Decompressor>();
    case Compression::lzma:
      return std::make_unique<XzDecompressor>();
  }
  std::abort();
}

}  // namespace image::codec
