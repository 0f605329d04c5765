#include "collector/Exposition.h"

#include <algorithm>
#include <array>
#include <boost/locale/utf.hpp>
#include <charconv>
#include <cmath>

namespace {

constexpr std::size_t pieceBytes = 1U << 16U;

// Whole numbers in full, as the shortest text of a million is 1e+06.
void addNumber(std::string& text, double value) {
  constexpr double mostWhole = 9007199254740992;  // above it not each whole number is one
  if (!std::isfinite(value)) {
    text += std::isnan(value) ? "NaN" : value > 0 ? "+Inf" : "-Inf";
    return;
  }
  std::array<char, 32> digits{};
  const bool isWhole = std::abs(value) < mostWhole && std::trunc(value) == value;
  char* const end = digits.data() + digits.size();
  text.append(digits.data(),
              isWhole ? std::to_chars(digits.data(), end, static_cast<std::int64_t>(value)).ptr
                      : std::to_chars(digits.data(), end, value).ptr);
}

}  // namespace

std::string nameOf(const std::string& text) {
  std::string name = text;
  for (char& letter : name) {
    const bool isGood = (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') ||
                        (letter >= '0' && letter <= '9');
    if (!isGood) letter = '_';
  }
  return name;
}

std::string labelOf(const std::string& text) {
  constexpr std::size_t mostBytes = 256;
  using Utf8 = boost::locale::utf::utf_traits<char>;
  if (text.size() <= mostBytes && std::all_of(text.begin(), text.end(), [](unsigned char byte) {
        return byte > 0 && byte < 0x80;
      })) {
    return text;
  }
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

void addLabel(std::string& labels, std::string_view name, const std::string& value) {
  if (!labels.empty()) labels += ',';
  labels.append(name).append("=\"");
  for (const char letter : value) {
    if (letter == '\n') {
      labels += "\\n";
      continue;
    }
    if (letter == '\\' || letter == '"') labels += '\\';
    labels += letter;
  }
  labels += '"';
}

Exposition::Subject Exposition::addSubject(const std::string& labels) {
  labels_ += labels;
  ends_.push_back(labels_.size());
  return static_cast<Subject>(ends_.size() - 1);
}

Exposition::Series& Exposition::family(const std::string& name, const std::string& help,
                                       const char* type) {
  return families_.try_emplace(name, Family{help, type, {}}).first->second.series;
}

std::string_view Exposition::labelsOf(Subject subject) const {
  const std::size_t from = subject == 0 ? 0 : ends_[subject - 1];
  return std::string_view(labels_).substr(from, ends_[subject] - from);
}

// Writes what is left of the first series of the family, until the piece is long enough.
void Exposition::write(const std::string& name, Family& family, std::string& text) {
  const auto series = family.series.begin();
  const auto& [labels, samples] = *series;
  for (; written_ < samples.size() && text.size() < pieceBytes; ++written_) {
    const std::string_view subject = labelsOf(samples[written_].subject);
    text += name;
    if (!subject.empty() || !labels.empty()) {
      text.append("{").append(subject);
      if (!subject.empty() && !labels.empty()) text += ',';
      text.append(labels).append("}");
    }
    text += ' ';
    addNumber(text, samples[written_].value);
    text += '\n';
  }
  if (written_ < samples.size()) return;
  family.series.erase(series);
  written_ = 0;
}

std::size_t Exposition::bytes() const {
  std::size_t sum = labels_.capacity() + ends_.capacity() * sizeof(std::size_t);
  for (const auto& [name, family] : families_) {
    for (const auto& [labels, samples] : family.series) {
      sum += labels.size() + samples.capacity() * sizeof(Sample);
    }
  }
  return sum;
}

std::string Exposition::next() {
  std::string text;
  text.reserve(pieceBytes + 1024);
  while (text.size() < pieceBytes && !families_.empty()) {
    auto& [name, family] = *families_.begin();
    if (family.series.empty()) {
      families_.erase(families_.begin());
      continue;
    }
    if (!family.isBegun) {
      text.append("# HELP ").append(name).append(" ").append(family.help);
      text.append("\n# TYPE ").append(name).append(" ").append(family.type).append("\n");
      family.isBegun = true;
    }
    write(name, family, text);
  }
  return text;
}
