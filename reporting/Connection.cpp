#include "reporting/Connection.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <exception>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <stdexcept>
#include <utility>
#include <variant>

#include "reporting/Backoff.h"
#include "reporting/Seed.h"

namespace orv::reporting {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

namespace {

constexpr int keepaliveSeconds = 15;
constexpr std::uint32_t sessionSeconds = 600;
constexpr const char* systemCertificates = "/etc/ssl/certs";  // of Debian
constexpr int mostOnTheirWay = 1000;  // in each direction, if the broker agrees
constexpr seconds stable(10);  // a connection that lasts so long ends the growth of the pauses
constexpr seconds upkeep(1);   // the longest time between two looks at the keep-alive
// A broker that answers nothing for so long, though it keeps the connection alive, will not answer.
constexpr seconds longestWait(60);
constexpr seconds farewell(1);  // for each step of an orderly end

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
  const mosquitto_property* get() const { return list_; }

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
  bool isRefused;
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
  Client(const Broker& broker, Endpoint& endpoint, std::function<void(const std::string&)> log)
      : broker_(broker), endpoint_(endpoint), log_(std::move(log)) {
    initialise();
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
    if (!isConnected_) return;
    try {
      end();
    } catch (...) {  // nobody is left who could be told
    }
  }

  void subscribe(const std::vector<std::string>& topics, Kept kept) override {
    const int options = kept == Kept::ONCE ? MQTT_SUB_OPT_SEND_RETAIN_NEW : 0;
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
      onTheirWay_[clientNumber] = {number, message.topic};
    }
    return number;
  }

