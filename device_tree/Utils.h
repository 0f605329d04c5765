/// Comparing two snapshots of a device tree: whether their configuration is the same, which
/// statuses differ, and which one event message leads from the old one to the new one.
///
/// Configuration means the devices with their identifiers and names, their properties, and their
/// statuses by name and type. Status values and overall health are state. The device class is
/// neither.
///
/// An empty pointer stands for "no tree". The operations read the trees, keep nothing between calls
/// and report no errors; the caller keeps both trees unchanged meanwhile. One call uses two trees
/// on one thread.
///
/// Which devices are compared. A sub-device is compared with the one of the same identifier. Where
/// an identifier occurs more than once in a tree, it stands, in each tree, for the node that
/// `getDeviceById` of the device at hand finds first, and a device may be compared, and listed,
/// once for each sub-device that carries its identifier. A device that stands for its own
/// sub-device is not entered again.
///
/// Cost. n is the number of nodes of both trees, a node that is filed in several places counted
/// once for each. Where the trees are in step, sub-devices of one identifier in one place, a call
/// costs one walk over both and 16 bytes for each node of one. Otherwise, and where an identifier
/// stands for another node than the one that carries it, both are indexed, O(n log n) and about 50
/// bytes a node; each pair of nodes that a repeated identifier leads to costs O(log n) and about 90
/// bytes, however often it is met, but there can be as many as the product of both sizes. A list of
/// differences is no longer than the definition makes it, but where identifiers repeat that can be
/// exponential in n; `ComputeEvent` makes no such list where the configuration differs. So do not
/// compare trees of untrusted origin in which identifiers repeat.
#pragma once

#include <list>
#include <memory>
#include <string>
#include <utility>

#include "device_tree/ConfigurationDifference.h"
#include "device_tree/DeviceNode.h"
#include "device_tree/Export.h"
#include "device_tree/GlobalStatus.h"
#include "device_tree/NamedStatus.h"
#include "proto/monitoring/device_events.pb.h"

namespace orv::device_tree::utils {

/// Whether both trees have the same configuration. Two absent trees have, an absent and a present
/// one have not. Properties compare by their own operator, sub-devices by their identifiers: as
/// many on both sides, and each of the old ones among the new ones. Stops at the first
/// difference it meets.
ORV_DEVICE_TREE_EXPORT bool IsSameConfiguration(
    const std::shared_ptr<DeviceNode>& oldTree,
    const std::shared_ptr<DeviceNode>& newTree) noexcept;

/// Appends what changed in the state of devices and statuses that both trees have, in walk order of
/// the old tree: the identifier and new health of every device whose health differs, and the
/// identifier and the new tree's own status object for every status whose value differs. Nothing
/// when either tree is absent.
///
/// Values compare as the type of the old status says, a NaN always as changed, a value that is not
/// set as the integer 0. Two values that are not both of that kind are listed exactly when the
/// values held differ in kind or content, a NaN always. Statuses of an unknown type are never
/// listed.
ORV_DEVICE_TREE_EXPORT void GetStatusDifferences(
    const std::shared_ptr<DeviceNode>& oldTree, const std::shared_ptr<DeviceNode>& newTree,
    std::list<std::pair<std::string, GlobalStatus>>& globalStatusChanges,
    std::list<std::pair<std::string, std::shared_ptr<NamedStatus>>>& namedStatusChanges) noexcept;

/// Appends what differs between the two configurations. A device that was added or removed stands
/// for its whole subtree. So does an absent tree, and a root of another identifier is another tree.
///
/// Here a sub-device is compared with the sub-device of the same identifier directly below the
/// device that its parent is compared with. Entries come in walk order: of a device its name, its
/// properties, its statuses, then its sub-devices, all in the order of their keys; what is filed
/// under one key in both trees comes in the place of the old one. A status counts as one of
/// another type also where the object filed under the key carries another name. An entry that
/// holds an object in one tree only counts as changed.
///
/// Where no identifier repeats within a tree, entries are appended exactly when
/// `IsSameConfiguration` is false. Where one does, that may compare other devices: either of the
/// two may find a difference where the other finds none.
///
/// Throws std::bad_alloc, and then has appended nothing. O(n), at most twice a walk over both
/// trees, where the trees are in step; a sub-device out of step costs a search among its siblings.
ORV_DEVICE_TREE_EXPORT void GetConfigurationDifferences(
    const std::shared_ptr<DeviceNode>& oldTree, const std::shared_ptr<DeviceNode>& newTree,
    std::list<ConfigurationDifference>& differences);

class ORV_DEVICE_TREE_EXPORT EventHelper {
 public:
  EventHelper() = delete;

