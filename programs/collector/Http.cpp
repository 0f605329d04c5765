#include "collector/Http.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <iterator>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "collector/Fleet.h"
#include "collector/FleetNews.h"
#include "collector/HistoryHttp.h"
#include "collector/HttpServer.h"
#include "collector/Json.h"
#include "collector/Metrics.h"
#include "collector/Partitions.h"
#include "collector/Scrapes.h"
#include "device_tree/Walk.h"
#include "page.h"

using orv::device_tree::DeviceNode;

namespace {

HttpAnswer textAnswer(const char* text, const std::string& type) {
  return {200, type + "; charset=utf-8", share(text)};
}

// Texts that clients have not taken yet. Who asks for the same gets the same one, so that many who
// are slow cost little.
class Untaken {
 public:
  Text find(const std::string& tag) const {
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto entry = texts_.find(tag);
    return entry == texts_.end() ? nullptr : entry->second.lock();
  }

  void add(const std::string& tag, const Text& text) {
    const std::lock_guard<std::mutex> guard(mutex_);
    for (auto entry = texts_.begin(); entry != texts_.end();) {
      entry = entry->second.expired() ? texts_.erase(entry) : std::next(entry);
    }
    texts_[tag] = text;
  }

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::weak_ptr<const std::string>> texts_;
};

HttpAnswer answerRoots(const Fleet& fleet, Untaken& untaken, const HttpRequest& request) {
  std::vector<std::pair<std::string, Fleet::Summary>> list;
  bool isConnected = false;
  std::string tag;
  {
    const auto guard = fleet.lock();
    tag = fleet.listTag();
    if (request.knows(tag)) return unchanged(tag);
    if (const Text text = untaken.find(tag)) return jsonAnswer(text, tag);
    isConnected = fleet.isConnected();
    list.reserve(fleet.roots().size());
    for (const auto& [id, root] : fleet.roots()) list.emplace_back(id, root.summary);
  }
  Json roots = Json::array();
  for (const auto& [id, summary] : list) roots.push_back(jsonOf(id, summary));
  const Text text = share(dump({{"connected", isConnected}, {"roots", std::move(roots)}}));
  untaken.add(tag, text);
  return jsonAnswer(text, tag);
}

// Whether the text contains the one that is sought. A to Z are the same as a to z.
bool contains(const std::string& text, const std::string& sought) {
  const auto isSame = [](unsigned char one, unsigned char other) {
    return std::tolower(one) == std::tolower(other);
  };
  return std::search(text.begin(), text.end(), sought.begin(), sought.end(), isSame) != text.end();
}

HttpAnswer answerDevices(const Fleet& fleet, const HttpRequest& request) {
  constexpr std::size_t mostFound = 100;
  constexpr std::size_t mostMet = 5'000'000;  // devices that are looked at
  constexpr std::size_t enough = 500;         // under one lock, unless one root has more
  const std::string sought = request.parameter("find").value_or("");
  if (sought.empty()) return refusal(400, "find: it says what is sought");
  std::vector<std::string> ids;
  {
    const auto guard = fleet.lock();
    for (const auto& [id, root] : fleet.roots()) ids.push_back(id);
  }
  Json devices = Json::array();
  std::size_t met = 0;
  bool isComplete = true;
  for (auto id = ids.begin(); id != ids.end() && isComplete;) {
    const auto guard = fleet.lock();
    for (const std::size_t end = met + enough; id != ids.end() && isComplete && met < end; ++id) {
      ++met;
      if (fleet.roots().count(*id) == 0) continue;  // gone since
      const auto view = fleet.view(*id);
      if (!view.tree) continue;
      const bool isCut = orv::device_tree::anyNode(*view.tree, [&](const DeviceNode& device) {
        if (++met > mostMet) return true;
        if (!contains(device.getDeviceId(), sought) && !contains(device.getName(), sought)) {
          return false;
        }
        if (devices.size() == mostFound) return true;
        devices.push_back({{"root", *id},
                           {"id", device.getDeviceId()},
                           {"name", device.getName()},
                           {"health", textOf(device.getGlobalStatus().level)},
                           {"message", device.getGlobalStatus().message}});
        return false;
      });
      isComplete = !isCut;
    }
  }
  return jsonAnswer(share(dump({{"devices", std::move(devices)}, {"complete", isComplete}})));
}

HttpAnswer answerRoot(const Fleet& fleet, Untaken& untaken, const std::string& id,
                      const HttpRequest& request) {
  Json json = {{"id", id}};
  std::optional<DeviceNode> tree;
  std::string tag;
  {
    const auto guard = fleet.lock();
    if (fleet.roots().count(id) == 0) return refusal(404, "There is no root '" + id + "'");
    tag = fleet.rootTag(id);
    if (request.knows(tag)) return unchanged(tag);
    if (const Text text = untaken.find(tag + id)) return jsonAnswer(text, tag);
    const auto view = fleet.view(id);
    addHead(view, json);
    if (view.tree) tree.emplace(*view.tree);
  }
  if (tree) json["tree"] = jsonOf(*tree);
  const Text text = share(dump(json));
  untaken.add(tag + id, text);
  return jsonAnswer(text, tag);
}

HttpAnswer answerMetrics(const Fleet& fleet, const HistorySource& history,
                         const MetricOptions& options, Scrapes& scrapes,
                         const HttpRequest& request) {
  Partitions partitions;
  try {
    if (const auto range = request.parameter("partitions")) partitions = partitionsOf(*range);
  } catch (const std::exception& fault) {
    return refusal(400, std::string("partitions: ") + fault.what());
  }
  HttpAnswer answer{200, "text/plain; version=0.0.4; charset=utf-8", nullptr};
  answer.pieces = scrapes.add(metricsOf(fleet, history, partitions, options));
  return answer;
}

HttpAnswer answerEvents(FleetNews& news, const HttpRequest& request) {
  const std::string& last = request.lastEvent;
  HttpAnswer answer{200, "text/event-stream", nullptr};
  answer.news = news.follow(last.empty() ? request.parameter("after").value_or("") : last,
                            request.parameter("root"));
  return answer;
}

bool isOfThisMachine(const std::string& name) {
  return name == "localhost" || name == "[::1]" ||
         (name.rfind("127.", 0) == 0 && name.find_first_not_of("0123456789.") == std::string::npos);
}

// Answers all questions about the fleet.
class Site {
 public:
  Site(const std::string& address, std::uint16_t port, Fleet& fleet,
       const MetricOptions& metricOptions, HistorySource history);
  Site(const Site&) = delete;
  Site& operator=(const Site&) = delete;
  ~Site();