  void serve(milliseconds duration) {
    const Time end = steady_clock::now() + duration;
    for (;;) {
      const Time now = steady_clock::now();
      if (!client_ && nextAttempt_ <= now) connect(now);
      if (isConnected_) due_ = endpoint_.serve(now);
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
    Time next = nextAttempt_;
    if (client_) next = lastUpkeep_ + upkeep;
    if (isConnected_) next = std::min(due_, next);
    const bool hasNews = !said_.empty() || !refused_.empty();
    return hasNews ? now : std::max(now, next);
  }

 private:
  void end() {
    const bool isSaid = endpoint_.ending(steady_clock::now());
    const Time answersEnd = steady_clock::now() + farewell;
    while (isConnected_ && isSaid && !onTheirWay_.empty() && steady_clock::now() < answersEnd) {
      wait(answersEnd);
      exchange();
    }
    if (!isConnected_) return;
    Properties properties;
    properties.add(MQTT_PROP_SESSION_EXPIRY_INTERVAL, 0);
    const bool needsNoWill = isSaid && onTheirWay_.empty();
    mosquitto_disconnect_v5(client_.get(), needsNoWill ? 0 : MQTT_RC_DISCONNECT_WITH_WILL_MSG,
                            properties.get());
    const Time writingEnd = steady_clock::now() + farewell;
    while (mosquitto_want_write(client_.get()) && steady_clock::now() < writingEnd) {
      wait(writingEnd);
      if (mosquitto_loop_write(client_.get(), 1) != MOSQ_ERR_SUCCESS) break;
    }
    endpoint_.disconnected(steady_clock::now());
  }

  struct Free {
    void operator()(mosquitto* client) const { mosquitto_destroy(client); }
  };

  void connect(Time now) {
    const std::optional<Message> will = endpoint_.connecting();
    client_.reset(mosquitto_new(id_.c_str(), !hasSession_, this));
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
    lastUpkeep_ = now;
    reason_.clear();
    int result = configure(client, will);
    if (result == MOSQ_ERR_SUCCESS) {
      Properties properties;
      properties.add(MQTT_PROP_SESSION_EXPIRY_INTERVAL, sessionSeconds);
      result = mosquitto_connect_bind_v5(client, broker_.host.c_str(), broker_.port,
                                         keepaliveSeconds, nullptr, properties.get());
    }
    if (result == MOSQ_ERR_SUCCESS) return;
    const std::string general = mosquitto_strerror(result);
    deliver();
    lose(reason_.empty() ? general : reason_);
  }

  int configure(mosquitto* client, const std::optional<Message>& will) const {
    const auto orNull = [](const std::string& text) {
      return text.empty() ? nullptr : text.c_str();
    };
    int result = MOSQ_ERR_SUCCESS;
    if (will) {
      result =
          mosquitto_will_set_v5(client, will->topic.c_str(), static_cast<int>(will->payload.size()),
                                will->payload.data(), 1, will->isRetained, nullptr);
    }
    if (result == MOSQ_ERR_SUCCESS && !broker_.user.empty()) {
      result = mosquitto_username_pw_set(client, broker_.user.c_str(), orNull(broker_.password));
    }
    if (result == MOSQ_ERR_SUCCESS && broker_.isEncrypted) {
      const bool isOfSystem = broker_.caFile.empty();
      if (isOfSystem) result = mosquitto_int_option(client, MOSQ_OPT_TLS_USE_OS_CERTS, 1);
      if (result == MOSQ_ERR_SUCCESS && !(isOfSystem && broker_.certificateFile.empty())) {
        result = mosquitto_tls_set(
            client, orNull(broker_.caFile), isOfSystem ? systemCertificates : nullptr,
            orNull(broker_.certificateFile), orNull(broker_.keyFile), nullptr);
      }
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
    mosquitto* const client = client_.get();
    int result = mosquitto_loop_read(client, 1);
    if (result == MOSQ_ERR_SUCCESS && mosquitto_want_write(client)) {
      result = mosquitto_loop_write(client, 1);
    }
    const Time now = steady_clock::now();
    if (result == MOSQ_ERR_SUCCESS && now - lastUpkeep_ >= upkeep) {
      lastUpkeep_ = now;
      result = mosquitto_loop_misc(client);
      const bool isMute = !onTheirWay_.empty() && now - lastAnswer_ > longestWait;
      if (result == MOSQ_ERR_SUCCESS && isMute) result = MOSQ_ERR_KEEPALIVE;
    }
    deliver();
    if (result != MOSQ_ERR_SUCCESS || mosquitto_socket(client) == -1) {
      lose(!reason_.empty() ? reason_ : textOf(result));
    }
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
    hasSession_ = true;
    connectedAt_ = now;
    due_ = Time();
    log("Connected to " + broker_.host + ":" + std::to_string(broker_.port));
    endpoint_.connected(*this, now);
  }

  void handle(const Ended& end, Time /*now*/) {
    if (end.code >= MQTT_RC_UNSPECIFIED) reason_ = mosquitto_reason_string(end.code);
    if (end.code == MQTT_RC_SESSION_TAKEN_OVER) {
      // Somebody has the same identifier, as the copy of a process has. The two would take the
      // session from each other for ever.
      id_ = newId();
      hasSession_ = false;
    }
  }

  // Of an encrypted connection that fails, the library's log alone says why.
  void handle(const Failed& failure, Time /*now*/) {
    if (reason_.empty()) reason_ = failure.reason;
  }

  void handle(const Subscribed& answer, Time /*now*/) {
    if (answer.isRefused) {
      log("The broker refuses a subscription to " + subscriptions_[answer.number]);
    }
    subscriptions_.erase(answer.number);
  }

  void handle(const Settled& answer, Time now) {
    const auto entry = onTheirWay_.find(answer.clientNumber);
    if (entry == onTheirWay_.end()) return;
    const auto [number, topic] = std::move(entry->second);
    onTheirWay_.erase(entry);
    lastAnswer_ = now;
    if (answer.code == MQTT_RC_NOT_AUTHORIZED) tellRight(topic);
    endpoint_.settled(
        number, answer.code >= MQTT_RC_UNSPECIFIED ? mosquitto_reason_string(answer.code) : "",
        now);
  }

  // Once for each kind of topic: what comes before the partition and the name.
  void tellRight(const std::string& topic) {
    std::string kind = topic.substr(0, topic.rfind('/'));
    kind.erase(kind.find_last_not_of("0123456789") + 1);
    if (!rightsMissed_.insert(kind).second) return;
    const std::string user = broker_.user.empty() ? "a user without name" : "user " + broker_.user;
    log("The broker does not let " + user + " publish to " + topic);
  }

  void handle(const Received& received, Time now) { endpoint_.received(received.message, now); }

  void lose(const std::string& reason) {
    const Time now = steady_clock::now();
    client_.reset();
    onTheirWay_.clear();
    subscriptions_.clear();
    said_.clear();
    refused_.clear();
    if (isConnected_ && now - connectedAt_ >= stable) pauses_.reset();
    nextAttempt_ = now + pauses_.next(random_);
    if (std::exchange(isConnected_, false)) endpoint_.disconnected(now);
    log("No connection to " + broker_.host + ":" + std::to_string(broker_.port) + ": " + reason);
  }

  static std::string newId() { return "orv-" + std::to_string(drawSeed()); }

  // The same reason once in a row.
  void log(const std::string& line) {
    if (line != lastLine_ && log_) log_(line);
    lastLine_ = line;
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
    say(client, [&] { return Subscribed{number, count < 1 || *granted >= MQTT_RC_UNSPECIFIED}; });
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
  std::function<void(const std::string&)> log_;
  std::mt19937_64 random_{drawSeed()};
  std::string id_ = newId();
  bool hasSession_ = false;

  std::unique_ptr<mosquitto, Free> client_;
  std::deque<Said> said_;
  std::deque<std::pair<std::uint64_t, std::string>> refused_;  // messages, at once, with the reason
  std::exception_ptr failure_;
  std::string reason_;  // why the broker ends the connection
  std::map<int, std::pair<std::uint64_t, std::string>>
      onTheirWay_;                      // our number and the topic, by theirs
  std::set<std::string> rightsMissed_;  // kinds of topics, told of
  std::map<int, std::string> subscriptions_;
  std::uint64_t lastNumber_ = 0;
  bool isConnected_ = false;
  Time connectedAt_;
  Time lastAnswer_;  // or since when one is waited for
  Time due_;
  Time lastUpkeep_;
  Time nextAttempt_;
  Backoff pauses_{milliseconds(500), seconds(30)};
  std::string lastLine_;
};

Connection::Connection(const Broker& broker, Endpoint& endpoint,
                       std::function<void(const std::string&)> log)
    : client_(std::make_unique<Client>(broker, endpoint, std::move(log))) {}

Connection::~Connection() = default;

void Connection::serve(milliseconds duration) { client_->serve(duration); }

bool Connection::isConnected() const noexcept { return client_->isConnected(); }

int Connection::descriptor() const noexcept { return client_->descriptor(); }

bool Connection::wantsToWrite() const noexcept { return client_->wantsToWrite(); }

Time Connection::due() const noexcept { return client_->due(steady_clock::now()); }

}  // namespace orv::reporting