  /// Makes `event` the message that leads from the old tree to the new one and returns whether
  /// there is anything to report; if not, the message is empty. The first row that fits decides:
  ///
  ///     no old tree, no new one        false
  ///     no old tree                    DEVICE_ADD, the whole new tree
  ///     no new tree                    DEVICE_REMOVE, the identifier of the old root
  ///     another configuration          CONFIGURATION_CHANGE, the whole new tree
  ///     health or statuses changed     STATUS_CHANGE, each of them with its device's identifier
  ///     otherwise                      false
  ///
  /// Whatever the message held is gone, but not its memory: a caller that keeps the message from
  /// call to call saves most of the cost of filling it. O(n) for the message on top of the
  /// comparison. Clearing what the message held uses stack in proportion to its depth.
  static bool ComputeEvent(const std::shared_ptr<DeviceNode>& oldTree,
                           const std::shared_ptr<DeviceNode>& newTree,
                           orv::proto::monitoring::DeviceToOrvServiceEvent& event) noexcept;

  /// Carries out on `tree`, where an empty pointer stands for no tree, what `event` says, and
  /// returns whether it did. A receiver keeps its tree with it. A sender brings its snapshot up to
  /// date with it, also when the live tree has moved on: the event holds what was sent.
  ///
  ///     DEVICE_ADD, CONFIGURATION_CHANGE   `tree` becomes a new tree, built from the message; the
  ///                                        old one is let go as it is
  ///     DEVICE_REMOVE                      `tree` becomes empty, if it is not already
  ///     STATUS_CHANGE                      each device named gets the health, each status named
  ///     the
  ///                                        value or none; the objects stay the same
  ///
  /// Applying an event twice is applying it once. Nothing is shared with the message.
  ///
  /// A refused event changes nothing at all. `errorMessage` is emptied first and then says what was
  /// wrong; where there is a tree, it is the `formatMessage` of its root that says it. Refused are:
  /// an event without a type, or of a type outside the enumeration; one without the extension of
  /// its type; a tree that is not in the message or cannot be built; the removal of a root of
  /// another identifier; a status change without a tree; a change of a device or status that the
  /// tree has not, or of a status of another type. A change of a device without an identifier is
  /// passed over where the tree has none.
  ///
  /// What does not come with an event:
  ///
  /// - the change of a device's class alone;
  /// - the step of an integer from 0 to not set, or back;
  /// - a value whose kind is not that of its type: it arrives as not set;
  /// - what happens to a sub-device without an identifier;
  /// - which of several devices is meant, where an identifier repeats: the one changed is any of
  ///   them, the same for the same event and tree.
  ///
  /// For a snapshot that is kept this way, it means that what was not carried is reported again,
  /// and so is a NaN; a sub-device without an identifier makes every report bring the whole tree.
  /// Who needs those takes a deep copy as the snapshot instead.
  ///
  /// Throws std::bad_alloc; then `tree` is unchanged. A whole tree costs what its construction from
  /// a message costs. A status change costs a look at the identifiers, which ends with the last
  /// device named, where the changes of both lists come in walk order. Otherwise it costs two, and
  /// O(log of the number of changes) for each device.
  static bool ApplyEvent(const orv::proto::monitoring::DeviceToOrvServiceEvent& event,
                         std::shared_ptr<DeviceNode>& tree, std::string& errorMessage);

 private:
  ORV_DEVICE_TREE_NO_EXPORT static std::string changeStatuses(
      const orv::proto::monitoring::DeviceToOrvServiceEvent& event, DeviceNode* tree);
};

}  // namespace orv::device_tree::utils
