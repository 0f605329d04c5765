#include "collector/HttpServer.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <exception>
#include <new>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using boost::system::error_code;
using net::ip::tcp;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::size_t mostConnections = 500;  // below the usual limit of descriptors, 1,024
constexpr std::size_t mostHeader = 16'384;    // bytes of a request
constexpr std::size_t mostBytes = 256 << 20;  // of all texts that are there
constexpr std::size_t portion = 256 << 10;    // bytes that a client has to take within `patience`
constexpr std::chrono::seconds patience(30);
constexpr std::chrono::milliseconds pace(20);  // from some news of a client to the next
constexpr std::chrono::seconds heartbeat(5);   // of a client that gets no news

// What a URL has instead of these bytes. Nothing for what is no such text.
std::optional<std::string> decode(std::string_view text, bool isQuery) {
  std::string result;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '%') {
      unsigned int byte = 0;
      const std::string_view digits = text.substr(at + 1, 2);
      const auto end = digits.data() + digits.size();
      const auto read = std::from_chars(digits.data(), end, byte, 16);
      if (digits.size() != 2 || read.ec != std::errc() || read.ptr != end) return std::nullopt;
      result += static_cast<char>(byte);
      at += 2;
    } else {
      result += isQuery && text[at] == '+' ? ' ' : text[at];
    }
  }
  return result;
}

using Header = http::request_header<>;

std::string fieldOf(const Header& header, http::field field) {
  const auto value = header[field];
  return {value.data(), value.size()};
}

// Nothing where the target is no path of this server.
std::optional<HttpRequest> requestOf(const Header& header) {
  std::string_view target(header.target().data(), header.target().size());
  if (target.empty() || target.front() != '/') return std::nullopt;
  HttpRequest request;
  const std::size_t mark = std::min(target.find('?'), target.size());
  const auto path = decode(target.substr(0, mark), false);
  if (!path) return std::nullopt;
  request.path = *path;
  target.remove_prefix(mark);
  while (!target.empty()) {
    target.remove_prefix(1);  // what stands before it
    const std::string_view one = target.substr(0, target.find('&'));
    target.remove_prefix(one.size());
    const std::size_t equals = std::min(one.find('='), one.size());
    const auto name = decode(one.substr(0, equals), true);
    const auto value = decode(one.substr(std::min(equals + 1, one.size())), true);
    if (!name || !value) return std::nullopt;
    if (!one.empty()) request.parameters.emplace(*name, *value);
  }
  request.host = fieldOf(header, http::field::host);
  request.knownTags = fieldOf(header, http::field::if_none_match);
  const auto lastEvent = header["Last-Event-ID"];
  request.lastEvent.assign(lastEvent.data(), lastEvent.size());
  return request;
}

bool takesGzip(const Header& header) {
  for (const auto& [name, parameters] : http::ext_list(header[http::field::accept_encoding])) {
    if (!beast::iequals(name, "gzip")) continue;
    const auto isNone = [](const auto& parameter) {
      return parameter.first == "q" &&
             parameter.second.find_first_not_of("0.") == std::string::npos;
    };
    return std::none_of(parameters.begin(), parameters.end(), isNone);
  }
  return false;
}

// Compresses at the level that is the fastest: the next one takes a third longer for 3 % less.
class Gzip {
 public:
  Gzip() {
    constexpr int gzip = 16;
    if (deflateInit2(&stream_, 1, Z_DEFLATED, gzip + MAX_WBITS, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
      throw std::bad_alloc();
    }
  }
  Gzip(const Gzip&) = delete;
  Gzip& operator=(const Gzip&) = delete;
  ~Gzip() { deflateEnd(&stream_); }

  // May keep some of it until later.
  void add(std::string& text, std::string& result) { run(text, Z_NO_FLUSH, result); }
  void finish(std::string& result) {
    std::string nothing;
    run(nothing, Z_FINISH, result);
  }

 private:
  void run(std::string& text, int flush, std::string& result) {
    std::array<char, 65'536> buffer{};
    stream_.next_in = reinterpret_cast<Bytef*>(text.data());
    stream_.avail_in = static_cast<uInt>(text.size());
    do {
      stream_.next_out = reinterpret_cast<Bytef*>(buffer.data());
      stream_.avail_out = static_cast<uInt>(buffer.size());
      deflate(&stream_, flush);
      result.append(buffer.data(), buffer.size() - stream_.avail_out);
    } while (stream_.avail_out == 0);
  }

  z_stream stream_{};
};

std::atomic<std::size_t> textBytes = 0;  // of all texts that somebody has

}  // namespace