  std::string url() const { return "http://" + name_ + ":" + std::to_string(server_.port()) + "/"; }

 private:
  HttpAnswer answer(const HttpRequest& request);
  bool isForUs(const std::string& host) const;

  Fleet& fleet_;
  const MetricOptions metricOptions_;
  Scrapes scrapes_;
  const HistorySource history_;
  FleetNews news_;
  Untaken untaken_;
  const std::string name_;  // of the address in a URL
  HttpServer server_;
};

Site::Site(const std::string& address, std::uint16_t port, Fleet& fleet,
           const MetricOptions& metricOptions, HistorySource history)
    : fleet_(fleet),
      metricOptions_(metricOptions),
      history_(std::move(history)),
      news_(fleet),
      name_(address.find(':') == std::string::npos ? address : "[" + address + "]"),
      server_(address, port, {"/metrics"},
              [this](const HttpRequest& request) { return answer(request); }) {
  const auto guard = fleet_.lock();
  fleet_.setListener([this] { server_.wake(); });
}

Site::~Site() {
  const auto guard = fleet_.lock();
  fleet_.setListener(nullptr);
}

HttpAnswer Site::answer(const HttpRequest& request) {
  const std::string root = "/api/roots/";
  const std::string& path = request.path;
  if (!isForUs(request.host)) {
    return refusal(403, "Only requests for this machine are answered, see --http-address");
  }
  if (path == "/") return textAnswer(page_html, "text/html");
  if (path == "/page.css") return textAnswer(page_css, "text/css");
  if (path == "/page.js") return textAnswer(page_js, "text/javascript");
  // No refusal: the page asks whether there is one.
  const bool isWithout = history_.file.empty();
  if (isWithout && path == "/api/history") return jsonAnswer(share(R"({"recording":false})"));
  if (auto answer = answerHistory(history_, request)) return *std::move(answer);
  if (path == "/elements.js") return textAnswer(elements_js, "text/javascript");
  if (path == "/past.js") return textAnswer(past_js, "text/javascript");
  if (path == "/metrics") {
    return answerMetrics(fleet_, history_, metricOptions_, scrapes_, request);
  }
  if (path == "/api/roots") return answerRoots(fleet_, untaken_, request);
  if (path == "/api/devices") return answerDevices(fleet_, request);
  if (path == "/api/events") return answerEvents(news_, request);
  if (path.compare(0, root.size(), root) == 0 && !request.parameter("at")) {
    return answerRoot(fleet_, untaken_, path.substr(root.size()), request);
  }
  return refusal(404, "There is nothing at this address");
}

// Whoever has a web server can have its name lead to this machine. The browser then lets the pages
// of that server read what is served here, but it sends that name.
bool Site::isForUs(const std::string& host) const {
  const std::size_t colon = host.rfind(':');
  const bool hasPort = colon != std::string::npos && host.find(']', colon) == std::string::npos;
  return !isOfThisMachine(name_) || isOfThisMachine(hasPort ? host.substr(0, colon) : host);
}

}  // namespace

std::shared_ptr<void> serveHttp(const std::string& address, std::uint16_t port, Fleet& fleet,
                                const MetricOptions& metricOptions, const HistorySource& history,
                                const std::function<void(const std::string&)>& log) {
  try {
    const auto site = std::make_shared<Site>(address, port, fleet, metricOptions, history);
    log(site->url());
    return site;
  } catch (const std::runtime_error& fault) {
    throw std::runtime_error("--http: cannot listen on " + address + ", port " +
                             std::to_string(port) + ": " + fault.what());
  }
}
