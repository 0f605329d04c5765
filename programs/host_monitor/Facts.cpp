#include "host_monitor/Facts.h"

#include <algorithm>
#include <fstream>
#include <system_error>

namespace fs = std::filesystem;

std::set<std::string> entriesOf(const fs::path& directory) {
  std::set<std::string> names;
  std::error_code error;
  fs::directory_iterator entry(directory, error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    names.insert(entry->path().filename());
  }
  return names;
}

std::optional<std::string> line(const fs::path& file, const std::string& start) {
  const std::string blanks(" \t:\0", 4);
  std::ifstream stream(file);
  for (std::string text; std::getline(stream, text);) {
    if (text.rfind(start, 0) != 0) continue;
    text.erase(text.find_last_not_of(blanks) + 1);
    return text.substr(std::min(text.size(), text.find_first_not_of(blanks, start.size())));
  }
  return std::nullopt;
}
