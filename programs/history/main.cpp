// Asks the history that a collector records.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "CommandLine.h"
#include "HistoryJson.h"
#include "device_tree/Summary.h"
#include "device_tree/Utils.h"
#include "history/Reader.h"

using namespace orv::history;

namespace {

struct Options {
  std::string file;
  std::string question;
  Question part;
  std::string status;
  std::optional<Time> at;
  std::optional<Time> against;
  std::size_t points = 100;
  std::size_t count = 0;  // of changes; 0: all
  bool isJson = false;
};

Time now() {
  return std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
}

// Nothing when the command line is done with: it asks for the help or the version.
std::optional<Options> parse(int argc, char** argv) {
  Options options;
  options.part.isNewestFirst = false;
  CommandLine app(
      "Asks FILE, which a collector records with --history, also while it does:\n"
      "  changes   what changed, a line for each change\n"
      "  tree      how the devices of a root were at a time; with --against, what differs from\n"
      "            that at another time\n"
      "  values    how a number went\n"
      "  roots     of which roots there is something\n",
      argv[0]);
  app.add_option("FILE", options.file, "the history")->required();
  app.add_option("QUESTION", options.question, "changes, tree, values or roots")
      ->required()
      ->option_text(" ")
      ->check(CLI::IsMember({"changes", "tree", "values", "roots"}));
  app.add_option("--root", options.part.root, "of this root (default: of all)")->type_name("ROOT");
  app.add_option("--device", options.part.device,
                 "changes: of this device of the root and what is below it;\n"
                 "values: of this device (default: of the root itself)")
      ->type_name("ID");
  app.add_option("--status", options.status, "values: of this status")->type_name("NAME");
  const Time current = now();
  const auto addTime = [&](const char* name, std::optional<Time>& time, const char* text) {
    const auto read = [name, &time, current](const std::string& value) {
      time = timeOf(value, current);
      if (!time) {
        throw CLI::ValidationError(
            name, "'" + value + "' is no time, like 2026-11-24T10:00:00Z or \"2h ago\"");
      }
    };
    app.add_option_function<std::string>(name, read, text)->type_name("TIME");
  };
  addTime("--at", options.at, "tree: at this time (default: now)");
  addTime("--against", options.against, "tree: what differs at this time from how it was --at");
  addTime("--since", options.part.since, "changes, values: from this time on (values: 24h ago)");
  addTime("--until", options.part.until, "changes, values: before this time");
  app.add_flag("--newest", options.part.isNewestFirst, "changes: the newest first");
  app.add_option("--count", options.count, "changes: at most N (default: all)")->type_name("N");
  app.add_option("--points", options.points,
                 "values: thinned out to at most N lines, each with the smallest and\n"
                 "the largest value of its time (default: 100)")
      ->type_name("N")
      ->check(CLI::Range(1, 100'000));
  std::string format = "text";
  app.add_option("--format", format, "text (default) or json, an object on a line")
      ->option_text("FORMAT")
      ->check(CLI::IsMember({"text", "json"}));
  app.footer(
      "A TIME is as in 2026-11-24T10:00:00Z, or \"now\", or as in \"90s ago\", \"5m ago\", \"2h "
      "ago\"\n"
      "and \"3d ago\". It asks for what was recorded last at that time or before it.\n"
      "Status 1: the file cannot be read, or does not have what is asked for.");
  if (!app.read(argc, argv)) return std::nullopt;
  options.isJson = format == "json";
  return options;
}

void printLine(const std::string& line) { print(printable(line) + '\n'); }

void require(const std::string& value, const char* option, const std::string& question) {
  if (value.empty()) throw std::invalid_argument(question + " needs " + option);
}

void tellChanges(Reader& reader, const Options& options) {
  Question question = options.part;
  std::size_t left = options.count == 0 ? SIZE_MAX : options.count;
  do {
    question.most = std::min<std::size_t>(left, 1000);
    const auto page = reader.changes(question);
    for (const Change& change : page.answers) {
      if (options.isJson) {
        print(dump({{"time", textOf(change.time)},
                    {"root", change.root},
                    {"device", change.device},
                    {"text", change.text}}) +
              '\n');
      } else {
        printLine(textOf(change.time) + ' ' + (change.root.empty() ? "-" : change.root) + ' ' +
                  change.text);
      }
    }
    left -= page.answers.size();
    question.after = page.next;
  } while (!question.after.empty() && left > 0);
}

Moment momentOf(Reader& reader, const std::string& root, Time time) {
  auto moment = reader.treeAt(root, time);
  if (moment) return *std::move(moment);
  const auto oldest = reader.oldest();
  throw std::runtime_error("There is nothing of the root '" + root + "' at " + textOf(time) +
                           (oldest ? ". What is kept begins at " + textOf(*oldest) : ""));
}

void tellTree(Reader& reader, const Options& options) {
  const std::string& root = options.part.root;
  require(root, "--root", "tree");
  const Time at = options.at.value_or(now());
  const Moment moment = momentOf(reader, root, at);
  if (!options.against) {
    if (options.isJson) return print(dump(jsonOf(root, at, moment)) + '\n');
    std::string head = root + " at " + textOf(at) + ", like that since " + textOf(moment.since);
    // Of the last seconds a recorder at work has not said yet that it saw them.
    const std::chrono::seconds lag(now() - at < std::chrono::seconds(10) ? 10 : 0);
    const bool isUnseen = at - moment.seen > lag;
    if (isUnseen) head += ", nothing was recorded after " + textOf(moment.seen);
    print(printable(head) + '\n');
    // It has lines of its own, which `printable` would join.
    print(moment.tree ? moment.tree->debugString() : "It was not there\n");
    return;
  }
  const Moment other = momentOf(reader, root, *options.against);
  orv::reporting::Event event;
  if (!orv::device_tree::utils::EventHelper::ComputeEvent(moment.tree, other.tree, event)) {
    if (!options.isJson) print("Nothing differs\n");
    return;
  }
  for (const auto& line : orv::device_tree::utils::GetSummary(event, moment.tree, other.tree)) {
    if (options.isJson) {
      print(dump({{"device", line.deviceId}, {"text", line.text}}) + '\n');
    } else {
      printLine(line.text);
    }
  }
}

void tellValues(Reader& reader, const Options& options) {
  require(options.part.root, "--root", "values");
  require(options.status, "--status", "values");
  const std::string& device = options.part.device.empty() ? options.part.root : options.part.device;
  const Time until = options.part.until.value_or(now());
  Time since = options.part.since.value_or(until - std::chrono::hours(24));
  if (since >= until) throw std::invalid_argument("--since has to be before --until");
  // Each question is answered for a part, so that the parts together have so many points.
  const auto length = until - since;
  for (std::optional<Time> next = since; next; since = *next) {
    const auto share = static_cast<std::size_t>(
        1 + static_cast<double>(options.points - 1) * static_cast<double>((until - since).count()) /
                static_cast<double>(length.count()));
    const Course course =
        reader.values(options.part.root, device, options.status, since, until, share);
    for (const Span& span : course.spans) {
      if (options.isJson) {
        print(dump({{"time", textOf(span.time)},
                    {"smallest", span.smallest},
                    {"largest", span.largest},
                    {"last", span.last},
                    {"unknown", span.isUnknown}}) +
              '\n');
        continue;
      }
      const auto number = [](double value) {
        const bool isWhole = std::abs(value) < 1e15 && std::trunc(value) == value;
        return isWhole ? std::to_string(static_cast<long>(value)) : Json(value).dump();
      };
      std::string line = textOf(span.time) + ' ' + number(span.last);
      if (span.smallest < span.largest) {
        line += " (" + number(span.smallest) + " to " + number(span.largest) + ')';
      }
      printLine(line + (span.isUnknown ? ", then unknown" : ""));
    }
    next = course.next;
    if (!next) return;
  }
}

void tellRoots(Reader& reader, const Options& options) {
  for (const Root& root : reader.roots()) {
    if (!options.part.root.empty() && root.id != options.part.root) continue;
    if (options.isJson) {
      print(dump(jsonOf(root)) + '\n');
    } else if (!root.damage.empty()) {
      printLine(root.id + (root.id.empty() ? "" : ": ") + root.damage);
    } else {
      printLine(textOf(root.changed) + ' ' + root.id + (root.isThere ? "" : ": gone"));
    }
  }
}

void answer(const Options& options) {
  Reader reader(options.file);
  if (options.question == "changes") return tellChanges(reader, options);
  if (options.question == "tree") return tellTree(reader, options);
  if (options.question == "values") return tellValues(reader, options);
  tellRoots(reader, options);
}

}  // namespace

int main(int argc, char** argv) {
  return runProgram(argv[0], [&] {
    const auto options = parse(argc, argv);
    if (options) answer(*options);
  });
}
