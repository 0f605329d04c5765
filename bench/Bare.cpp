#include "Bare.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <stdexcept>
#include <utility>

namespace bench {

namespace {

void require(int result) {
  if (result != MOSQ_ERR_SUCCESS) throw std::runtime_error(mosquitto_strerror(result));
}

mosquitto* newClient(void* self) {
  mosquitto_lib_init();
  return mosquitto_new(nullptr, true, self);
}

}  // namespace

BareClient::BareClient(std::uint16_t port, Received received)
    : client_(newClient(this)), received_(std::move(received)) {
  if (client_ == nullptr) throw std::bad_alloc();
  mosquitto_int_option(client_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
  mosquitto_int_option(client_, MOSQ_OPT_RECEIVE_MAXIMUM, 1000);
  mosquitto_int_option(client_, MOSQ_OPT_SEND_MAXIMUM, 1000);
  mosquitto_int_option(client_, MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_connect_callback_set(client_, [](mosquitto* /*client*/, void* self, int /*code*/) {
    static_cast<BareClient*>(self)->isConnected_ = true;
  });
  mosquitto_publish_callback_set(client_, [](mosquitto* /*client*/, void* self, int /*number*/) {
    --static_cast<BareClient*>(self)->onTheirWay_;
  });
  const auto onMessage = [](mosquitto* /*client*/, void* self, const mosquitto_message* message) {
    static_cast<BareClient*>(self)->received_(*message);
  };
  if (received_) mosquitto_message_callback_set(client_, onMessage);
  require(mosquitto_connect(client_, "localhost", port, 60));
  while (!isConnected_) serve(10);
}

BareClient::~BareClient() {
  mosquitto_disconnect(client_);
  mosquitto_destroy(client_);
}

void BareClient::subscribe(const std::string& topics) {
  require(mosquitto_subscribe(client_, nullptr, topics.c_str(), 1));
}

void BareClient::publish(const std::string& topic, const std::string& payload) {
  mosquitto_property* properties = nullptr;
  const auto add = [&properties](const char* name, const char* value) {
    require(mosquitto_property_add_string_pair(&properties, MQTT_PROP_USER_PROPERTY, name, value));
  };
  add("sequence", "12345678901234567890.1234");
  add("reporter", "bench-0");
  require(mosquitto_publish_v5(client_, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                               payload.data(), 1, false, properties));
  mosquitto_property_free_all(&properties);
  ++onTheirWay_;
}

void BareClient::serve(int milliseconds) { require(mosquitto_loop(client_, milliseconds, 1)); }

}  // namespace bench
