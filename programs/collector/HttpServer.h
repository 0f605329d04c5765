// Answers over HTTP, with one thread for all connections.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

// Clients may share one. Questions are refused while there are too many bytes of them.
using Text = std::shared_ptr<const std::string>;
Text share(std::string text);

// The question of a client.
struct HttpRequest {
  std::string path;                               // decoded
  std::map<std::string, std::string> parameters;  // decoded; of several with one name the first
  std::string host;
  std::string knownTags;  // If-None-Match
  std::string lastEvent;  // Last-Event-ID

  std::optional<std::string> parameter(const std::string& name) const;
  // Whether the client has the content of that tag.
  bool knows(const std::string& tag) const;
};

// What a client is told for as long as it listens, as server-sent events.
class News {
 public:
  News() = default;
  News(const News&) = delete;
  News& operator=(const News&) = delete;
  virtual ~News() = default;

  // Whether there is something that `next` has not told. The thread of the connections asks, so it
  // takes no lock. Once a second `next` is called in any case.
  virtual bool isThere() const = 0;
  // Events that lead the client from what it was told to what is so now. Empty for nothing. It is
  // called when the client has taken the one before, by one thread for all clients.
  virtual Text next() = 0;
};

struct HttpAnswer {
  unsigned int status = 200;
  std::string type;
  Text body;
  std::string tag = {};
  // In place of a body: the next piece of a long one, empty at the end. It is called when the
  // client has taken the one before, and what it returns is compressed for a client that asks for
  // that.
  std::function<std::string()> pieces = nullptr;
  // In place of a body.
  std::shared_ptr<News> news = nullptr;
};

HttpAnswer jsonAnswer(Text json, const std::string& tag = {});
// Says why in JSON.
HttpAnswer refusal(unsigned int status, const std::string& reason);
// That the client has the content already.
HttpAnswer unchanged(const std::string& tag);

// Connections are served by one thread and answers are made by a few others. So a client that is
// slow, or that never reads, costs no thread. What it costs is limited: the size of a request, the
// time for each step, what waits to be sent, the number of connections. The next piece of an answer
// is made when the one before is gone, so a client that is slow to take news gets the latest.
class HttpServer {
 public:
  // Is called on several threads. Only GET and HEAD get there; a HEAD is answered without the body.
  using Handler = std::function<HttpAnswer(const HttpRequest&)>;

  // Port 0 is any that is free. The urgent paths have a thread of their own: they wait for no
  // answers to others and are answered however much waits to be sent. Throws std::runtime_error
  // when it cannot listen there.
  HttpServer(const std::string& address, std::uint16_t port, std::set<std::string> urgentPaths,
             Handler handler);
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;
  ~HttpServer();

  std::uint16_t port() const;

  // There may be news. Any thread may call it; it does not wait. Clients that are there get them at
  // once, unless they got some less than 20 ms ago.
  void wake();

 private:
  class Core;
  std::unique_ptr<Core> core_;
};
