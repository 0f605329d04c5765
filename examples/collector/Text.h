// Texts of devices for readers who take valid UTF-8 only.
#pragma once

#include <boost/locale/utf.hpp>
#include <cstddef>
#include <limits>
#include <string>

// The text with U+FFFD in place of each byte that is not part of a character, and of NUL, at which
// Prometheus stops to read. It ends before the first character that does not fit into the limit.
inline std::string validText(const std::string& text,
                             std::size_t mostBytes = std::numeric_limits<std::size_t>::max()) {
  using Utf8 = boost::locale::utf::utf_traits<char>;
  std::string result;
  for (auto at = text.begin(); at != text.end();) {
    auto end = at;
    const auto point = Utf8::decode(end, text.end());
    const bool isGood = boost::locale::utf::is_valid_codepoint(point) && point != 0;
    if (!isGood) end = at + 1;
    const std::string character = isGood ? std::string(at, end) : "\xEF\xBF\xBD";
    if (result.size() + character.size() > mostBytes) break;
    result += character;
    at = end;
  }
  return result;
}
