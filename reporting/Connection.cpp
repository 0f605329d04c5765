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
#include <stdexcept>
#include <utility>

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
constexpr milliseconds firstPause(500);
constexpr milliseconds longestPause = seconds(30);
constexpr seconds stable(10);  // a connection that lasts so long ends the growth of the pauses
constexpr seconds upkeep(1);   // the longest time between two looks at the keep-alive

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

std::string sequenceOf(const mosquitto_property* properties) {
  std::string sequence;
  bool isLater = false;
  char* name = nullptr;
  char* value = nullptr;
  while ((properties = mosquitto_property_read_string_pair(properties, MQTT_PROP_USER_PROPERTY,
                                                           &name, &value, isLater)) != nullptr) {
    if (std::string(name) == "sequence") sequence = value;
    std::free(name);
    std::free(value);
    isLater = true;
  }
  return sequence;
}

}  // namespace

// One connection after the other, each on a client of its own: what the earlier one had queued is
// gone with it, and what may or may not have arrived the endpoint publishes again.
class Connection::Session final : public Link {
 public:
  Session(const Broker& broker, Endpoint& endpoint, std::function<void(const std::string&)> told)
      : broker_(broker), endpoint_(endpoint), told_(std::move(told)) {
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

  ~Session() override {
    if (!isConnected_) return;
    Properties properties;
    properties.add(MQTT_PROP_SESSION_EXPIRY_INTERVAL, 0);
    mosquitto_disconnect_v5(client_.get(), MQTT_RC_DISCONNECT_WITH_WILL_MSG, properties.get());
    const Time end = steady_clock::now() + seconds(1);
    while (mosquitto_want_write(client_.get()) && steady_clock::now() < end) {
      wait(end);
      if (mosquitto_loop_write(client_.get(), 1) != MOSQ_ERR_SUCCESS) return;
    }
  }

  void subscribe(const std::vector<std::string>& topics) override {
    for (const std::string& topic : topics) {
      int number = 0;
      mosquitto_subscribe_v5(client_.get(), &number, topic.c_str(), 1, 0, nullptr);
      subscriptions_[number] = topic;
    }
  }

  int publish(const Message& message) override {
    Properties properties;
    if (!message.sequence.empty()) properties.add("sequence", message.sequence);
    if (message.expiry.count() > 0) {
      properties.add(MQTT_PROP_MESSAGE_EXPIRY_INTERVAL,
                     static_cast<std::uint32_t>(message.expiry.count()));
    }
    const int number = ++lastNumber_;
    int clientNumber = 0;
    const int result =
        mosquitto_publish_v5(client_.get(), &clientNumber, message.topic.c_str(),
                             static_cast<int>(message.payload.size()), message.payload.data(), 1,
                             message.isRetained, properties.get());
    if (isRefusal(result)) {
      pending_.emplace_back([this, number, result](Time now) {
        endpoint_.settled(number, mosquitto_strerror(result), now);
      });
    } else {
      onTheirWay_[clientNumber] = number;
    }
    return number;
  }

  void serve(milliseconds duration) {
    const Time end = steady_clock::now() + duration;
    for (;;) {
      const Time now = steady_clock::now();
      if (!client_ && nextAttempt_ <= now) connect(now);
      if (isConnected_) due_ = endpoint_.serve(steady_clock::now());
      deliver();
      const bool isInterrupted = !wait(std::min(end, due()));
      if (client_) exchange();
      if (isInterrupted || steady_clock::now() >= end) return;
    }
  }

  bool isConnected() const noexcept { return isConnected_; }
  int descriptor() const noexcept { return client_ ? mosquitto_socket(client_.get()) : -1; }
  bool wantsToWrite() const noexcept { return client_ && mosquitto_want_write(client_.get()); }

  Time due() const noexcept {
    if (!client_) return nextAttempt_;
    if (!pending_.empty()) return Time::min();
    const Time next = lastUpkeep_ + upkeep;
    return isConnected_ ? std::min(due_, next) : next;
  }

 private:
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
    }
    deliver();
    if (result != MOSQ_ERR_SUCCESS || mosquitto_socket(client) == -1) {
      lose(!reason_.empty() ? reason_ : textOf(result));
    }
  }

  void deliver() {
    if (!pending_.empty()) due_ = Time::min();
    if (failure_) {  // something that the client library said is lost
      const std::exception_ptr failure = std::exchange(failure_, nullptr);
      lose("out of memory");
      std::rethrow_exception(failure);
    }
    while (!pending_.empty()) {
      const auto next = std::move(pending_.front());
      pending_.pop_front();
      next(steady_clock::now());
    }
  }

  void lose(const std::string& reason) {
    const Time now = steady_clock::now();
    client_.reset();
    onTheirWay_.clear();
    subscriptions_.clear();
    pending_.clear();
    if (isConnected_ && now - connectedAt_ >= stable) pause_ = firstPause;
    const auto least = pause_.count() / 2;
    nextAttempt_ = now + milliseconds(std::uniform_int_distribution<milliseconds::rep>(
                             least, pause_.count())(random_));
    pause_ = std::min(2 * pause_, longestPause);
    if (std::exchange(isConnected_, false)) endpoint_.disconnected(now);
    tell("No connection to " + broker_.host + ":" + std::to_string(broker_.port) + ": " + reason);
  }

  void tell(const std::string& text) {
    if (text != lastTold_) told_(text);
    lastTold_ = text;
  }

  // The client library calls back while it holds locks and from C, which no exception may cross:
  // what it says waits until it has returned.
  template <typename Action>
  static void later(void* session, Action makeAction) noexcept {
    auto& self = *static_cast<Session*>(session);
    try {
      self.pending_.emplace_back(makeAction(self));
    } catch (...) {
      self.failure_ = std::current_exception();
    }
  }

  static void onConnect(mosquitto* /*client*/, void* session, int code, int /*flags*/,
                        const mosquitto_property* /*properties*/) {
    later(session,
          [code](Session& self) { return [&self, code](Time now) { self.answered(code, now); }; });
  }

  static void onDisconnect(mosquitto* /*client*/, void* session, int code,
                           const mosquitto_property* /*properties*/) {
    later(session, [code](Session& self) {
      return [&self, code](Time /*now*/) {
        if (code >= MQTT_RC_UNSPECIFIED) self.reason_ = mosquitto_reason_string(code);
      };
    });
  }

  // Of an encrypted connection that fails, the log alone says why.
  static void onLog(mosquitto* /*client*/, void* session, int level, const char* text) {
    if (level != MOSQ_LOG_ERR) return;
    later(session, [text](Session& self) {
      return [&self, reason = std::string(text)](Time /*now*/) {
        if (self.reason_.empty()) self.reason_ = reason;
      };
    });
  }

  static void onPublish(mosquitto* /*client*/, void* session, int clientNumber, int code,
                        const mosquitto_property* /*properties*/) {
    later(session, [clientNumber, code](Session& self) {
      return [&self, clientNumber, code](Time now) {
        const auto entry = self.onTheirWay_.find(clientNumber);
        if (entry == self.onTheirWay_.end()) return;
        const int number = entry->second;
        self.onTheirWay_.erase(entry);
        self.endpoint_.settled(
            number, code >= MQTT_RC_UNSPECIFIED ? mosquitto_reason_string(code) : "", now);
      };
    });
  }

  static void onSubscribe(mosquitto* /*client*/, void* session, int number, int count,
                          const int* granted, const mosquitto_property* /*properties*/) {
    later(session,
          [number, isRefused = count < 1 || *granted >= MQTT_RC_UNSPECIFIED](Session& self) {
            return [&self, number, isRefused](Time /*now*/) {
              if (isRefused)
                self.told_("The broker refuses a subscription to " + self.subscriptions_[number]);
              self.subscriptions_.erase(number);
            };
          });
  }

  static void onMessage(mosquitto* /*client*/, void* session, const mosquitto_message* message,
                        const mosquitto_property* properties) {
    later(session, [message, properties](Session& self) {
      Message received;
      received.topic = message->topic;
      received.payload.assign(static_cast<const char*>(message->payload),
                              static_cast<std::size_t>(message->payloadlen));
      received.isRetained = message->retain;
      received.sequence = sequenceOf(properties);
      return [&self, received = std::move(received)](Time now) {
        self.endpoint_.received(received, now);
      };
    });
  }

  void answered(int code, Time now) {
    if (code != 0) {
      reason_ = mosquitto_reason_string(code);
      return;
    }
    isConnected_ = true;
    hasSession_ = true;
    connectedAt_ = now;
    due_ = Time::min();
    tell("Connected to " + broker_.host + ":" + std::to_string(broker_.port));
    endpoint_.connected(*this, now);
  }

  Broker broker_;
  Endpoint& endpoint_;
  std::function<void(const std::string&)> told_;
  std::mt19937_64 random_{drawSeed()};
  std::string id_ = "orv-" + std::to_string(random_());
  bool hasSession_ = false;

  std::unique_ptr<mosquitto, Free> client_;
  std::deque<std::function<void(Time)>> pending_;  // what the client library said
  std::exception_ptr failure_;
  std::string reason_;             // why the broker ends the connection
  std::map<int, int> onTheirWay_;  // our numbers by the client library's
  std::map<int, std::string> subscriptions_;
  int lastNumber_ = 0;
  bool isConnected_ = false;
  Time connectedAt_;
  Time due_;
  Time lastUpkeep_;
  Time nextAttempt_;
  milliseconds pause_ = firstPause;
  std::string lastTold_;
};

Connection::Connection(const Broker& broker, Endpoint& endpoint,
                       std::function<void(const std::string&)> told)
    : session_(std::make_unique<Session>(broker, endpoint, std::move(told))) {}

Connection::~Connection() = default;

void Connection::serve(milliseconds duration) { session_->serve(duration); }

bool Connection::isConnected() const noexcept { return session_->isConnected(); }

int Connection::descriptor() const noexcept { return session_->descriptor(); }

bool Connection::wantsToWrite() const noexcept { return session_->wantsToWrite(); }

Time Connection::due() const noexcept { return session_->due(); }

}  // namespace orv::reporting