Text share(std::string text) {
  const auto release = [](const std::string* shared) {
    textBytes -= shared->size();
    delete shared;
  };
  textBytes += text.size();
  return {new std::string(std::move(text)), release};
}

std::optional<std::string> HttpRequest::parameter(const std::string& name) const {
  const auto entry = parameters.find(name);
  if (entry == parameters.end()) return std::nullopt;
  return entry->second;
}

bool HttpRequest::knows(const std::string& tag) const {
  return knownTags == "*" || knownTags.find('"' + tag + '"') != std::string::npos;
}

HttpAnswer jsonAnswer(Text json, const std::string& tag) {
  return {200, "application/json; charset=utf-8", std::move(json), tag};
}

HttpAnswer refusal(unsigned int status, const std::string& reason) {
  using Json = nlohmann::json;
  const Json json = {{"error", reason}};
  const std::string text = json.dump(-1, ' ', false, Json::error_handler_t::replace);
  HttpAnswer answer = jsonAnswer(share(text + "\n"));
  answer.status = status;
  return answer;
}

HttpAnswer unchanged(const std::string& tag) { return {304, "", nullptr, tag}; }

class HttpServer::Core {
 public:
  Core(const std::string& address, std::uint16_t port, std::set<std::string> urgentPaths,
       Handler handler);
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;
  ~Core();

  std::uint16_t port() const { return acceptor_.local_endpoint().port(); }
  void wake();

 private:
  class Client;

  void accept();
  void look();
  void tick();

  const std::set<std::string> urgentPaths_;
  const Handler handler_;
  std::atomic<bool> isAwake_ = false;  // somebody looks for news before long
  // What follows is for the thread of the connections alone.
  net::io_context context_{1};
  tcp::acceptor acceptor_{context_};
  net::steady_timer pause_{context_};  // of the acceptor
  net::steady_timer nextLook_{context_};
  net::steady_timer nextTick_{context_};
  Clock::time_point lastLook_;
  std::set<std::shared_ptr<Client>> clients_;
  // Neither news nor what is urgent is to wait for long answers.
  net::thread_pool answers_{3};
  net::thread_pool urgentAnswers_{1};
  net::thread_pool news_{1};
  std::thread thread_;
};

// One connection. Other threads make its answers, one at a time, and touch nothing else of it.
class HttpServer::Core::Client : public std::enable_shared_from_this<Client> {
 public:
  Client(Core& core, tcp::socket socket) : core_(core), stream_(std::move(socket)) {}

  void read();
  // Looks for news if the client follows some and has taken those before.
  void look(bool inAnyCase);
  // Tells a client that got nothing for long that it is not forgotten.
  void beat();
  // There are too many clients.
  void turnAway();

 private:
  void take(const error_code& error);
  void ask();
  void start(HttpAnswer answer);
  void produce();
  void take(std::string piece);
  void tell(Text news);
  void watch();
  void send(Text body);
  void write();
  void sent();
  void finish();
  void linger();
  void end();
  std::string nextPiece();

  // Has a thread of the pool do the work, and the one of the connections what comes then.
  template <typename Work, typename Then>
  void have(net::thread_pool& pool, Work work, Then then) {
    net::post(pool, [self = shared_from_this(), work, then]() mutable {
      using Result = decltype(work());
      std::optional<Result> result;
      try {
        result = work();
      } catch (const std::exception&) {
        // What was sent of the answer cannot be taken back.
      }
      auto& context = self->core_.context_;
      net::post(context, [self = std::move(self), result = std::move(result), then]() mutable {
        if (!self->isOver_ && result) then(std::move(*result));
        if (!self->isOver_ && !result) self->end();
      });
    });
  }

