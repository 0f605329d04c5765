#include "history/Packing.h"

#include <zlib.h>

#include <cstdint>
#include <new>

namespace orv::history {

namespace {

// The first byte says which form the rest has.
constexpr char plain = 0;
constexpr char deflated = 1;  // the size in 4 bytes, the lowest first, and what zlib wrote
constexpr std::size_t headerSize = 5;
// Shorter ones, as most events are, would gain little for what it costs.
constexpr std::size_t leastSize = 512;
// What deflate can do at best, so that a few bytes do not ask for much memory.
constexpr std::size_t mostGain = 1040;
constexpr std::size_t mostSize = 256 << 20;  // longer than what MQTT carries

}  // namespace

struct Packer::Stream {
  z_stream stream{};
};

Packer::Packer() : stream_(std::make_unique<Stream>()) {
  // The fastest level. A small window, so that there is little to prepare each time.
  if (deflateInit2(&stream_->stream, 1, Z_DEFLATED, 13, 6, Z_DEFAULT_STRATEGY) != Z_OK) {
    throw std::bad_alloc();
  }
}

Packer::~Packer() { deflateEnd(&stream_->stream); }

void Packer::pack(std::string_view bytes, std::string& target) {
  const std::size_t begin = target.size();
  if (bytes.size() >= leastSize && bytes.size() <= mostSize) {
    z_stream& stream = stream_->stream;
    deflateReset(&stream);
    // It ends without success where it saves nothing.
    target.resize(begin + bytes.size());
    auto* const out = reinterpret_cast<Bytef*>(target.data() + begin);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));  // NOLINT
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = out + headerSize;
    stream.avail_out = static_cast<uInt>(bytes.size() - headerSize);
    if (deflate(&stream, Z_FINISH) == Z_STREAM_END) {
      target[begin] = deflated;
      for (unsigned int i = 0; i < 4; ++i) {
        target[begin + 1 + i] = static_cast<char>(bytes.size() >> (8 * i));
      }
      target.resize(begin + headerSize + stream.total_out);
      return;
    }
    target.resize(begin);
  }
  target += plain;
  target += bytes;
}

std::size_t unpackedSize(std::string_view packed) noexcept {
  if (packed.empty()) return 0;
  if (packed[0] == plain) return packed.size() - 1;
  if (packed[0] != deflated || packed.size() < headerSize) return 0;
  std::size_t size = 0;
  for (unsigned int i = 0; i < 4; ++i) {
    size |= static_cast<std::size_t>(static_cast<unsigned char>(packed[1 + i])) << (8 * i);
  }
  return size;
}

std::optional<std::string> unpack(std::string_view packed) {
  if (packed.empty()) return std::nullopt;
  if (packed[0] == plain) return std::string(packed.substr(1));
  const std::size_t size = unpackedSize(packed);
  if (size == 0 || size > mostSize || size / mostGain > packed.size()) return std::nullopt;
  std::string bytes(size, '\0');
  uLongf length = size;
  const int code = uncompress(reinterpret_cast<Bytef*>(bytes.data()), &length,
                              reinterpret_cast<const Bytef*>(packed.data() + headerSize),
                              packed.size() - headerSize);
  if (code != Z_OK || length != size) return std::nullopt;
  return bytes;
}

}  // namespace orv::history
