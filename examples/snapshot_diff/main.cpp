// Prints the event that leads from one device tree to another.
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/text_format.h>

#include <cerrno>
#include <exception>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "device_tree/DeviceNode.h"
#include "device_tree/Summary.h"
#include "device_tree/Utils.h"
#include "proto/monitoring/device_events.pb.h"

namespace proto = orv::proto::monitoring;
using google::protobuf::TextFormat;
using orv::device_tree::DeviceNode;
using orv::device_tree::utils::EventHelper;
using orv::device_tree::utils::GetSummary;

namespace {

constexpr const char* usage = R"(Usage: snapshot_diff [--explain] OLD NEW

Reads two device trees, messages of type orv.proto.monitoring.DeviceNode in Protocol Buffers text
form, and prints the event that leads from OLD to NEW in the same form. "-" stands for no tree.

  --explain  print a line for each change instead, of configuration and of statuses

Exit status: 0 when there is nothing to report, 1 when there is, 2 on bad input.
)";

// The text form is read and printed by recursion; real installations have a few levels.
constexpr int deepestTree = 500;

// Keeps the first fault with its place, counted from 1 as editors do.
class FirstFault : public google::protobuf::io::ErrorCollector {
 public:
  void AddError(int line, int column, const std::string& message) override {
    if (!text.empty()) return;
    text = std::to_string(line + 1) + ":" + std::to_string(column + 1) + ": " + message;
  }

  std::string text;
};

std::shared_ptr<DeviceNode> readTree(const std::string& file) {
  if (file == "-") return nullptr;
  std::ifstream stream(file);
  std::string text;
  for (std::string line; std::getline(stream, line);) text += line + "\n";
  if (!stream.is_open() || stream.bad()) {
    throw std::runtime_error(file + ": " + std::generic_category().message(errno));
  }
  FirstFault fault;
  TextFormat::Parser parser;
  parser.RecordErrorsTo(&fault);
  parser.SetRecursionLimit(deepestTree);
  proto::DeviceNode message;
  if (!parser.ParseFromString(text, &message)) throw std::runtime_error(file + ":" + fault.text);
  try {
    return std::make_shared<DeviceNode>(message);
  } catch (const std::runtime_error& refusal) {
    throw std::runtime_error(file + ": " + refusal.what());
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments == std::vector<std::string>{"--help"}) {
    std::cout << usage;
    return 0;
  }
  if (arguments == std::vector<std::string>{"--version"}) {
    std::cout << "snapshot_diff " ORV_VERSION "\n";
    return 0;
  }
  try {
    const bool explain = !arguments.empty() && arguments.front() == "--explain";
    if (explain) arguments.erase(arguments.begin());
    if (arguments.size() != 2) {
      throw std::runtime_error("expected two files, OLD and NEW (see --help)");
    }
    const std::shared_ptr<DeviceNode> oldTree = readTree(arguments[0]);
    const std::shared_ptr<DeviceNode> newTree = readTree(arguments[1]);
    proto::DeviceToOrvServiceEvent event;
    if (!EventHelper::ComputeEvent(oldTree, newTree, event)) return 0;
    if (explain) {
      for (const auto& line : GetSummary(event, oldTree, newTree)) std::cout << line.text << '\n';
    } else {
      std::cout << event.Utf8DebugString();
    }
    if (!std::cout.flush()) throw std::runtime_error("cannot write the output");
    return 1;
  } catch (const std::exception& fault) {
    std::cerr << argv[0] << ": " << fault.what() << "\n";
    return 2;
  }
}
