#include "HistoryJson.h"

#include <utility>

using namespace orv::history;

Json jsonOf(const Page<Change>& page) {
  Json changes = Json::array();
  for (const Change& change : page.answers) {
    changes.push_back({{"time", textOf(change.time)},
                       {"root", change.root},
                       {"device", change.device},
                       {"text", change.text},
                       {"place", change.place}});
  }
  Json json = {{"changes", std::move(changes)}};
  if (!page.next.empty()) json["next"] = page.next;
  return json;
}

Json jsonOf(const std::string& root, Time at, const Moment& moment) {
  Json json = {{"id", root},
               {"at", textOf(at)},
               {"since", textOf(moment.since)},
               {"seen", textOf(moment.seen)},
               {"sequence", moment.sequence.text()}};
  if (moment.tree) json["tree"] = jsonOf(*moment.tree);
  return json;
}

Json jsonOf(const Course& course) {
  Json spans = Json::array();
  for (const Span& span : course.spans) {
    Json json = {{"time", textOf(span.time)},
                 {"smallest", span.smallest},
                 {"largest", span.largest},
                 {"last", span.last}};
    if (span.isUnknown) json["unknown"] = true;
    spans.push_back(std::move(json));
  }
  Json json = {{"spans", std::move(spans)}};
  if (course.next) json["next"] = textOf(*course.next);
  return json;
}

Json jsonOf(const Root& root) {
  if (!root.damage.empty()) return {{"id", root.id}, {"damage", root.damage}};
  return {{"id", root.id}, {"there", root.isThere}, {"changed", textOf(root.changed)}};
}
