#include "reporting/Connection.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <exception>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <stdexcept>
#include <utility>
#include <variant>

#include "reporting/Encryption.h"
#include "reporting/Route.h"
#include "reporting/Seed.h"

namespace orv::reporting {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

namespace {

constexpr seconds willDelay(5);
constexpr int mostOnTheirWay = 1000;  // in each direction, if the broker agrees
constexpr seconds stable(10);    // a connection that lasts so long ends the growth of the pauses
constexpr seconds patience(10);  // of an attempt with an address
constexpr seconds upkeep(1);     // the longest time between two looks at the keep-alive
// A broker that answers nothing for so long, though it keeps the connection alive, will not answer.
constexpr seconds longestWait(60);
constexpr seconds mostSeconds(0xffffffff);  // that MQTT can express
constexpr seconds farewell(1);              // for each step of an orderly end

// The client library's own state, kept for the life of the process.
void initialise() {
  static const int result = mosquitto_lib_init();
  if (result != MOSQ_ERR_SUCCESS) throw std::runtime_error(mosquitto_strerror(result));
}

// What the client library says to a call that it certainly did not carry out.
bool isRefusal(int result) {
  return result == MOSQ_ERR_INVAL || result == MOSQ_ERR_PAYLOAD_SIZE ||
         result == MOSQ_ERR_MALFORMED_UTF8 || result == MOSQ_ERR_OVERSIZE_PACKET ||
         result == MOSQ_ERR_NOT_SUPPORTED || result == MOSQ_ERR_QOS_NOT_SUPPORTED ||
         result == MOSQ_ERR_RETAIN_NOT_SUPPORTED;
}

std::string textOf(int result) {
  return result == MOSQ_ERR_KEEPALIVE ? "The broker does not answer" : mosquitto_strerror(result);
}

class Properties {
 public:
  Properties() = default;
  Properties(const Properties&) = delete;
  Properties& operator=(const Properties&) = delete;
  ~Properties() { mosquitto_property_free_all(&list_); }

  void add(int name, std::uint32_t value) {
    require(mosquitto_property_add_int32(&list_, name, value));
  }
  void add(const char* name, const std::string& value) {
    require(
        mosquitto_property_add_string_pair(&list_, MQTT_PROP_USER_PROPERTY, name, value.c_str()));
  }
  mosquitto_property* get() const { return list_; }
  mosquitto_property* release() { return std::exchange(list_, nullptr); }

 private:
  static void require(int result) {
    if (result != MOSQ_ERR_SUCCESS) throw std::bad_alloc();
  }

  mosquitto_property* list_ = nullptr;
};

void readProperties(const mosquitto_property* properties, Message& message) {
  bool isLater = false;
  char* name = nullptr;
  char* value = nullptr;
  while ((properties = mosquitto_property_read_string_pair(properties, MQTT_PROP_USER_PROPERTY,
                                                           &name, &value, isLater)) != nullptr) {
    if (std::string(name) == "sequence") message.sequence = value;
    if (std::string(name) == "reporter") message.reporter = value;
    std::free(name);
    std::free(value);
    isLater = true;
  }
}

// Lines for people about connections. While these come and go for one and the same reason, as they
// do for hours where a broker refuses something, each line is told once.
class Notices {
 public:
  explicit Notices(std::function<void(const std::string&)> log) : log_(std::move(log)) {}

  void tell(const std::string& line) {
    if (told_.insert(line).second && log_) log_(line);
  }

  // What the line says is now so.
  void begins(const std::string& line) {
    if (told_.count(line) == 0) last_ = line;
    tell(line);
  }

  // And stays so.
  void lasts(const std::string& line) {
    told_.clear();
    if (line != last_) begins(line);
    told_.clear();
  }

