#include "reporting/Sequence.h"

#include <charconv>

namespace orv::reporting {

std::string Sequence::text() const { return std::to_string(epoch) + "." + std::to_string(n); }

std::optional<Sequence> Sequence::parse(const std::string& text) {
  Sequence result;
  const std::size_t dot = text.find('.');
  if (dot == std::string::npos) return std::nullopt;
  std::from_chars(text.data(), text.data() + dot, result.epoch);
  std::from_chars(text.data() + dot + 1, text.data() + text.size(), result.n);
  if (result.n == 0 || result.text() != text) return std::nullopt;
  return result;
}

}  // namespace orv::reporting
