#include "collector/Http.h"

#include <httplib.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "collector/Fleet.h"
#include "collector/Metrics.h"
#include "collector/Partitions.h"
#include "device_tree/Walk.h"
#include "page.h"

using httplib::Request;
using httplib::Response;
using Json = nlohmann::ordered_json;
using orv::device_tree::DeviceNode;
namespace monitoring = orv::proto::monitoring;

namespace {

void setJson(Response& response, const std::string& text) {
  // The parameter keeps the library from compressing JSON, which takes longer than all else.
  response.set_content(text, "application/json; charset=utf-8");
}

std::string dump(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// What follows gives a tree the JSON form that Protocol Buffers give its message. They write fewer
// levels than a tree may have.

Json jsonOf(double number) {
  if (std::isfinite(number)) return number;
  return std::isnan(number) ? "NaN" : number > 0 ? "Infinity" : "-Infinity";
}

Json jsonOf(const monitoring::NamedStatus& status) {
  Json json = {{"name", status.name()}, {"type", NamedStatus_Type_Name(status.type())}};
  // Whole numbers are texts: a reader may have no type for all of them.
  if (status.has_string_value()) json["string_value"] = status.string_value();
  if (status.has_int_value()) json["int_value"] = std::to_string(status.int_value());
  if (status.has_uint_value()) json["uint_value"] = std::to_string(status.uint_value());
  if (status.has_double_value()) json["double_value"] = jsonOf(status.double_value());
  return json;
}

Json jsonOf(const monitoring::Property& property) {
  return {{"name", property.name()},
          {"type", Property_Type_Name(property.type())},
          {"value", property.value()}};
}

Json jsonOf(const monitoring::GlobalStatus& health) {
  Json json = {{"level", GlobalStatus_Level_Name(health.level())}};
  if (health.has_message()) json["message"] = health.message();
  return json;
}

// Without its sub-devices.
Json ownJsonOf(const DeviceNode& device) {
  const auto deviceClass = device.getDeviceClass();
  const std::string& className = DeviceNode_DeviceClass_Name(deviceClass);
  Json json = {{"id", device.getDeviceId()}, {"name", device.getName()}};
  json["device_class"] = className.empty() ? Json(static_cast<int>(deviceClass)) : Json(className);
  for (const auto& [key, property] : device.getProperties()) {
    if (property) json["properties"].push_back(jsonOf(property->toProtoBuf()));
  }
  json["global_status"] = jsonOf(device.getGlobalStatus().toProtoBuf());
  for (const auto& [key, status] : device.getStatuses()) {
    if (status) json["statuses"].push_back(jsonOf(status->toProtoBuf()));
  }
  return json;
}

// It is written and released by recursion. No tree that arrives has more than 98 levels: what
// parses its message refuses more.
Json jsonOf(const DeviceNode& root) {
  Json json = ownJsonOf(root);
  std::vector<Json*> open = {&json};  // one for each level above the device met
  orv::device_tree::Walk walk(root);
  while (const auto* device = walk.next()) {
    open.resize(walk.depth());
    open.push_back(&(*open.back())["sub_devices"].emplace_back(ownJsonOf(**device)));
  }
  return json;
}

// Whether the reader has the content of that tag already; the answer is complete then.
bool isKnown(const std::string& tag, const Request& request, Response& response) {
  response.set_header("ETag", '"' + tag + '"');
  const std::string known = request.get_header_value("If-None-Match");
  if (known != "*" && known.find('"' + tag + '"') == std::string::npos) return false;
  response.status = 304;
  return true;
}

void refuse(Response& response, const std::string& reason) {
  response.status = 400;
  response.set_content(reason + "\n", "text/plain");
}

void answerRoots(const Fleet& fleet, const Request& request, Response& response) {
  std::vector<std::pair<std::string, Fleet::Summary>> list;
  bool isConnected = false;
  {
    const auto guard = fleet.lock();
    if (isKnown(fleet.listTag(), request, response)) return;
    isConnected = fleet.isConnected();
    list.reserve(fleet.roots().size());
    for (const auto& [id, root] : fleet.roots()) list.emplace_back(id, root.summary);
  }
  Json roots = Json::array();
  for (const auto& [id, summary] : list) {
    Json root = {{"id", id},
                 {"name", summary.name},
                 {"health", summary.own ? textOf(summary.worst()) : "?"},
                 {"condition", textOf(summary.condition)},
                 {"devices", summary.devices},
                 {"warnings", summary.warnings},
                 {"errors", summary.errors}};
    // What the reporter says of the root as a whole.
    if (summary.own) root["global_status"] = jsonOf(summary.own->toProtoBuf());
    roots.push_back(std::move(root));
  }
  setJson(response, dump({{"connected", isConnected}, {"roots", std::move(roots)}}));
}

// Whether the text contains the one that is sought. A to Z are the same as a to z.
bool contains(const std::string& text, const std::string& sought) {
  const auto isSame = [](unsigned char one, unsigned char other) {
    return std::tolower(one) == std::tolower(other);
  };
  return std::search(text.begin(), text.end(), sought.begin(), sought.end(), isSame) != text.end();
}

void answerDevices(const Fleet& fleet, const Request& request, Response& response) {
  constexpr std::size_t mostFound = 100;
  constexpr std::size_t mostMet = 5'000'000;  // devices that are looked at
  constexpr std::size_t enough = 500;         // under one lock, unless one root has more
  const std::string sought = request.get_param_value("find");
  if (sought.empty()) return refuse(response, "find: it says what is sought");
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
  setJson(response, dump({{"devices", std::move(devices)}, {"complete", isComplete}}));
}

void answerRoot(const Fleet& fleet, const std::string& id, const Request& request,
                Response& response) {
  Json json = {{"id", id}};
  std::optional<DeviceNode> tree;
  {
    const auto guard = fleet.lock();
    if (fleet.roots().count(id) == 0) {
      response.status = 404;
      return setJson(response, dump({{"error", "There is no root '" + id + "'"}}));
    }
    if (isKnown(fleet.rootTag(id), request, response)) return;
    const auto view = fleet.view(id);
    json["condition"] = textOf(view.condition);
    json["reason"] = view.reason;
    json["reporter"] = view.reporter;
    json["sequence"] = view.sequence.text();
    if (view.tree) tree.emplace(*view.tree);
  }
  if (tree) json["tree"] = jsonOf(*tree);
  setJson(response, dump(json));
}

void answerMetrics(const Fleet& fleet, const Request& request, Response& response) {
  Partitions partitions;
  try {
    if (request.has_param("partitions")) {
      partitions = partitionsOf(request.get_param_value("partitions"));
    }
  } catch (const std::exception& fault) {
    return refuse(response, std::string("partitions: ") + fault.what());
  }
  const auto metrics = std::make_shared<Metrics>(fleet, partitions);
  const auto send = [metrics](std::size_t /*offset*/, httplib::DataSink& sink) {
    const std::string text = metrics->next();
    if (!text.empty()) return sink.write(text.data(), text.size());
    sink.done();
    return true;
  };
  // The library compresses what begins with "text/": with gzip for Prometheus, but with Brotli for
  // whoever takes that, a hundred times slower. "Text/" means the same and is left as it is.
  const bool isSlow = request.get_header_value("Accept-Encoding").find("br") != std::string::npos;
  const std::string kind = isSlow ? "Text" : "text";
  response.set_chunked_content_provider(kind + "/plain; version=0.0.4; charset=utf-8", send);
}

class Server {
 public:
  Server(const std::string& address, std::uint16_t port, const Fleet& fleet);
  ~Server();

  std::string url() const { return "http://" + name_ + ":" + std::to_string(port_) + "/"; }

 private:
  bool answer(const Request& request, Response& response) const;
  bool isForUs(const Request& request) const;

  const Fleet& fleet_;
  const std::string name_;  // of the address in a URL
  int port_ = 0;
  httplib::Server server_;
  std::thread thread_;
};

Server::Server(const std::string& address, std::uint16_t port, const Fleet& fleet)
    : fleet_(fleet), name_(address.find(':') == std::string::npos ? address : "[" + address + "]") {
  server_.new_task_queue = [] { return new httplib::ThreadPool(16); };
  // A connection that waits holds a thread.
  server_.set_keep_alive_max_count(1);
  server_.set_keep_alive_timeout(1);
  server_.set_payload_max_length(0);
  server_.set_tcp_nodelay(true);
  // Otherwise two processes could share the port.
  server_.set_socket_options([](int socket) {
    const int yes = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  server_.set_default_headers(
      {{"Cache-Control", "no-cache"},
       {"Content-Security-Policy",
        "default-src 'none'; style-src 'self'; script-src 'self'; connect-src 'self'; "
        "base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
       {"X-Content-Type-Options", "nosniff"}});
  // Takes all paths here: the library would match them with regular expressions.
  server_.set_pre_routing_handler([this](const Request& request, Response& response) {
    return answer(request, response) ? httplib::Server::HandlerResponse::Handled
                                     : httplib::Server::HandlerResponse::Unhandled;
  });
  port_ = port == 0 ? server_.bind_to_any_port(address) : port;
  const bool isBound = port == 0 ? port_ > 0 : server_.bind_to_port(address, port);
  if (!isBound) {
    throw std::runtime_error("--http: cannot listen on " + name_ + ":" + std::to_string(port) +
                             ": the port is taken, or the address is not this machine's");
  }
  thread_ = std::thread([this] { server_.listen_after_bind(); });
  while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

Server::~Server() {
  server_.stop();
  thread_.join();
}

// Whether the request was answered; the library refuses the others.
bool Server::answer(const Request& request, Response& response) const {
  const std::string root = "/api/roots/";
  if (request.method != "GET" && request.method != "HEAD") return false;
  if (!isForUs(request)) {
    response.status = 403;
  } else if (!request.ranges.empty()) {
    response.status = 416;  // the library would copy the content as often as a request lists it
  } else if (request.path == "/") {
    response.set_content(page_html, "text/html; charset=utf-8");
  } else if (request.path == "/page.css") {
    response.set_content(page_css, "text/css; charset=utf-8");
  } else if (request.path == "/page.js") {
    response.set_content(page_js, "text/javascript; charset=utf-8");
  } else if (request.path == "/api/roots") {
    answerRoots(fleet_, request, response);
  } else if (request.path == "/api/devices") {
    answerDevices(fleet_, request, response);
  } else if (request.path.compare(0, root.size(), root) == 0) {
    answerRoot(fleet_, request.path.substr(root.size()), request, response);
  } else if (request.path == "/metrics") {
    answerMetrics(fleet_, request, response);
  } else {
    return false;
  }
  return true;
}

bool isOfThisMachine(const std::string& name) {
  return name == "localhost" || name == "[::1]" ||
         (name.rfind("127.", 0) == 0 && name.find_first_not_of("0123456789.") == std::string::npos);
}

// Whoever has a web server can have its name lead to this machine. The browser then lets the pages
// of that server read what is served here, but it sends that name.
bool Server::isForUs(const Request& request) const {
  const std::string sent = request.get_header_value("Host");
  const std::size_t colon = sent.rfind(':');
  const bool hasPort = colon != std::string::npos && sent.find(']', colon) == std::string::npos;
  return !isOfThisMachine(name_) || isOfThisMachine(hasPort ? sent.substr(0, colon) : sent);
}

}  // namespace

std::shared_ptr<void> serveHttp(const std::string& address, std::uint16_t port, const Fleet& fleet,
                                const std::function<void(const std::string&)>& log) {
  const auto server = std::make_shared<Server>(address, port, fleet);
  log(server->url());
  return server;
}