 private:
  std::function<void(const std::string&)> log_;
  std::set<std::string> told_;
  std::string last_;  // of those that begin
};

// What the client library says.
struct Answered {
  int code;
};
struct Ended {
  int code;
};
struct Failed {
  std::string reason;
};
struct Subscribed {
  int number;
  int code;
};
struct Settled {
  int clientNumber;
  int code;
};
struct Received {
  Message message;
};
using Said = std::variant<Answered, Ended, Failed, Subscribed, Settled, Received>;

}  // namespace

// One connection after the other, each on a client of its own: what the earlier one had queued is
// gone with it, and what may or may not have arrived the endpoint publishes again.
class Connection::Client final : public Link {
 public:
  Client(const Broker& broker, Endpoint& endpoint, std::function<void(const std::string&)> log,
         const ConnectionOptions& options)
      : broker_(broker),
        endpoint_(endpoint),
        options_(options),
        notices_(std::move(log)),
        id_(options.clientName.empty() ? newId() : options.clientName),
        continues_(options.outlivesProcess),
        route_(broker.addresses) {
    initialise();
    const auto isWithin = [](seconds value, seconds least, seconds most) {
      return least <= value && value <= most;
    };
    if (!isWithin(options.keepAlive, seconds(5), seconds(65'535))) {
      throw std::invalid_argument("The keep-alive is 5 to 65535 seconds");
    }
    if (!isWithin(options.sessionExpiry, seconds(0), mostSeconds)) {
      throw std::invalid_argument("The expiry of a session is 0 to 4294967295 seconds");
    }
    if (options.outlivesProcess && options.clientName.empty()) {
      throw std::invalid_argument("A session that outlives its process needs a client name");
    }
    if (broker.addresses.empty()) throw std::invalid_argument("The broker has no address");
    const bool hasFiles = !broker.caFile.empty() || !broker.certificateFile.empty();
    if (broker.certificateFile.empty() != broker.keyFile.empty()) {
      throw std::invalid_argument("A certificate needs its key, and a key its certificate");
    }
    if (hasFiles && !broker.isEncrypted) {
      throw std::invalid_argument("Certificates need an encrypted connection, mqtts://");
    }
    if (broker.user.empty() && !broker.password.empty()) {
      throw std::invalid_argument("A password needs a user, mqtt://USER@HOST");
    }
    for (const std::string& file : {broker.caFile, broker.certificateFile, broker.keyFile}) {
      if (!file.empty() && !std::ifstream(file)) {
        throw std::runtime_error("cannot read the file '" + file + "'");
      }
    }
  }

  ~Client() override {
    const auto dropFaults = [this](const auto& step) {
      try {
        if (isConnected_) step();
      } catch (...) {  // nobody is left who could be told
      }
    };
    dropFaults([this] { end(); });
    dropFaults([this] { endpoint_.disconnected(steady_clock::now()); });
  }

  void subscribe(const std::vector<std::string>& topics, Kept kept) override {
    // What an earlier process was brought, this one has not got.
    const bool hasBeenBrought = kept == Kept::ONCE && hasConnected_;
    const int options = hasBeenBrought ? MQTT_SUB_OPT_SEND_RETAIN_NEW : 0;
    for (const std::string& topic : topics) {
      int number = 0;
      mosquitto_subscribe_v5(client_.get(), &number, topic.c_str(), 1, options, nullptr);
      subscriptions_[number] = topic;
    }
  }

  std::uint64_t publish(const Message& message) override {
    Properties properties;
    if (!message.sequence.empty()) properties.add("sequence", message.sequence);
    if (!message.reporter.empty()) properties.add("reporter", message.reporter);
    if (message.expiry.count() > 0) {
      properties.add(MQTT_PROP_MESSAGE_EXPIRY_INTERVAL,
                     static_cast<std::uint32_t>(message.expiry.count()));
    }
    const std::uint64_t number = ++lastNumber_;
    int clientNumber = 0;
    const int result =
        mosquitto_publish_v5(client_.get(), &clientNumber, message.topic.c_str(),
                             static_cast<int>(message.payload.size()), message.payload.data(), 1,
                             message.isRetained, properties.get());
    if (isRefusal(result)) {
      refused_.emplace_back(number, mosquitto_strerror(result));
    } else {
      if (onTheirWay_.empty()) lastAnswer_ = steady_clock::now();
      onTheirWay_.emplace(clientNumber, std::pair(number, message.topic));
    }
    return number;
  }

  void serve(milliseconds duration) {
    const Time end = steady_clock::now() + duration;
    for (;;) {
      const Time now = steady_clock::now();
      if (!client_) attempt(now);
      due_ = endpoint_.serve(now);
      deliver();
      const bool isInterrupted = !wait(std::min(end, due(now)));
      if (client_) exchange();
      if (isInterrupted || steady_clock::now() >= end) return;
    }
  }

  bool isConnected() const noexcept { return isConnected_; }
  int descriptor() const noexcept { return client_ ? mosquitto_socket(client_.get()) : -1; }
  bool wantsToWrite() const noexcept { return client_ && mosquitto_want_write(client_.get()); }

  Time due(Time now) const noexcept {
    Time next = route_.due(now);
    if (client_) next = isReached_ ? lastUpkeep_ + upkeep : attemptEnd_;
    next = std::min(due_, next);
    const bool hasNews = !said_.empty() || !refused_.empty();
    return hasNews ? now : std::max(now, next);
  }

 private:
  void end() {
    // A will that the broker publishes would be late.
    if (!endpoint_.ending(steady_clock::now()) && will_) publish(*will_);
    const Time answersEnd = steady_clock::now() + farewell;
    while (isConnected_ && !onTheirWay_.empty() && steady_clock::now() < answersEnd) {
      wait(answersEnd);
      exchange();
    }
    if (!isConnected_) return;
    Properties properties;
    if (!options_.outlivesProcess) properties.add(MQTT_PROP_SESSION_EXPIRY_INTERVAL, 0);
    mosquitto_disconnect_v5(client_.get(),
                            onTheirWay_.empty() ? 0 : MQTT_RC_DISCONNECT_WITH_WILL_MSG,
                            properties.get());
    const Time writingEnd = steady_clock::now() + farewell;
    while (mosquitto_want_write(client_.get()) && steady_clock::now() < writingEnd) {
      wait(writingEnd);
      if (mosquitto_loop_write(client_.get(), 1) != MOSQ_ERR_SUCCESS) break;
    }
  }

  struct Free {
    void operator()(mosquitto* client) const { mosquitto_destroy(client); }
  };

  void attempt(Time now) {
    std::optional<Route::Place> place;
    try {
      place = route_.next(now);
      if (place && broker_.isEncrypted) encryption_.emplace(broker_, place->broker.host);
    } catch (const std::runtime_error& failure) {
      const std::string line = failureLine(failure.what());
      route_.failed(now, random_);
      return notices_.begins(line);
    }
    if (place) connect(*place, now);
  }

  // The library's own call with properties waits for the network, and those that do not wait take
  // none. But it keeps the properties also when it refuses to connect, and then sends them. The
  // library holds the numeric address: looking up a name it waits as well.
  void connect(const Route::Place& place, Time now) {
    if (options_.credentials) credentials_ = options_.credentials();
    will_ = endpoint_.connecting();
    client_.reset(mosquitto_new(id_.c_str(), !continues_, this));
    if (!client_) throw std::bad_alloc();
    mosquitto* const client = client_.get();
    mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(client, MOSQ_OPT_RECEIVE_MAXIMUM, mostOnTheirWay);
    mosquitto_int_option(client, MOSQ_OPT_SEND_MAXIMUM, mostOnTheirWay);
    mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_v5_callback_set(client, onConnect);
    mosquitto_disconnect_v5_callback_set(client, onDisconnect);
    mosquitto_publish_v5_callback_set(client, onPublish);
    mosquitto_subscribe_v5_callback_set(client, onSubscribe);
    mosquitto_message_v5_callback_set(client, onMessage);
    mosquitto_log_callback_set(client, onLog);
    isReached_ = false;
    attemptEnd_ = now + patience;
    lastUpkeep_ = now;
    reason_.clear();
    int result = configure(client);
    if (result == MOSQ_ERR_SUCCESS) {
      Properties properties;
      properties.add(MQTT_PROP_SESSION_EXPIRY_INTERVAL,
                     static_cast<std::uint32_t>(options_.sessionExpiry.count()));
      mosquitto_connect_bind_v5(client, nullptr, 0, 0, nullptr, properties.get());
      result = mosquitto_connect_async(client, place.address.c_str(), place.broker.port,
                                       static_cast<int>(options_.keepAlive.count()));
    }
    if (result == MOSQ_ERR_SUCCESS) return;
    const std::string general = mosquitto_strerror(result);
    deliver();
    lose(general);
  }

  int configure(mosquitto* client) {
    int result = MOSQ_ERR_SUCCESS;
    if (will_) {
      Properties properties;
      properties.add(MQTT_PROP_WILL_DELAY_INTERVAL, static_cast<std::uint32_t>(willDelay.count()));
      result = mosquitto_will_set_v5(client, will_->topic.c_str(),
                                     static_cast<int>(will_->payload.size()), will_->payload.data(),
                                     1, will_->isRetained, properties.get());
      if (result == MOSQ_ERR_SUCCESS) properties.release();  // they are the library's now
    }
    if (result == MOSQ_ERR_SUCCESS && !credentials_.user.empty()) {
      const std::string& password = credentials_.password;
      result = mosquitto_username_pw_set(client, credentials_.user.c_str(),
                                         password.empty() ? nullptr : password.c_str());
    }
    if (result == MOSQ_ERR_SUCCESS && broker_.isEncrypted) {
      mosquitto_int_option(client, MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, 0);  // all of it is ours
      result = mosquitto_void_option(client, MOSQ_OPT_SSL_CTX, encryption_->context());
    }
    return result;
  }

  // Waits until there is something to do, but not beyond `end`. Whether no signal came.
  bool wait(Time end) const {
    const auto now = steady_clock::now();
    const auto left = std::chrono::ceil<milliseconds>(
        std::min<Time::duration>(std::max(end, now) - now, seconds(3600)));
    pollfd descriptor_ = {descriptor(), POLLIN, 0};
    if (wantsToWrite()) descriptor_.events |= POLLOUT;
    return poll(&descriptor_, 1, static_cast<int>(left.count())) >= 0 || errno != EINTR;
  }

  void exchange() {
    const Time now = steady_clock::now();
    if (!isConnected_ && now >= attemptEnd_) {
      return lose(isReached_ ? "The broker does not answer" : "The address does not answer");
    }
    if (!isReached_ && !reach()) return;
    mosquitto* const client = client_.get();
    int result = mosquitto_loop_read(client, 1);
    if (result == MOSQ_ERR_SUCCESS && mosquitto_want_write(client)) {
      result = mosquitto_loop_write(client, 1);
    }
    if (result == MOSQ_ERR_SUCCESS && now - lastUpkeep_ >= upkeep) {
      lastUpkeep_ = now;
      result = mosquitto_loop_misc(client);
      const bool isMute = !onTheirWay_.empty() && now - lastAnswer_ > longestWait;
      if (result == MOSQ_ERR_SUCCESS && isMute) result = MOSQ_ERR_KEEPALIVE;
      if (isConnected_ && now - connectedAt_ >= stable) notices_.lasts(connectedLine());
    }
    if (result == MOSQ_ERR_SUCCESS && !isConnected_ && said_.empty() && hasHungUp()) {
      return lose("Connection refused or reset");
    }
    const std::string general = textOf(result);  // which errno is a part of
    deliver();
    if (client_ && (result != MOSQ_ERR_SUCCESS || mosquitto_socket(client) == -1)) lose(general);
  }

  // Whether the address has answered. The library would take a connection that is not yet made for
  // one that is broken.
  bool reach() {
    pollfd socket = {mosquitto_socket(client_.get()), POLLOUT, 0};
    if (poll(&socket, 1, 0) < 1) return false;
    int fault = 0;
    socklen_t size = sizeof(fault);
    getsockopt(socket.fd, SOL_SOCKET, SO_ERROR, &fault, &size);
    if (fault != 0) {
      lose(std::strerror(fault));
      return false;
    }
    isReached_ = true;
    return true;
  }

  // The library does not notice that where it begins to encrypt, and would try again at once.
  bool hasHungUp() const {
    pollfd socket = {mosquitto_socket(client_.get()), 0, 0};
    return poll(&socket, 1, 0) > 0 && (socket.revents & POLLHUP) != 0;
  }

  // The client library says things while it holds locks and from C, which no exception may cross.
  // So they wait until it has returned.
  void deliver() {
    if (!said_.empty() || !refused_.empty()) due_ = Time();
    if (failure_) {  // something that the client library said is lost
      const std::exception_ptr failure = std::exchange(failure_, nullptr);
      lose("out of memory");
      std::rethrow_exception(failure);
    }
    while (!refused_.empty()) {
      const auto [number, reason] = std::move(refused_.front());
      refused_.pop_front();
      endpoint_.settled(number, reason, steady_clock::now());
    }
    while (!said_.empty()) {
      const Said next = std::move(said_.front());
      said_.pop_front();
      std::visit([this](const auto& what) { handle(what, steady_clock::now()); }, next);
    }
  }

  void handle(const Answered& answer, Time now) {
    if (answer.code != 0) {
      reason_ = mosquitto_reason_string(answer.code);
      return;
    }
    isConnected_ = true;
    connectedAt_ = now;
    due_ = Time();
    continues_ = true;
    endpoint_.connected(*this, now);
    hasConnected_ = true;
    notices_.begins(connectedLine());
  }

  void handle(const Ended& end, Time /*now*/) {
    if (end.code >= MQTT_RC_UNSPECIFIED) reason_ = mosquitto_reason_string(end.code);
    if (end.code == MQTT_RC_SESSION_TAKEN_OVER) {
      // Somebody has the same name, as the copy of a process has. The two would take the session
      // from each other for ever.
      if (!options_.clientName.empty()) {
        notices_.tell("Another process has the client name " + id_ + ": going on without it");
      }
      id_ = newId();
      continues_ = false;
    }
  }

  // Of an encrypted connection that fails, the library's log alone says why: a number and where it
  // happened, then the reason.
  void handle(const Failed& failure, Time /*now*/) {
    const std::size_t place = failure.reason.rfind("::");
    if (!reason_.empty()) return;
    reason_ =
        place == std::string::npos ? failure.reason : "TLS: " + failure.reason.substr(place + 2);
  }

  void handle(const Subscribed& answer, Time /*now*/) {
    const std::string topics = subscriptions_[answer.number];
    subscriptions_.erase(answer.number);
    if (answer.code < MQTT_RC_UNSPECIFIED) return;
    notices_.tell("The broker refuses a subscription to " + topics + ": " +
                  refusalOf(answer.code, "read", topics));
  }

  void handle(const Settled& answer, Time now) {
    const auto entry = onTheirWay_.lower_bound(answer.clientNumber);
    if (entry == onTheirWay_.end() || entry->first != answer.clientNumber) return;
    const auto [number, topic] = std::move(entry->second);
    onTheirWay_.erase(entry);
    lastAnswer_ = now;
    endpoint_.settled(
        number,
        answer.code < MQTT_RC_UNSPECIFIED ? "" : refusalOf(answer.code, "publish to", topic), now);
  }

  // In words that name the right that is missing.
  std::string refusalOf(int code, const std::string& what, const std::string& topic) const {
    if (code != MQTT_RC_NOT_AUTHORIZED) return mosquitto_reason_string(code);
    const std::string& user = credentials_.user;
    return (user.empty() ? "a user without name" : "user " + user) + " may not " + what + " " +
           topic;
  }

  void handle(const Received& received, Time now) { endpoint_.received(received.message, now); }

  // For the reason that is known, or else the general one.
  void lose(const std::string& general) {
    const Time now = steady_clock::now();
    std::string reason = reason_.empty() ? general : reason_;
    if (encryption_ && !encryption_->problem().empty()) reason = encryption_->problem();
    client_.reset();
    encryption_.reset();
    onTheirWay_.clear();
    subscriptions_.clear();
    said_.clear();
    refused_.clear();
    const std::string line = failureLine(reason);
    if (std::exchange(isConnected_, false)) {
      route_.lost(now - connectedAt_ >= stable, now, random_);
      endpoint_.disconnected(now);
      due_ = Time();
    } else {
      route_.failed(now, random_);
    }
    notices_.begins(line);
  }

  static std::string newId() { return "orv-" + std::to_string(drawSeed()); }

  std::string placeText() const {
    const Broker::Address& broker = route_.broker();
    return broker.host + ":" + std::to_string(broker.port);
  }
  std::string connectedLine() const { return "Connected to " + placeText(); }
  std::string failureLine(const std::string& reason) const {
    return "No connection to " + placeText() + ": " + reason;
  }

  template <typename MakeSaid>
  static void say(void* client, MakeSaid makeSaid) noexcept {
    auto& self = *static_cast<Client*>(client);
    try {
      self.said_.emplace_back(makeSaid());
    } catch (...) {
      self.failure_ = std::current_exception();
    }
  }

  static void onConnect(mosquitto* /*library*/, void* client, int code, int /*flags*/,
                        const mosquitto_property* /*properties*/) {
    say(client, [&] { return Answered{code}; });
  }

  static void onDisconnect(mosquitto* /*library*/, void* client, int code,
                           const mosquitto_property* /*properties*/) {
    say(client, [&] { return Ended{code}; });
  }

  static void onLog(mosquitto* /*library*/, void* client, int level, const char* text) {
    if (level == MOSQ_LOG_ERR) say(client, [&] { return Failed{text}; });
  }

  static void onPublish(mosquitto* /*library*/, void* client, int clientNumber, int code,
                        const mosquitto_property* /*properties*/) {
    say(client, [&] { return Settled{clientNumber, code}; });
  }

  static void onSubscribe(mosquitto* /*library*/, void* client, int number, int count,
                          const int* granted, const mosquitto_property* /*properties*/) {
    say(client, [&] { return Subscribed{number, count < 1 ? MQTT_RC_UNSPECIFIED : *granted}; });
  }

  static void onMessage(mosquitto* /*library*/, void* client, const mosquitto_message* message,
                        const mosquitto_property* properties) {
    say(client, [&] {
      Received received;
      received.message.topic = message->topic;
      received.message.payload.assign(static_cast<const char*>(message->payload),
                                      static_cast<std::size_t>(message->payloadlen));
      received.message.isRetained = message->retain;
      readProperties(properties, received.message);
      return received;
    });
  }

  Broker broker_;
  Endpoint& endpoint_;
  ConnectionOptions options_;
  Notices notices_;
  Credentials credentials_{broker_.user, broker_.password};
  std::mt19937_64 random_{drawSeed()};
  std::string id_;
  bool continues_;  // the session that the broker has under that name
  bool hasConnected_ = false;
  Route route_;

  std::optional<Encryption> encryption_;  // of the client, which ends before it
  std::unique_ptr<mosquitto, Free> client_;
  std::deque<Said> said_;
  std::deque<std::pair<std::uint64_t, std::string>> refused_;  // messages, at once, with the reason
  std::exception_ptr failure_;
  std::string reason_;  // why the broker ends the connection
  // Our number and the topic, by theirs. Of more than 65,535 messages some have the same there; the
  // broker answers them in their order.
  std::multimap<int, std::pair<std::uint64_t, std::string>> onTheirWay_;
  std::map<int, std::string> subscriptions_;
  std::uint64_t lastNumber_ = 0;
  std::optional<Message> will_;  // of the connection
  bool isConnected_ = false;
  Time connectedAt_;
  Time lastAnswer_;  // or since when one is waited for
  Time due_;
  Time lastUpkeep_;
  bool isReached_ = false;  // by the client
  Time attemptEnd_;
};

Connection::Connection(const Broker& broker, Endpoint& endpoint,
                       std::function<void(const std::string&)> log,
                       const ConnectionOptions& options)
    : client_(std::make_unique<Client>(broker, endpoint, std::move(log), options)) {}

Connection::~Connection() = default;

void Connection::serve(milliseconds duration) { client_->serve(duration); }

bool Connection::isConnected() const noexcept { return client_->isConnected(); }

int Connection::descriptor() const noexcept { return client_->descriptor(); }

bool Connection::wantsToWrite() const noexcept { return client_->wantsToWrite(); }

Time Connection::due() const noexcept { return client_->due(steady_clock::now()); }

}  // namespace orv::reporting
