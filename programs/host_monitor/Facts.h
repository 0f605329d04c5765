// What the kernel says in the files of proc and sys: short texts, a fact in a line.
//
// A file that is not there, may not be read or answers with an error gives nothing.
#pragma once

#include <filesystem>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <type_traits>

// The names in a directory.
std::set<std::string> entriesOf(const std::filesystem::path& directory);

// The first line that starts so, without that start and the blanks around the rest.
std::optional<std::string> line(const std::filesystem::path& file, const std::string& start = "");

// The number in that column of the text; "0x1f" is one too, and "-1" is none without a sign.
template <typename Number>
std::optional<Number> number(const std::optional<std::string>& text, unsigned int column = 0) {
  std::istringstream words(text.value_or(""));
  std::string word;
  for (words >> word; column > 0; --column) words >> word;
  if (!words || (std::is_unsigned_v<Number> && word.front() == '-')) return std::nullopt;
  std::istringstream stream(word);
  if (word.rfind("0x", 0) == 0) stream >> std::hex;
  Number value{};
  return stream >> value ? std::optional(value) : std::nullopt;
}

template <typename Number>
std::optional<Number> times(const std::optional<Number>& count, Number unit) {
  return count ? std::optional(*count * unit) : std::nullopt;
}
