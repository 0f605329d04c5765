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

/// Compares two trees, makes the one event message that leads from the old tree to the new one, and
/// applies such a message.
///
/// Configuration is the devices with their identifiers and names, their properties, and their
/// statuses by name and type. State is status values and overall health. The device class is
/// neither.
///
/// An empty pointer stands for "no tree". One call uses its trees on one thread, and the caller
/// leaves them unchanged meanwhile. Nothing is kept between calls.
///
/// A snapshot is a tree of its own. After `snapshot = live` both are one tree, and no change shows.
///
/// @par Which devices are compared
/// A device is compared with the device of the same identifier. Where no identifier repeats within
/// a tree, that is all.
/// @par
/// Where one repeats, it stands for one device: the one that `getDeviceById` of the device at hand
/// finds. Take a root with the sub-devices "a" and "b", and "b" once more below "a". Seen from the
/// root, "b" stands for the one below "a", because the walk meets that first. So it is compared
/// twice, once for each sub-device called "b", and the root's own "b" is not compared. A device may
/// also stand for its own sub-device; it is not entered again then.
///
/// @par Cost
/// n is the number of nodes of both trees; a node that is filed in several places counts once for
/// each. Trees are in step where both have sub-devices of one identifier in one place. There a
/// comparison costs one walk over both and 16 bytes for each node of one. Elsewhere both trees are
/// indexed: O(n log n) and about 50 bytes a node.
/// @par
/// A repeated identifier leads to further pairs of devices. Each costs O(log n) and about 90 bytes,
/// however often it is met, but there can be as many pairs as the product of both sizes. The list
/// of differences is as long as the definition makes it. Where identifiers repeat, that can be
/// exponential in n. `ComputeEvent` makes no such list where the configuration differs. So do not
/// compare trees of untrusted origin in which an identifier repeats.
namespace orv::device_tree::utils {

/// Whether both trees have the same configuration. Two absent trees have; an absent and a present
/// one have not. Properties compare by their own operator. Sub-devices compare by their
/// identifiers: as many on both sides, and each of the old ones among the new ones. Stops at the
/// first difference it meets.
ORV_DEVICE_TREE_EXPORT bool IsSameConfiguration(
    const std::shared_ptr<DeviceNode>& oldTree,
    const std::shared_ptr<DeviceNode>& newTree) noexcept;

/// Appends what changed in the state of the devices and statuses that both trees have, in walk
/// order of the old tree. A device whose health differs gives its identifier and its new health. A
/// status whose value differs gives its device's identifier and the new tree's own status object.
/// Nothing when either tree is absent.
///
/// Values compare as the type of the old status says: a NaN always as changed, a value that is not
/// set as the integer 0. Values of another kind than their type's are changed when they differ in
/// kind or content. Statuses of an unknown type are never listed.
ORV_DEVICE_TREE_EXPORT void GetStatusDifferences(
    const std::shared_ptr<DeviceNode>& oldTree, const std::shared_ptr<DeviceNode>& newTree,
    std::list<std::pair<std::string, GlobalStatus>>& globalStatusChanges,
    std::list<std::pair<std::string, std::shared_ptr<NamedStatus>>>& namedStatusChanges) noexcept;

/// Makes the event that leads from one tree to another, and carries it out.
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

  /// Carries out on `tree` what `event` says and returns whether it did. An empty pointer stands
  /// for no tree. A receiver keeps its tree with it. A sender brings its snapshot up to date with
  /// it, also when the live tree has moved on: the event holds what was sent.
  ///
  ///     DEVICE_ADD, CONFIGURATION_CHANGE   `tree` becomes a new tree, built from the message; the
  ///                                        old one is let go as it is
  ///     DEVICE_REMOVE                      `tree` becomes empty, if it is not already
  ///     STATUS_CHANGE                      each device named gets the health, each status named
  ///                                        gets the value or none; the objects stay the same
  ///
  /// Applying an event twice is applying it once. Nothing is shared with the message.
  ///
  /// A refused event changes nothing at all. `errorMessage` is emptied first. On refusal it says
  /// what was wrong, where there is a tree as `formatMessage` of its root. Refused are:
  /// - an event without a type, or of a type outside the enumeration;
  /// - one without the extension of its type;
  /// - a tree that is not in the message or cannot be built;
  /// - the removal of a root of another identifier;
  /// - a status change without a tree;
  /// - a change of a device or status that the tree has not, or of a status of another type.
  ///
  /// A change of a device without an identifier is passed over where the tree has none.
  ///
  /// An event does not carry everything that a tree can hold. For a sender that keeps its snapshot
  /// this way it means:
  /// - never reported, as with a copied snapshot: a device's class alone, the step of an integer
  ///   from 0 to not set or back, that of a double from 0 to -0 or back;
  /// - reported each time: a value whose kind is not that of its type, a NaN, a level outside the
  ///   enumeration;
  /// - the whole tree each time: a sub-device without an identifier, siblings that share one, a
  ///   property or status of an unknown type;
  /// - uncertain, where an identifier repeats: which of the devices a change is made to, and so
  ///   whether that has the status;
  /// - always refused: the whole tree, if it has a device below one of the same identifier.
  ///
  /// Who needs those keeps the snapshot by copying. A device that got its identifier after it was
  /// attached is filed elsewhere in a tree that came from a message: the two are never in step.
  ///
  /// Throws std::bad_alloc; then `tree` is unchanged. A whole tree costs what its construction from
  /// a message costs. A status change costs a look at the identifiers of the tree, as far as the
  /// last device named. Where a list of changes is not in walk order it costs two looks, and O(log
  /// of the number of changes) for each device.
  static bool ApplyEvent(const orv::proto::monitoring::DeviceToOrvServiceEvent& event,
                         std::shared_ptr<DeviceNode>& tree, std::string& errorMessage);

 private:
  ORV_DEVICE_TREE_NO_EXPORT static std::string changeStatuses(
      const orv::proto::monitoring::DeviceToOrvServiceEvent& event, DeviceNode* tree);
};

}  // namespace orv::device_tree::utils
