#include "Publisher.h"

#include <iostream>

#include "reporting/Connection.h"
#include "reporting/Reporter.h"

namespace {

class BrokerPublisher final : public Publisher {
 public:
  BrokerPublisher(const BrokerOptions& broker, const std::string& name)
      : reporter_(name, {{}, log}), connection_(brokerOf(broker), reporter_, log) {}

  void report(const std::shared_ptr<orv::device_tree::DeviceNode>& live) override {
    reporter_.report(live);
  }
  void serve(std::chrono::milliseconds duration) override { connection_.serve(duration); }
  bool isSettled() const override { return reporter_.isSettled(); }

 private:
  static void log(const std::string& line) { std::cerr << line << "\n"; }

  orv::reporting::Reporter reporter_;
  orv::reporting::Connection connection_;
};

}  // namespace

std::unique_ptr<Publisher> makePublisher(const BrokerOptions& broker, const std::string& name) {
  return std::make_unique<BrokerPublisher>(broker, name);
}
