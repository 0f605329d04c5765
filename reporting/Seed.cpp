#include "reporting/Seed.h"

#include <random>

namespace orv::reporting {

std::uint64_t drawSeed() {
  std::random_device device;
  return std::uniform_int_distribution<std::uint64_t>()(device);
}

}  // namespace orv::reporting
