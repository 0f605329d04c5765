// Metrics in the text format of Prometheus
// (https://prometheus.io/docs/instrumenting/exposition_formats/).
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

// The text as part of a metric's or a label's name: "_" in place of what may not stand there. Two
// texts may become one.
std::string nameOf(const std::string& text);

// The first 256 bytes of the text, in whole characters, with U+FFFD in place of each byte that is
// not part of a character, and of NUL, at which Prometheus stops to read.
std::string labelOf(const std::string& text);

// Adds NAME="value" to a list of labels.
void addLabel(std::string& labels, std::string_view name, const std::string& value);

// Takes metrics in any order and hands out their text piece by piece. The format wants all series
// of one name together. So they are kept until then: 16 bytes each, and what they are about once.
class Exposition {
 public:
  // What series are about, as labels that they share.
  using Subject = std::uint32_t;
  struct Sample {
    Subject subject;
    double value;
  };
  // By the labels that come after those of the subject. No two samples of one vector may have the
  // same subject: Prometheus refuses the whole answer when two series are equal.
  using Series = std::map<std::string, std::vector<Sample>>;

  Subject addSubject(const std::string& labels);

  // The series of that name. The help and the type are those of its first mention.
  Series& family(const std::string& name, const std::string& help, const char* type = "gauge");

  // About what is kept.
  std::size_t bytes() const;

  // The next piece, at least one line; empty at the end. What it has is no longer kept, and nothing
  // may be added any more.
  std::string next();

 private:
  struct Family {
    std::string help;
    const char* type;
    Series series;
    bool isBegun = false;
  };

  std::string_view labelsOf(Subject subject) const;
  void write(const std::string& name, Family& family, std::string& text);

  std::map<std::string, Family> families_;
  std::string labels_;             // of all subjects
  std::vector<std::size_t> ends_;  // of those of each
  std::size_t written_ = 0;        // samples of the series that is under way
};
