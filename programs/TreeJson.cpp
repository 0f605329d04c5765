#include "TreeJson.h"

#include <cmath>
#include <vector>

#include "device_tree/Walk.h"

using orv::device_tree::DeviceNode;
namespace monitoring = orv::proto::monitoring;

namespace {

Json jsonOf(double number) {
  if (std::isfinite(number)) return number;
  return std::isnan(number) ? "NaN" : number > 0 ? "Infinity" : "-Infinity";
}

Json jsonOf(const monitoring::NamedStatus& status) {
  Json json = {{"name", status.name()}, {"type", NamedStatus_Type_Name(status.type())}};
  // Whole numbers are texts: a reader may have no type for all of them.
  if (status.has_string_value()) json["string_value"] = status.string_value();
  if (status.has_int_value()) json["int_value"] = std::to_string(status.int_value());
  if (status.has_uint_value()) json["uint_value"] = std::to_string(status.uint_value());
  if (status.has_double_value()) json["double_value"] = jsonOf(status.double_value());
  return json;
}

Json jsonOf(const monitoring::Property& property) {
  return {{"name", property.name()},
          {"type", Property_Type_Name(property.type())},
          {"value", property.value()}};
}

}  // namespace

std::string dump(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json jsonOf(const monitoring::GlobalStatus& health) {
  Json json = {{"level", GlobalStatus_Level_Name(health.level())}};
  if (health.has_message()) json["message"] = health.message();
  return json;
}

Json ownJsonOf(const DeviceNode& device) {
  const auto deviceClass = device.getDeviceClass();
  const std::string& className = DeviceNode_DeviceClass_Name(deviceClass);
  Json json = {{"id", device.getDeviceId()}, {"name", device.getName()}};
  json["device_class"] = className.empty() ? Json(static_cast<int>(deviceClass)) : Json(className);
  for (const auto& [key, property] : device.getProperties()) {
    if (property) json["properties"].push_back(jsonOf(property->toProtoBuf()));
  }
  json["global_status"] = jsonOf(device.getGlobalStatus().toProtoBuf());
  for (const auto& [key, status] : device.getStatuses()) {
    if (status) json["statuses"].push_back(jsonOf(status->toProtoBuf()));
  }
  return json;
}

Json jsonOf(const DeviceNode& root) {
  Json json = ownJsonOf(root);
  std::vector<Json*> open = {&json};  // one for each level above the device met
  orv::device_tree::Walk walk(root);
  while (const auto* device = walk.next()) {
    open.resize(walk.depth());
    open.push_back(&(*open.back())["sub_devices"].emplace_back(ownJsonOf(**device)));
  }
  return json;
}
