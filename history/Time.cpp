#include "history/Time.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <string_view>
#include <system_error>

namespace orv::history {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// Takes what it reads from the text.
class Cursor {
 public:
  explicit Cursor(std::string_view text) : text_(text) {}

  bool isAtEnd() const { return text_.empty(); }
  char next() const { return text_.empty() ? '\0' : text_.front(); }
  bool take(std::string_view either) {
    if (text_.empty() || either.find(text_.front()) == std::string_view::npos) return false;
    text_.remove_prefix(1);
    return true;
  }
  // So many digits, as a number in that range.
  bool take(std::size_t digits, int least, int most, int& number) {
    if (text_.size() < digits) return false;
    const char* const end = text_.data() + digits;
    if (next() < '0' || next() > '9') return false;
    const auto result = std::from_chars(text_.data(), end, number);
    text_.remove_prefix(digits);
    return result.ec == std::errc() && result.ptr == end && least <= number && number <= most;
  }

 private:
  std::string_view text_;
};

bool isDigit(char letter) { return '0' <= letter && letter <= '9'; }

std::optional<Time> absolute(const std::string& text) {
  Cursor cursor(text);
  std::tm parts{};
  const bool isRead = cursor.take(4, 1900, 9999, parts.tm_year) && cursor.take("-") &&
                      cursor.take(2, 1, 12, parts.tm_mon) && cursor.take("-") &&
                      cursor.take(2, 1, 31, parts.tm_mday) && cursor.take("Tt ") &&
                      cursor.take(2, 0, 23, parts.tm_hour) && cursor.take(":") &&
                      cursor.take(2, 0, 59, parts.tm_min) && cursor.take(":") &&
                      cursor.take(2, 0, 60, parts.tm_sec);
  if (!isRead) return std::nullopt;
  int thousandths = 0;
  if (cursor.take(".")) {
    if (!isDigit(cursor.next())) return std::nullopt;
    for (int weight = 100; isDigit(cursor.next()); weight /= 10) {
      thousandths += weight * (cursor.next() - '0');
      cursor.take("0123456789");
    }
  }
  seconds offset(0);
  if (const bool isEast = cursor.next() == '+'; cursor.take("+-")) {
    int hours = 0;
    int minutes = 0;
    if (!cursor.take(2, 0, 23, hours) || !cursor.take(":") || !cursor.take(2, 0, 59, minutes)) {
      return std::nullopt;
    }
    offset = (isEast ? 1 : -1) * seconds(3600 * hours + 60 * minutes);
  } else if (!cursor.take("Zz")) {
    return std::nullopt;
  }
  if (!cursor.isAtEnd()) return std::nullopt;
  const int day = parts.tm_mday;
  parts.tm_year -= 1900;
  parts.tm_mon -= 1;
  const bool isLeapSecond = parts.tm_sec == 60;
  if (isLeapSecond) parts.tm_sec = 59;
  const std::time_t whole = timegm(&parts);
  if (parts.tm_mday != day) return std::nullopt;  // the month has no such day
  return Time(seconds(whole) + milliseconds(thousandths)) - offset + seconds(isLeapSecond ? 1 : 0);
}

std::optional<Time> relative(const std::string& text, Time now) {
  constexpr std::string_view ago = " ago";
  if (text.size() < ago.size() + 2) return std::nullopt;
  const std::size_t unit = text.size() - ago.size() - 1;
  if (std::string_view(text).substr(unit + 1) != ago) return std::nullopt;
  std::int64_t number = 0;
  const auto result = std::from_chars(text.data(), text.data() + unit, number);
  if (result.ec != std::errc() || result.ptr != text.data() + unit || number < 0) {
    return std::nullopt;
  }
  const std::int64_t length = text[unit] == 's'   ? 1
                              : text[unit] == 'm' ? 60
                              : text[unit] == 'h' ? 3600
                              : text[unit] == 'd' ? 86400
                                                  : 0;
  if (length == 0 || number > 1'000'000'000 / length) return std::nullopt;  // 30 years
  return now - seconds(number * length);
}

}  // namespace

std::string textOf(Time time) {
  const auto whole = std::chrono::floor<seconds>(time);
  const std::time_t count = whole.time_since_epoch().count();
  std::tm parts{};
  gmtime_r(&count, &parts);
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ",  // NOLINT
                parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min,
                parts.tm_sec, static_cast<int>((time - whole).count()));
  return text.data();
}

std::optional<Time> timeOf(const std::string& text, Time now) {
  if (text == "now") return now;
  if (const auto time = absolute(text)) return time;
  return relative(text, now);
}

}  // namespace orv::history