  Core& core_;
  beast::tcp_stream stream_;
  beast::flat_buffer buffer_{2 * mostHeader};
  std::optional<http::request_parser<http::empty_body>> parser_;
  bool isHead_ = false;
  bool isKept_ = false;     // the connection, after this answer
  bool isChunked_ = false;  // the body of this answer
  bool isOver_ = false;
  net::thread_pool* makers_ = nullptr;  // of the answer
  HttpAnswer answer_;
  std::optional<Gzip> gzip_;
  bool hasEnded_ = false;  // the pieces
  bool isReady_ = false;   // for news
  Clock::time_point lastNews_;
  std::array<char, 64> heard_{};
  // What is being sent.
  std::string before_;
  Text body_;
  std::string after_;
  std::size_t at_ = 0;
};

void HttpServer::Core::Client::read() {
  parser_.emplace();
  parser_->header_limit(mostHeader);
  stream_.expires_after(patience);
  http::async_read(stream_, buffer_, *parser_,
                   [self = shared_from_this()](const error_code& error, std::size_t /*size*/) {
                     self->take(error);
                   });
}

void HttpServer::Core::Client::take(const error_code& error) {
  const bool isBad = error.category() == make_error_code(http::error::bad_method).category();
  isKept_ = !error && parser_->keep_alive();
  isHead_ = parser_->get().method() == http::verb::head;
  if (isOver_ || (error && !isBad) || error == http::error::end_of_stream) return end();
  if (error == http::error::partial_message) return end();
  if (error == http::error::header_limit || error == http::error::buffer_overflow) {
    return start(refusal(431, "The request is too long"));
  }
  if (error == http::error::unexpected_body) return start(refusal(413, "No content is taken"));
  if (error) return start(refusal(400, "The request is not HTTP: " + error.message()));
  if (!isHead_ && parser_->get().method() != http::verb::get) {
    return start(refusal(405, "There is only GET and HEAD"));
  }
  ask();
}

void HttpServer::Core::Client::ask() {
  auto request = requestOf(parser_->get());
  if (!request) return start(refusal(400, "The address is none of this server"));
  const bool isUrgent = core_.urgentPaths_.count(request->path) > 0;
  if (!isUrgent && textBytes > mostBytes) return start(refusal(503, "Too much waits to be sent"));
  const auto answer = [&core = core_, request = std::move(*request)] {
    try {
      return core.handler_(request);
    } catch (const std::exception& fault) {
      return refusal(500, fault.what());
    }
  };
  makers_ = isUrgent ? &core_.urgentAnswers_ : &core_.answers_;
  have(*makers_, answer, [this](HttpAnswer made) { start(std::move(made)); });
}

void HttpServer::Core::Client::start(HttpAnswer answer) {
  answer_ = std::move(answer);
  const bool isLong = answer_.pieces || answer_.news;
  hasEnded_ = false;
  isChunked_ = isLong && parser_->get().version() == 11;
  isKept_ = isKept_ && isLong == isChunked_;
  http::response<http::empty_body> header(http::int_to_status(answer_.status), 11);
  header.keep_alive(isKept_);
  if (!isKept_) header.set(http::field::connection, "close");
  header.set(http::field::cache_control, "no-cache");
  header.set("Content-Security-Policy",
             "default-src 'none'; style-src 'self'; script-src 'self'; connect-src 'self'; "
             "base-uri 'none'; form-action 'none'; frame-ancestors 'none'");
  header.set("X-Content-Type-Options", "nosniff");
  if (answer_.status == 405) header.set(http::field::allow, "GET, HEAD");
  if (answer_.status == 503) header.set(http::field::retry_after, "5");
  if (!answer_.tag.empty()) header.set(http::field::etag, '"' + answer_.tag + '"');
  if (!answer_.type.empty()) header.set(http::field::content_type, answer_.type);
  if (answer_.pieces) {
    header.set(http::field::vary, "Accept-Encoding");
    gzip_.reset();
    if (takesGzip(parser_->get())) {
      gzip_.emplace();
      header.set(http::field::content_encoding, "gzip");
    }
  }
  if (isChunked_) header.chunked(true);
  if (!isLong && answer_.status != 304) {
    header.content_length(answer_.body ? answer_.body->size() : 0);
  }
  std::ostringstream text;
  text << header.base();
  before_ = text.str();
  if (answer_.news && !isHead_) watch();
  send(isLong || isHead_ ? nullptr : answer_.body);
}

