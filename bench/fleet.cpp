// Measures fleets: reporters, a collector, and brokers between them that it starts itself. Then, in
// one process and without a broker, many roots and many reporters. Last, what open pages of the
// collector program cost.

#include "Fleet.h"

#include <exception>
#include <iostream>
#include <set>
#include <string>
#include <vector>

#include "Pages.h"

namespace {

const char* const usage =
    " [--quick] SETTINGS COLLECTOR [rates|starts|crowd|pages]... >RESULTS.json\n"
    "  SETTINGS   of the brokers that it starts\n"
    "  COLLECTOR  the program\n";

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> words(argv + 1, argv + argc);
  const bool quick = !words.empty() && words.front() == "--quick";
  if (quick) words.erase(words.begin());
  if (words.size() < 2) {
    std::cerr << "usage: " << argv[0] << usage;
    return 2;
  }
  const std::string settings = words[0];
  const std::set<std::string> parts(words.begin() + 2, words.end());
  const auto has = [&](const char* part) { return parts.empty() || parts.count(part) > 0; };
  try {
    nlohmann::json results;
    // First, as each process that it starts would inherit the heap that the others leave.
    if (has("starts")) results["starts"] = bench::measureStarts(settings, quick);
    if (has("rates")) results["rates"] = bench::measureRates(settings, quick);
    if (has("crowd")) results["crowd"] = bench::measureCrowd(quick);
    if (has("pages")) results["pages"] = bench::measurePages(settings, words[1], quick);
    std::cout << results.dump(2) << '\n';
  } catch (const std::exception& error) {
    std::cerr << argv[0] << ": " << error.what() << '\n';
    return 1;
  }
}
