// Bytes, deflated where that makes them shorter.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace orv::history {

// Packs one after the other and keeps its memory. One thread at a time uses it.
class Packer {
 public:
  Packer();
  ~Packer();

  // Appends the packed form.
  void pack(std::string_view bytes, std::string& target);

 private:
  struct Stream;
  std::unique_ptr<Stream> stream_;
};

// Nothing for what no Packer made.
std::optional<std::string> unpack(std::string_view packed);

// How many bytes `unpack` gives; 0 for what no Packer made.
std::size_t unpackedSize(std::string_view packed) noexcept;

}  // namespace orv::history
