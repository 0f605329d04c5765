#include <CLI/CLI.hpp>

#include "collector/FleetHistory.h"

void addHistoryOptions(CLI::App& app, HistoryOptions& options) {
  CLI::Option* const history =
      app.add_option("--history", options.file,
                     "record what changes in FILE, for orv-history and for the page, and\n"
                     "begin with the trees that it has")
          ->option_text("FILE")
          ->check(
              [](const std::string& text) { return text.empty() ? "It is empty" : std::string(); });
  const CLI::Range positive(1e-6, 1e6);
  app.add_option("--keep", options.keepDays,
                 "with --history: let go what is older than so many days")
      ->option_text("DAYS")
      ->check(positive)
      ->needs(history);
  app.add_option("--keep-size", options.keepSize,
                 "with --history: let go the oldest where the file would become\n"
                 "larger than so many gigabytes")
      ->option_text("GB")
      ->check(positive)
      ->needs(history);
  CLI::Option* const session =
      app.add_option("--session", options.session,
                     "with --history: have the broker hold what comes while no collector runs,\n"
                     "under NAME, which no other client has")
          ->option_text("NAME")
          ->needs(history);
  app.add_option("--session-expiry", options.sessionExpiry,
                 "with --session: for so long (default: 3600)")
      ->option_text("SECONDS")
      ->check(CLI::Range(5L, 30L * 86400L))
      ->needs(session);
}
