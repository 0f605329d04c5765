// Publishes the host for every collector.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "BrokerOptions.h"
#include "device_tree/DeviceNode.h"

class Publisher {
 public:
  virtual ~Publisher() = default;
  virtual void report(const std::shared_ptr<orv::device_tree::DeviceNode>& live) = 0;
  virtual void serve(std::chrono::milliseconds duration) = 0;
  virtual bool isSettled() const = 0;
};

// Throws std::invalid_argument or std::runtime_error.
std::unique_ptr<Publisher> makePublisher(const BrokerOptions& broker, const std::string& name);
