#include "reporting/Mark.h"

namespace orv::reporting {

namespace {

constexpr std::uint64_t start = 0xcbf29ce484222325;

constexpr std::uint64_t add(std::uint64_t hash, unsigned char byte) {
  return (hash ^ byte) * 0x100000001b3;
}

constexpr std::uint64_t addNumber(std::uint64_t hash, std::uint64_t number) {
  for (int i = 0; i < 8; ++i, number >>= 8U) hash = add(hash, static_cast<unsigned char>(number));
  return hash;
}

}  // namespace

std::uint64_t hashOf(const std::string& bytes) noexcept {
  std::uint64_t hash = start;
  for (const char byte : bytes) hash = add(hash, static_cast<unsigned char>(byte));
  return hash;
}

std::uint64_t markOf(std::uint64_t rootHash, const Sequence& latest) noexcept {
  std::uint64_t mark = addNumber(rootHash, latest.n == 0 ? 0 : latest.epoch);
  mark = addNumber(mark, latest.n);
  mark = (mark ^ (mark >> 33U)) * 0xff51afd7ed558ccd;
  mark = (mark ^ (mark >> 33U)) * 0xc4ceb9fe1a85ec53;
  return mark ^ (mark >> 33U);
}

}  // namespace orv::reporting
