// A report of one status, made in other ways that a program might choose. Those that need a form of
// their own keep the snapshot in it: they bring the live tree into it, compare, and keep what they
// then have as the next snapshot.

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/util/message_differencer.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "Benchmarks.h"
#include "device_tree/Walk.h"
#include "tests/PlainDefinition.h"

namespace bench {

namespace {

namespace proto = orv::proto::monitoring;
using nlohmann::json;
using orv::device_tree::Walk;

Way plainWay(std::size_t mostDevices) {
  return {"plain definition",
          [](const Trees& trees) -> Job {
            return [&trees, changing = oneStatus(trees.liveDevices)] {
              plain::GlobalChanges healths;
              plain::NamedChanges statuses;
              const bool same = plain::isSameConfiguration(trees.snapshot, trees.live);
              if (same) plain::getStatusDifferences(trees.snapshot, trees.live, healths, statuses);
              for (const auto& [deviceId, status] : statuses) {
                const NodePtr device = trees.snapshot->getDeviceById(deviceId);
                device->getStatus(status->getName())->setValue(status->getValue());
              }
              toggle(*changing);
              return same && statuses.size() == 1;
            };
          },
          mostDevices};
}

// Finds the differences of two messages, with what it reads the lists by.
class Differencer {
 public:
  Differencer() {
    const auto keyed = [this](const char* list, const char* key) {
      const auto* field = proto::DeviceNode::descriptor()->FindFieldByName(list);
      differencer_.TreatAsMap(field, field->message_type()->FindFieldByName(key));
    };
    keyed("sub_devices", "id");
    keyed("properties", "name");
    keyed("statuses", "name");
    differencer_.ReportDifferencesToString(&report_);
  }

  bool differ(const proto::DeviceNode& oldMessage, const proto::DeviceNode& newMessage) {
    report_.clear();
    return !differencer_.Compare(oldMessage, newMessage) && !report_.empty();
  }

 private:
  google::protobuf::util::MessageDifferencer differencer_;
  std::string report_;
};

Way messageWay(std::size_t mostDevices) {
  return {"message diff",
          [](const Trees& trees) -> Job {
            struct Kept {
              Differencer differencer;
              proto::DeviceNode snapshot;
              proto::DeviceNode live;
            };
            const auto kept = std::make_shared<Kept>();
            trees.snapshot->toProtoBuf(kept->snapshot);
            return [&trees, kept, changing = oneStatus(trees.liveDevices)] {
              trees.live->toProtoBuf(kept->live);
              const bool differ = kept->differencer.differ(kept->snapshot, kept->live);
              kept->snapshot.Swap(&kept->live);
              toggle(*changing);
              return differ;
            };
          },
          mostDevices};
}

json valueOf(const NamedStatus& status) {
  return boost::apply_visitor([](const auto& value) { return json(value); }, status.getValue());
}

json ownJson(const DeviceNode& device) {
  json object{{"id", device.getDeviceId()},
              {"name", device.getName()},
              {"class", static_cast<int>(device.getDeviceClass())},
              {"health",
               {{"level", static_cast<int>(device.getGlobalStatus().level)},
                {"message", device.getGlobalStatus().message}}}};
  for (const auto& [name, property] : device.getProperties()) {
    object["properties"][name] = boost::get<std::string>(property->value);
  }
  for (const auto& [name, status] : device.getStatuses()) {
    object["statuses"][name] = {{"type", static_cast<int>(status->getType())},
                                {"value", valueOf(*status)}};
  }
  return object;
}

json toJson(const DeviceNode& root) {
  json object = ownJson(root);
  std::vector<json*> open{&object};  // one for each level above the node met
  Walk walk(root);
  while (const auto* entry = walk.next()) {
    const DeviceNode& device = **entry;
    open.resize(walk.depth());
    json& made = (*open.back())["sub_devices"][device.getDeviceId()];
    made = ownJson(device);
    open.push_back(&made);
  }
  return object;
}

Way jsonWay(std::size_t mostDevices) {
  return {"JSON diff",
          [](const Trees& trees) -> Job {
            const auto snapshot = std::make_shared<json>(toJson(*trees.snapshot));
            return [&trees, snapshot, changing = oneStatus(trees.liveDevices)] {
              json live = toJson(*trees.live);
              const bool differ = json::diff(*snapshot, live).size() == 1;
              *snapshot = std::move(live);
              toggle(*changing);
              return differ;
            };
          },
          mostDevices};
}

// Without the conversion and without a new snapshot: for who has JSON already.
Way jsonAloneWay(std::size_t mostDevices) {
  return {"JSON diff alone",
          [](const Trees& trees) -> Job {
            const auto snapshot = std::make_shared<json>(toJson(*trees.snapshot));
            const auto live = std::make_shared<json>(toJson(*trees.live));
            return [snapshot, live] { return json::diff(*snapshot, *live).size() == 1; };
          },
          mostDevices};
}

std::string bytesOf(const proto::DeviceNode& message) {
  std::string bytes;
  google::protobuf::io::StringOutputStream output(&bytes);
  google::protobuf::io::CodedOutputStream coded(&output);
  coded.SetSerializationDeterministic(true);
  message.SerializeToCodedStream(&coded);
  coded.Trim();
  return bytes;
}

Way bytesWay(std::size_t mostDevices) {
  return {"serialise, compare bytes",
          [](const Trees& trees) -> Job {
            const auto message = std::make_shared<proto::DeviceNode>();
            trees.snapshot->toProtoBuf(*message);
            return [&trees, message, snapshot = bytesOf(*message),
                    changing = oneStatus(trees.liveDevices)]() mutable {
              trees.live->toProtoBuf(*message);
              std::string live = bytesOf(*message);
              const bool differ = live != snapshot;
              snapshot = std::move(live);
              toggle(*changing);
              return differ;
            };
          },
          mostDevices};
}

}  // namespace

void addRivals(const Scope& scope) {
  for (const auto& [shape, name] : shapes) {
    // All but the first two recurse once for each level, and the JSON diff keeps the path of every
    // open one; the plain definition searches all sub-devices of a device for each of them.
    const bool chain = shape == Shape::CHAIN;
    const std::vector<Way> ways{lockStepWay(),
                                reportWay("this library"),
                                plainWay(shape == Shape::FAN_OUT ? 100000 : 10000),
                                messageWay(chain ? 1000 : 100000),
                                jsonWay(chain ? 1000 : 100000),
                                jsonAloneWay(chain ? 1000 : 100000),
                                bytesWay(chain ? 10000 : 100000)};
    for (const std::size_t size : scope.sizes) {
      add({shape, Memory::WALK_ORDER, size}, {{"rivals", name, Change::ONE_STATUS, ways}}, scope);
    }
  }
}

}  // namespace bench