// The next piece of the answer as it is sent.
std::string HttpServer::Core::Client::nextPiece() {
  std::string result;
  while (result.empty() && !hasEnded_) {
    std::string piece = answer_.pieces();
    hasEnded_ = piece.empty();
    if (!gzip_) return piece;
    if (hasEnded_) gzip_->finish(result);
    if (!hasEnded_) gzip_->add(piece, result);
  }
  return result;
}

void HttpServer::Core::Client::produce() {
  have(
      *makers_, [this] { return nextPiece(); },
      [this](std::string piece) { take(std::move(piece)); });
}

void HttpServer::Core::Client::take(std::string piece) {
  if (hasEnded_) answer_.pieces = nullptr;
  send(piece.empty() ? nullptr : share(std::move(piece)));
}

void HttpServer::Core::Client::look(bool inAnyCase) {
  if (!isReady_ || (!inAnyCase && !answer_.news->isThere())) return;
  isReady_ = false;
  have(
      core_.news_, [news = answer_.news] { return news->next(); },
      [this](Text news) { tell(std::move(news)); });
}

void HttpServer::Core::Client::beat() {
  if (!isReady_ || Clock::now() - lastNews_ < heartbeat) return;
  isReady_ = false;
  tell(share("event: beat\ndata: there\n\n"));
}

void HttpServer::Core::Client::tell(Text news) {
  if (!news || news->empty()) return sent();
  lastNews_ = Clock::now();
  send(std::move(news));
}

// Notices that the client of news leaves. It has nothing to say.
void HttpServer::Core::Client::watch() {
  stream_.expires_never();
  stream_.async_read_some(net::buffer(heard_),
                          [self = shared_from_this()](const error_code& error, std::size_t /*n*/) {
                            if (error) return self->end();
                            self->watch();
                          });
}

// Sends what is in before_, and then the body.
void HttpServer::Core::Client::send(Text body) {
  body_ = std::move(body);
  after_.clear();
  if (body_ && isChunked_) {
    std::array<char, 20> size{};
    const auto end = std::to_chars(size.data(), size.data() + size.size(), body_->size(), 16).ptr;
    before_ += std::string(size.data(), end) + "\r\n";
    after_ = "\r\n";
  }
  // The end of the pieces, and no answer that has not begun.
  if (isChunked_ && !answer_.news && !answer_.pieces && !isHead_) after_ += "0\r\n\r\n";
  at_ = 0;
  write();
}

void HttpServer::Core::Client::write() {
  const std::size_t size = body_ ? std::min(portion, body_->size() - at_) : 0;
  const bool isLast = !body_ || at_ + size == body_->size();
  const std::array<net::const_buffer, 3> buffers = {
      net::buffer(before_), body_ ? net::buffer(body_->data() + at_, size) : net::const_buffer(),
      isLast ? net::buffer(after_) : net::const_buffer()};
  stream_.expires_after(patience);
  net::async_write(stream_, buffers,
                   [self = shared_from_this(), size, isLast](const error_code& error, std::size_t) {
                     if (error || self->isOver_) return self->end();
                     self->before_.clear();
                     self->at_ += size;
                     if (isLast) return self->sent();
                     self->write();
                   });
}

void HttpServer::Core::Client::sent() {
  body_.reset();
  if (isHead_) return finish();
  if (answer_.pieces) return produce();
  if (!answer_.news) return finish();
  isReady_ = true;
  if (answer_.news->isThere()) core_.wake();
}

