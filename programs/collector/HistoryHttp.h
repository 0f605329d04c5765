// What a history is asked for over HTTP, as JSON.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "collector/HttpServer.h"

// What the questions are put to.
struct HistorySource {
  std::string file;                      // empty: there is no history
  std::function<std::string()> failure;  // why nothing is recorded now; empty when all is well
};

// Nothing for what is no question to a history. Any thread may call it.
//
//   /api/history                   {"oldest", "recording", "reason"}
//   /api/changes?root=&device=&since=&until=&order=newest|oldest&limit=&after=
//                                  {"changes": [{"time", "root", "device", "text", "place"}],
//                                  "next"}
//   /api/roots/ROOT?at=TIME        {"id", "at", "since", "seen", "sequence", "tree"}
//   /api/values?root=&device=&status=&since=&until=&points=
//                                  {"spans": [{"time", "smallest", "largest", "last", "unknown"}],
//                                   "next"}
std::optional<HttpAnswer> answerHistory(const HistorySource& source, const HttpRequest& request);
