#include "collector/HistoryHttp.h"

#include <charconv>
#include <chrono>
#include <exception>
#include <stdexcept>
#include <system_error>

#include "HistoryJson.h"

using namespace orv::history;

namespace {

// A question that cannot be answered as it is put.
using Unclear = std::invalid_argument;

Time now() {
  return std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
}

std::string textIn(const HttpRequest& request, const std::string& name) {
  const std::string text = request.parameter(name).value_or("");
  if (text.empty()) throw Unclear(name + ": it is missing");
  return text;
}

std::optional<Time> timeIn(const HttpRequest& request, const std::string& name) {
  const auto text = request.parameter(name);
  if (!text) return std::nullopt;
  const auto time = timeOf(*text, now());
  if (!time)
    throw Unclear(name + ": '" + *text + "' is no time, like 2026-11-24T10:00:00Z or 2h ago");
  return time;
}

std::size_t numberIn(const HttpRequest& request, const std::string& name, std::size_t otherwise,
                     std::size_t most) {
  const auto text = request.parameter(name);
  if (!text) return otherwise;
  std::size_t number = 0;
  const auto result = std::from_chars(text->data(), text->data() + text->size(), number);
  if (result.ec != std::errc() || result.ptr != text->data() + text->size() || number < 1 ||
      number > most) {
    throw Unclear(name + ": a number from 1 to " + std::to_string(most));
  }
  return number;
}

HttpAnswer answer(const Json& json) { return jsonAnswer(share(dump(json))); }

HttpAnswer answerState(const HistorySource& source) {
  const std::string reason = source.failure();
  Json json = {{"recording", reason.empty()}};
  if (!reason.empty()) json["reason"] = reason;
  try {
    if (const auto oldest = Reader(source.file).oldest()) json["oldest"] = textOf(*oldest);
  } catch (const Error& error) {
    json["reason"] = error.what();
  }
  return answer(json);
}

HttpAnswer answerChanges(const HistorySource& source, const HttpRequest& request) {
  Question question;
  question.root = request.parameter("root").value_or("");
  question.device = request.parameter("device").value_or("");
  question.since = timeIn(request, "since");
  question.until = timeIn(request, "until");
  const std::string order = request.parameter("order").value_or("newest");
  if (order != "newest" && order != "oldest") throw Unclear("order: newest or oldest");
  question.isNewestFirst = order == "newest";
  question.most = numberIn(request, "limit", 100, 1000);
  question.after = request.parameter("after").value_or("");
  return answer(jsonOf(Reader(source.file).changes(question)));
}

HttpAnswer answerTree(const HistorySource& source, const std::string& root,
                      const HttpRequest& request) {
  const Time at = timeIn(request, "at").value();
  const auto moment = Reader(source.file).treeAt(root, at);
  if (!moment)
    return refusal(404, "The history does not have the root '" + root + "' at that time");
  const std::string tag = moment->sequence.text() + '.' + textOf(at) + '.' + textOf(moment->seen);
  if (request.knows(tag)) return unchanged(tag);
  return jsonAnswer(share(dump(jsonOf(root, at, *moment))), tag);
}

HttpAnswer answerValues(const HistorySource& source, const HttpRequest& request) {
  const std::string root = textIn(request, "root");
  const std::string device = textIn(request, "device");
  const std::string status = textIn(request, "status");
  const Time until = timeIn(request, "until").value_or(now());
  const Time since = timeIn(request, "since").value_or(until - std::chrono::hours(24));
  if (since >= until) throw Unclear("since: it has to be before until");
  const std::size_t points = numberIn(request, "points", 300, 2000);
  return answer(jsonOf(Reader(source.file).values(root, device, status, since, until, points)));
}

}  // namespace

std::optional<HttpAnswer> answerHistory(const HistorySource& source, const HttpRequest& request) {
  const std::string roots = "/api/roots/";
  const std::string& path = request.path;
  const bool isOfRoot = path.compare(0, roots.size(), roots) == 0 && request.parameter("at");
  if (!isOfRoot && path != "/api/history" && path != "/api/changes" && path != "/api/values") {
    return std::nullopt;
  }
  if (source.file.empty()) return refusal(404, "There is no history, see --history");
  try {
    if (isOfRoot) return answerTree(source, path.substr(roots.size()), request);
    if (path == "/api/history") return answerState(source);
    if (path == "/api/changes") return answerChanges(source, request);
    return answerValues(source, request);
  } catch (const Unclear& fault) {
    return refusal(400, fault.what());
  } catch (const Error& fault) {
    return refusal(503, fault.what());
  }
}