void HttpServer::Core::Client::finish() {
  answer_ = HttpAnswer();
  gzip_.reset();
  if (isKept_) return read();
  linger();
}

// Lets the client read the answer before the connection is gone: a request that was not read to its
// end would break it off.
void HttpServer::Core::Client::linger() {
  error_code ignored;
  stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
  buffer_.clear();
  stream_.expires_after(std::chrono::seconds(2));
  net::async_read(stream_, buffer_.prepare(mostHeader),
                  [self = shared_from_this()](const error_code&, std::size_t) { self->end(); });
}

void HttpServer::Core::Client::turnAway() {
  parser_.emplace();
  start(refusal(503, "There are too many connections"));
}

void HttpServer::Core::Client::end() {
  if (std::exchange(isOver_, true)) return;
  stream_.close();
  core_.clients_.erase(shared_from_this());
}

HttpServer::Core::Core(const std::string& address, std::uint16_t port,
                       std::set<std::string> urgentPaths, Handler handler)
    : urgentPaths_(std::move(urgentPaths)), handler_(std::move(handler)) {
  tcp::resolver resolver(context_);
  const auto found = resolver.resolve(address, std::to_string(port),
                                      tcp::resolver::passive | tcp::resolver::numeric_service);
  const tcp::endpoint endpoint = *found.begin();
  acceptor_.open(endpoint.protocol());
  acceptor_.set_option(tcp::acceptor::reuse_address(true));
  acceptor_.bind(endpoint);
  acceptor_.listen();
  accept();
  tick();
  thread_ = std::thread([this] { context_.run(); });
}

HttpServer::Core::~Core() {
  answers_.stop();
  urgentAnswers_.stop();
  news_.stop();
  context_.stop();
  thread_.join();
  answers_.join();
  urgentAnswers_.join();
  news_.join();
  clients_.clear();
}

void HttpServer::Core::accept() {
  acceptor_.async_accept([this](const error_code& error, tcp::socket socket) {
    if (error) {  // there are no descriptors left
      pause_.expires_after(std::chrono::milliseconds(100));
      return pause_.async_wait([this](const error_code& /*stopped*/) { accept(); });
    }
    error_code ignored;  // a client that is gone already
    socket.set_option(tcp::no_delay(true), ignored);
    // What waits in the kernel is as old as what waits here.
    socket.set_option(tcp::socket::send_buffer_size(portion), ignored);
    const auto client = std::make_shared<Client>(*this, std::move(socket));
    constexpr std::size_t mostRefused = 50;
    if (clients_.size() < mostConnections + mostRefused) clients_.insert(client);
    if (clients_.size() <= mostConnections) {
      client->read();
    } else if (clients_.count(client) > 0) {
      client->turnAway();
    }
    accept();
  });
}

void HttpServer::Core::wake() {
  if (isAwake_.exchange(true)) return;
  net::post(context_, [this] {
    nextLook_.expires_at(lastLook_ + pace);
    nextLook_.async_wait([this](const error_code& /*stopped*/) { look(); });
  });
}

void HttpServer::Core::look() {
  lastLook_ = Clock::now();
  isAwake_ = false;  // before they look: what comes now is for the next time
  for (const auto& client : clients_) client->look(false);
}

void HttpServer::Core::tick() {
  nextTick_.expires_after(std::chrono::seconds(1));
  nextTick_.async_wait([this](const error_code& /*stopped*/) {
    for (const auto& client : clients_) {
      client->beat();
      client->look(true);
    }
    tick();
  });
}

HttpServer::HttpServer(const std::string& address, std::uint16_t port,
                       std::set<std::string> urgentPaths, Handler handler)
    : core_(std::make_unique<Core>(address, port, std::move(urgentPaths), std::move(handler))) {}

HttpServer::~HttpServer() = default;

std::uint16_t HttpServer::port() const { return core_->port(); }

void HttpServer::wake() { core_->wake(); }
