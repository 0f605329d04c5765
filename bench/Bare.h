// A client that speaks MQTT and has no protocol on top of it: what reporters and collectors are
// held against.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

struct mosquitto;
struct mosquitto_message;

namespace bench {

class BareClient {
 public:
  using Received = std::function<void(const mosquitto_message& message)>;

  // Connects with the broker on that port of this machine.
  explicit BareClient(std::uint16_t port, Received received = nullptr);
  BareClient(const BareClient&) = delete;
  BareClient& operator=(const BareClient&) = delete;
  ~BareClient();

  void subscribe(const std::string& topics);
  // With the properties of an event.
  void publish(const std::string& topic, const std::string& payload);
  std::size_t onTheirWay() const { return onTheirWay_; }
  void serve(int milliseconds);

 private:
  mosquitto* client_;
  Received received_;
  bool isConnected_ = false;
  std::size_t onTheirWay_ = 0;
};

}  // namespace bench
