#pragma once

#include <list>
#include <map>
#include <memory>
#include <string>

#include "device_tree/Export.h"
#include "device_tree/GlobalStatus.h"
#include "device_tree/NamedStatus.h"
#include "device_tree/Property.h"
#include "platform/IMessageFormatter.h"
#include "proto/monitoring/device_tree.pb.h"

namespace orv::device_tree {

/// Two blanks for each level.
ORV_DEVICE_TREE_EXPORT std::string GetIndent(unsigned int level) noexcept;

/// One device of a monitored installation. With its sub-devices it is the root of a tree.
///
/// A node carries the device's identity (identifier, display name, class), its overall health, its
/// configuration (properties), its typed statuses and its sub-devices.
///
/// @par Ownership
/// A node owns its properties, statuses and sub-devices through shared pointers. It has no link to
/// its parent. Every node of a tree is owned by a std::shared_ptr. Queries hand out the tree's own
/// objects, never copies. A change of such an object is a change of the tree:
/// `device.getProperties().at("firmware")->value = "2.1"`. An object stays alive after it has left
/// the tree. The copy constructor makes a tree that shares nothing with its source.
///
/// @par Order
/// The three maps order their keys by unsigned bytes. A walk goes depth first: a node, then the
/// nodes below it, sub-devices in the order of their keys. Every operation that visits a tree
/// visits it in that order. The key of a sub-device is the identifier that it had when it was
/// attached. It is the empty string for a sub-device that got its identifier later. The key decides
/// the order and what `removeSubDevice` removes. Searches, lists, comparisons and messages use the
/// identifier of the node itself.
///
/// @par Refusals
/// An editing operation returns whether it was carried out. A refused one changes nothing. Its
/// `errorMessage` is emptied first. On refusal it receives the text that the operation names, as
/// `formatMessage` of the node returns it. It must not be the same object as another argument.
///
/// @par Memory
/// An operation declared noexcept ends the process when memory runs out. The copy and the
/// construction from a message pass std::bad_alloc on and leave nothing behind.
///
/// @par Threads
/// One thread at a time uses a tree. Trees that share no node are independent. Objects that queries
/// handed out may be released on any thread.
///
/// @par Cost
/// n is the number of nodes of the subtree; a node that is filed in several places counts once for
/// each. No operation on nodes uses stack in proportion to the depth of the tree, destruction
/// included. The one exception is `debugString` of derived classes, which calls itself on their
/// nodes. The generated messages do use stack for each level. With 8 MiB and a release build a
/// message can be destroyed with up to 52,500 levels, copied with 75,700, cleared with 263,300.
class ORV_DEVICE_TREE_EXPORT DeviceNode : public orv::utils::IMessageFormatter,
                                          public std::enable_shared_from_this<DeviceNode> {
 public:
  /// Kind of device. Any 32-bit number is carried through unchanged, so a program may have classes
  /// of its own: `static_cast<DeviceNode::DeviceClass>(1000)`.
  using DeviceClass = orv::proto::monitoring::DeviceNode_DeviceClass;
  using Properties = std::map<std::string, std::shared_ptr<Property>>;
  using Statuses = std::map<std::string, std::shared_ptr<NamedStatus>>;
  using SubDevices = std::map<std::string, std::shared_ptr<DeviceNode>>;

  /// No identifier, no name, class 0, health OK, nothing filed.
  DeviceNode() noexcept;

  /// Health OK, nothing filed.
  DeviceNode(const std::string& nodeId, const std::string& nodeName,
             DeviceClass nodeClass) noexcept;

  /// A deep copy: every property, status and sub-device is a new object under the same key. The new
  /// node has no owner yet, its sub-devices have. Throws std::bad_alloc. O(n).
  DeviceNode(const DeviceNode& other);

  /// Builds the tree that the message describes with the editing operations below, in message
  /// order. Of two sub-devices of one identifier the later takes the place of the earlier.
  ///
  /// Throws std::runtime_error when the message repeats the name of a property or status within a
  /// device. Throws it too when the message puts a device below one of the same identifier. The
  /// text is the refusal of the editing operation, formatted once more by the node at that depth.
  /// Throws std::bad_alloc. O(n log n), and O(n log depth) for what `toProtoBuf` wrote.
  DeviceNode(const orv::proto::monitoring::DeviceNode& message);

  DeviceNode& operator=(const DeviceNode&) = delete;

  /// "Device ", the identifier, " - ", the name. Throws std::bad_alloc.
  std::string messageHeader() const override;

  /// Releases what the node files. An object that somebody else holds lives on, its subtree with
  /// it. Allocates nothing. O(number of nodes released), as wherever nodes are released.
  ///
  /// A node that goes with the release of a node above it hands its sub-devices to that release:
  /// they may still be there when its own destructor has ended. Deleters and destructors of derived
  /// classes may edit trees, also the one that the node was taken from.
  ~DeviceNode() override;

  /// The node and its subtree as indented lines for logs, the node's own header `indent` levels
  /// deep. A sub-device of a derived class contributes what its own override returns.
  ///
  /// O(length of the text). The indentation grows with the depth: a chain of 10,000 levels takes
  /// 1.2 GB. Each level of derived classes costs a nested call and its text once more.
  virtual std::string debugString(unsigned int indent = 0) const noexcept;

  /// What the node holds. A reference is good until the node is edited or destroyed.
  const std::string& getDeviceId() const noexcept { return deviceId; }
  const std::string& getName() const noexcept { return name; }
  DeviceClass getDeviceClass() const noexcept { return deviceClass; }
  const GlobalStatus& getGlobalStatus() const noexcept { return globalStatus; }
  const Properties& getProperties() const noexcept { return properties; }
  const Statuses& getStatuses() const noexcept { return statuses; }
  const SubDevices& getSubDevices() const noexcept { return subDevices; }

  /// Changes of a live node; none of them can be refused.
  void setName(std::string newName) noexcept;
  void setDeviceClass(DeviceClass newClass) noexcept;
  void setGlobalStatus(GlobalStatus newStatus) noexcept;

  /// Sets the identifier of a node that has none; the empty string leaves it without one. Refused,
  /// "Cannot change a device ID", once the identifier is not empty, even by the same one. A parent
  /// goes on filing the node under its old key.
  bool setDeviceId(const std::string& newDeviceId, std::string& errorMessage) noexcept;

  /// Files a copy of the property under its name. Refused, "Property " + name + " already exists",
  /// when the name is taken. O(log of the number of properties).
  bool addProperty(const Property& property, std::string& errorMessage) noexcept;

  /// Files a copy of the status under its name. Refused, "Status " + name + " already exists", when
  /// the name is taken. O(log of the number of statuses).
  bool addStatus(const NamedStatus& status, std::string& errorMessage) noexcept;

  /// Files the caller's node itself, with its subtree, under its identifier. With `replace` it
  /// takes the place of the one filed there.
  ///
  /// Refused in this order:
  /// - "Trying to add an invalid (null) sub-device";
  /// - "Sub-device has same ID as parent: " + this node's identifier, when the sub-device or a node
  ///   below it has that;
  /// - "Sub-device already exists: " + its identifier, when that is taken and `replace` is false.
  ///
  /// Only this node's own identifier is looked for. So identifiers may repeat elsewhere in the
  /// tree, and one sub-device without an identifier can be filed. Events carry neither: give each
  /// device an identifier that is unique in the tree before it is attached. What comparing costs
  /// depends on that as well, see `utils`. A node that is filed below two parents belongs to both
  /// trees, and a change shows in both.
  ///
  /// O(n), n of the new subtree.
  bool addSubDevice(std::shared_ptr<DeviceNode> subDevice, bool replace,
                    std::string& errorMessage) noexcept;

  /// Removes the sub-device filed under `key`, with its subtree. With `recursive` it removes the
  /// first one that a walk finds; at each node the walk looks at the node's own sub-devices before
  /// it goes below them. Refused, key + " not found". O(log of the number of sub-devices); with
  /// `recursive` that for every node below.
  bool removeSubDevice(const std::string& key, bool recursive, std::string& errorMessage) noexcept;

  /// The first node of the walk, this one included, that has the identifier; empty when there is
  /// none and when the node found is owned by no shared pointer. O(n).
  std::shared_ptr<DeviceNode> getDeviceById(const std::string& soughtId) noexcept;

  /// This node's own status of that name; empty when there is none. O(log of their number).
  std::shared_ptr<NamedStatus> getStatus(const std::string& statusName) const noexcept;

  /// The identifiers of this node and of every node below it, in walk order, repeated ones
  /// repeated. O(n).
  std::list<std::string> getTreeDeviceIds() const noexcept;

  /// The identifiers of the direct sub-devices, with `recursive` of every node below. O(n).
  std::list<std::string> getSubDeviceIds(bool recursive) const noexcept;

  /// The direct sub-devices, with `recursive` every node below, that have the display name. O(n).
  std::list<std::shared_ptr<DeviceNode>> getSubDevicesByName(const std::string& soughtName,
                                                             bool recursive) noexcept;

  /// The direct sub-devices, with `recursive` every node below, that file a property of that name
  /// and value; its type is not looked at. O(n log of the number of properties).
  std::list<std::shared_ptr<DeviceNode>> getSubDevicesByProperty(const std::string& propertyName,
                                                                 const std::string& value,
                                                                 bool recursive) noexcept;

  /// The statuses of this node and of every node below it by identifier: an entry for each, also
  /// for one without statuses. Of nodes that share an identifier the first of the walk has the
  /// entry. O(n log n).
  std::map<std::string, Statuses> getAllStatuses() const noexcept;

  /// A message with the node and its subtree; repeated fields come in ascending order of the keys.
  /// A sub-device whose own identifier is empty is left out, its subtree with it. O(n).
  orv::proto::monitoring::DeviceNode toProtoBuf() const noexcept;
  /// Makes `target` that message, whatever it held, and reuses the memory it has.
  void toProtoBuf(orv::proto::monitoring::DeviceNode& target) const noexcept;

 private:
  ORV_DEVICE_TREE_NO_EXPORT void copyOwn(const DeviceNode& other);
  ORV_DEVICE_TREE_NO_EXPORT void copySubDevices(const DeviceNode& other);
  ORV_DEVICE_TREE_NO_EXPORT void readOwn(const orv::proto::monitoring::DeviceNode& message);
  ORV_DEVICE_TREE_NO_EXPORT void writeOwn(orv::proto::monitoring::DeviceNode& target) const;
  ORV_DEVICE_TREE_NO_EXPORT std::string sameIdRefusal() const;
  ORV_DEVICE_TREE_NO_EXPORT void appendOwnText(std::string& text, unsigned int indent) const;

  std::string deviceId;
  std::string name;
  DeviceClass deviceClass = static_cast<DeviceClass>(0);
  GlobalStatus globalStatus;
  Properties properties;
  Statuses statuses;
  SubDevices subDevices;
};

}  // namespace orv::device_tree
