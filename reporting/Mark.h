// A number for where a root is. The sum of the marks of many roots tells whether two lists say the
// same of all of them, and changes with one event at no more than the price of that one.
//
// It is the 64-bit FNV-1a hash of the root's bytes, of the epoch and of n, both as eight bytes with
// the lowest first, put through the finalizer of MurmurHash3. That is needed for the sum: without
// it one event more of one root and one less of another would often cancel out. Before the first
// event both numbers are 0, as the epoch means nothing yet.
#pragma once

#include <cstdint>
#include <string>

#include "reporting/Sequence.h"

namespace orv::reporting {

// The 64-bit FNV-1a hash.
std::uint64_t hashOf(const std::string& bytes) noexcept;

// `rootHash` is the hash of the root.
std::uint64_t markOf(std::uint64_t rootHash, const Sequence& latest) noexcept;

}  // namespace orv::reporting
