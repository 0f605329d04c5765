#include "device_tree/Comparison.h"

#include <algorithm>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <string>
#include <utility>

#include "device_tree/Walk.h"

// The plain definition. A pair of nodes is compared; then, for each sub-device of the old node, the
// pair of nodes that its identifier stands for: the first nodes with that identifier at or below
// the old node and at or below the new node. The configuration is the same when every pair agrees;
// the differences are those of all pairs, in the order in which they are met.
//
// Two ways lead there. Trees in step are walked side by side (compareInStep): as long as both walks
// meet the same identifiers at the same depth, and no identifier occurs between a parent and its
// sub-device, each sub-device is what its identifier stands for. Whatever is not decided that way
// is done by the definition, with an index in place of each search (compareByIndex).

namespace orv::device_tree {

namespace {

// What is asked for: the configuration, the differences (unless null), or both in one go.
struct Question {
  bool configuration;
  std::vector<Difference>* differences;
};

enum class Answer { SAME, DIFFERENT, NOT_IN_STEP };

template <typename Value, typename Same>
bool sameEntries(const std::map<std::string, std::shared_ptr<Value>>& oldEntries,
                 const std::map<std::string, std::shared_ptr<Value>>& newEntries, Same same) {
  return oldEntries.size() == newEntries.size() &&
         std::equal(oldEntries.begin(), oldEntries.end(), newEntries.begin(),
                    [&](const auto& oldEntry, const auto& newEntry) {
                      const bool bothThere = oldEntry.second && newEntry.second;
                      return oldEntry.first == newEntry.first &&
                             (bothThere ? same(oldEntry.second, newEntry.second)
                                        : oldEntry.second == newEntry.second);
                    });
}

bool valueChanged(const NamedStatus& oldStatus, const NamedStatus& newStatus) {
  switch (oldStatus.getType()) {
    case NamedStatus::TYPE_STRING:
    case NamedStatus::TYPE_INT:
    case NamedStatus::TYPE_UINT:
    case NamedStatus::TYPE_DOUBLE:
      return !(oldStatus.getValue() == newStatus.getValue());  // another kind is another value
  }
  return false;
}

void appendStatusDifferences(const DeviceNode& oldNode, const DeviceNode& newNode,
                             std::vector<Difference>& differences) {
  auto newEntry = newNode.getStatuses().begin();
  const auto newEnd = newNode.getStatuses().end();
  for (const auto& [name, oldStatus] : oldNode.getStatuses()) {
    int order = -1;
    while (newEntry != newEnd && (order = newEntry->first.compare(name)) < 0) ++newEntry;
    if (newEntry == newEnd) return;
    if (order != 0) continue;
    const auto& newStatus = newEntry->second;
    if (oldStatus && newStatus && valueChanged(*oldStatus, *newStatus)) {
      differences.push_back({&newNode, &newStatus});
    }
  }
}

// Whether two devices of one identifier, without their sub-devices, have the same configuration;
// appends their differences. Where both are asked for, one pass over the statuses does.
bool compareDevice(const DeviceNode& oldNode, const DeviceNode& newNode, const Question& question) {
  std::vector<Difference>* const differences = question.differences;
  if (differences != nullptr && oldNode.getGlobalStatus() != newNode.getGlobalStatus()) {
    differences->push_back({&newNode, nullptr});
  }
  if (!question.configuration) {
    appendStatusDifferences(oldNode, newNode, *differences);
    return true;
  }
  return oldNode.getName() == newNode.getName() &&
         sameEntries(oldNode.getProperties(), newNode.getProperties(),
                     [](const auto& o, const auto& n) { return !(*o != *n); }) &&
         sameEntries(oldNode.getStatuses(), newNode.getStatuses(),
                     [&](const auto& o, const auto& n) {
                       if (o->getType() != n->getType() || o->getName() != n->getName())
                         return false;
                       if (differences != nullptr && valueChanged(*o, *n)) {
                         differences->push_back({&newNode, &n});
                       }
                       return true;
                     });
}

// Whether a direct sub-device carries the identifier. It is filed under that, or under the empty
// key if it got the identifier later.
bool hasSubDevice(const DeviceNode& node, const std::string& deviceId) {
  return subDeviceAt(node.getSubDevices(), deviceId, deviceId) != nullptr ||
         subDeviceAt(node.getSubDevices(), std::string(), deviceId) != nullptr;
}

// Whether the new node has as many sub-devices as the old one and each of the old identifiers.
bool sameSubDeviceIds(const DeviceNode& oldNode, const DeviceNode& newNode) {
  const auto isNode = [](const auto& entry) { return entry.second != nullptr; };
  const auto& oldEntries = oldNode.getSubDevices();
  const auto& newEntries = newNode.getSubDevices();
  return std::count_if(oldEntries.begin(), oldEntries.end(), isNode) ==
             std::count_if(newEntries.begin(), newEntries.end(), isNode) &&
         std::all_of(oldEntries.begin(), oldEntries.end(), [&](const auto& entry) {
           return !isNode(entry) || hasSubDevice(newNode, entry.second->getDeviceId());
         });
}

std::uint64_t hashOf(const std::string& deviceId) { return std::hash<std::string>()(deviceId); }

// The nodes that both walks have met, by their places in the walk.
struct MetNodes {
  std::deque<std::uint64_t> hashes;  // of the identifiers
  std::deque<std::uint32_t> parentPlaces;
};

// Whether each node met is the first with its identifier at or below its parent. Equal hashes of
// different identifiers may make the answer false, never true. Uses up the hashes.
bool eachIsFirstBelowItsParent(MetNodes& met) {
  // One number to sort by: the hash, its low bits replaced by the place.
  unsigned int placeWidth = 1;
  while (met.hashes.size() >> placeWidth != 0) ++placeWidth;
  const std::uint64_t placeBits = (std::uint64_t{1} << placeWidth) - 1;
  std::uint64_t place = 0;
  for (std::uint64_t& hash : met.hashes) hash = (hash & ~placeBits) | place++;

  // Sorting them all would take a sixth of a walk. So drop first every node whose high hash bits no
  // other node has. With two bits more than the places take, few are left.
  const unsigned int shift = 64 - std::min(placeWidth + 2, 32U);
  std::vector<bool> seen(std::size_t{1} << (64 - shift));
  std::vector<bool> seenAgain(seen.size());
  for (const std::uint64_t hash : met.hashes) {
    if (seen[hash >> shift]) seenAgain[hash >> shift] = true;
    seen[hash >> shift] = true;
  }
  const auto begin = met.hashes.begin();
  const auto end = std::remove_if(begin, met.hashes.end(),
                                  [&](std::uint64_t hash) { return !seenAgain[hash >> shift]; });
  std::sort(begin, end);

  // Of several earlier nodes of one identifier the last is the one to look at.
  return std::adjacent_find(begin, end, [&](std::uint64_t earlier, std::uint64_t later) {
           return (earlier | placeBits) == (later | placeBits) &&
                  (earlier & placeBits) >= met.parentPlaces[later & placeBits];
         }) == end;
}

Answer compareInStep(const DeviceNode& oldTree, const DeviceNode& newTree,
                     const Question& question) {
  if (oldTree.getDeviceId() != newTree.getDeviceId()) {  // what is met stands for both trees
    return question.configuration ? Answer::DIFFERENT : Answer::NOT_IN_STEP;
  }
  Walk oldWalk(oldTree);
  Walk newWalk(newTree);
  MetNodes met{{hashOf(oldTree.getDeviceId())}, {0}};
  bool same = compareDevice(oldTree, newTree, question);
  while (same) {
    const auto* oldEntry = oldWalk.next();
    const auto* newEntry = newWalk.next();
    if (oldWalk.depth() != newWalk.depth()) {  // one of the nodes at hand has more sub-devices
      if (!question.configuration) return Answer::NOT_IN_STEP;
      same = false;
      break;
    }
    if (oldEntry == nullptr) break;
    const DeviceNode& oldNode = **oldEntry;
    const DeviceNode& newNode = **newEntry;
    if (oldNode.getDeviceId() != newNode.getDeviceId()) {
      if (!question.configuration || sameSubDeviceIds(oldWalk.parent(), newWalk.parent())) {
        return Answer::NOT_IN_STEP;
      }
      same = false;
      break;
    }
    if (oldWalk.position() > std::numeric_limits<std::uint32_t>::max()) return Answer::NOT_IN_STEP;
    met.hashes.push_back(hashOf(oldNode.getDeviceId()));
    met.parentPlaces.push_back(static_cast<std::uint32_t>(oldWalk.parentPosition()));
    same = compareDevice(oldNode, newNode, question);
  }
  // A difference counts only if the definition leads to it as well.
  if (!eachIsFirstBelowItsParent(met)) return Answer::NOT_IN_STEP;
  return same ? Answer::SAME : Answer::DIFFERENT;
}

// The nodes of a tree by their places in the walk. What lies below a node follows it directly, so
// its subtree is a range of places.
class Index {
 public:
  static constexpr std::size_t NONE = std::numeric_limits<std::size_t>::max();

  explicit Index(const DeviceNode& tree) : nodes_{&tree} {
    std::vector<std::size_t> parents{0};
    Walk walk(tree);
    while (const auto* node = walk.next()) {
      nodes_.push_back(node->get());
      parents.push_back(walk.parentPosition());
    }
    ends_.resize(nodes_.size());
    for (std::size_t place = nodes_.size(); place-- > 0;) {
      ends_[place] = std::max(ends_[place], place + 1);
      ends_[parents[place]] = std::max(ends_[parents[place]], ends_[place]);
    }
    byIdentifier_.reserve(nodes_.size());
    for (std::size_t place = 0; place < nodes_.size(); ++place) {
      byIdentifier_.push_back({hashOf(idOf(place)), place});
    }
    std::sort(byIdentifier_.begin(), byIdentifier_.end(),
              [this](const Entry& left, const Entry& right) {
                return before(left, right.hash, idOf(right.place), right.place);
              });
    repeats_.resize(nodes_.size());
    for (std::size_t i = 1; i < byIdentifier_.size(); ++i) {
      const std::size_t earlier = byIdentifier_[i - 1].place;
      const std::size_t later = byIdentifier_[i].place;
      if (idOf(earlier) == idOf(later)) {
        repeats_[earlier] = repeats_[later] = true;
      }
    }
  }

  const DeviceNode& node(std::size_t place) const { return *nodes_[place]; }
  const std::string& idOf(std::size_t place) const { return node(place).getDeviceId(); }
  // One past the last place of the node's subtree; the place of its next sibling, if it has one.
  std::size_t end(std::size_t place) const { return ends_[place]; }
  // Whether the node's identifier occurs elsewhere in the tree.
  bool repeats(std::size_t place) const { return repeats_[place]; }

  // The first node with the identifier at or below the one at `place`, or NONE.
  std::size_t first(std::size_t place, const std::string& deviceId) const {
    const std::uint64_t hash = hashOf(deviceId);
    const auto found = std::lower_bound(
        byIdentifier_.begin(), byIdentifier_.end(), place,
        [&](const Entry& entry, std::size_t from) { return before(entry, hash, deviceId, from); });
    const bool matches =
        found != byIdentifier_.end() && found->place < end(place) && idOf(found->place) == deviceId;
    return matches ? found->place : NONE;
  }

 private:
  struct Entry {
    std::uint64_t hash;
    std::size_t place;
  };

  bool before(const Entry& entry, std::uint64_t hash, const std::string& deviceId,
              std::size_t place) const {
    if (entry.hash != hash) return entry.hash < hash;
    const int order = idOf(entry.place).compare(deviceId);
    return order != 0 ? order < 0 : entry.place < place;
  }

  std::vector<const DeviceNode*> nodes_;
  std::vector<std::size_t> ends_;
  std::vector<Entry> byIdentifier_;
  std::vector<bool> repeats_;
};

// The plain definition, each search a lookup in an index.
class IndexedComparison {
 public:
  IndexedComparison(const Index& oldIndex, const Index& newIndex, const Question& question)
      : old_(oldIndex), new_(newIndex), question_(question) {}

  bool run() {
    if (!enterFound(0, 0)) return false;
    while (!open_.empty()) {
      Pair& pair = open_.back();
      const bool oldDone = pair.oldNext == old_.end(pair.oldPlace);
      const bool newDone = pair.newNext == new_.end(pair.newPlace);
      if (question_.configuration && oldDone != newDone) return false;  // not as many sub-devices
      if (oldDone) {
        if (pair.found != nullptr) pair.found->end = listed();
        open_.pop_back();
        continue;
      }
      const std::size_t oldNext = pair.oldNext;
      const std::size_t newNext = pair.newNext;
      pair.oldNext = old_.end(oldNext);
      if (!newDone) pair.newNext = new_.end(newNext);
      const bool inStep = !newDone && old_.idOf(oldNext) == new_.idOf(newNext);
      if (inStep && !old_.repeats(oldNext) && !new_.repeats(newNext)) {
        if (!enter(oldNext, newNext, nullptr)) return false;
        continue;
      }
      const std::string& deviceId = old_.idOf(oldNext);
      const bool isMissing =
          question_.configuration && !inStep && !hasSubDevice(new_.node(pair.newPlace), deviceId);
      if (isMissing || !search(pair.oldPlace, pair.newPlace, deviceId)) return false;
    }
    return true;
  }

 private:
  // The differences that a pair found by a search has led to, its own and those of all pairs below.
  // The pair leads to the same ones when it is found again. While it is being compared they have no
  // end yet: then it stands for its own sub-device and is not entered again.
  struct Found {
    std::size_t begin;
    std::size_t end;
  };
  struct Pair {
    std::size_t oldPlace, newPlace;  // of the nodes
    std::size_t oldNext, newNext;    // of the sub-devices to be paired next; the node's end: none
    Found* found;                    // nullptr for a pair in step: that way it is met once
  };

  std::size_t listed() const { return question_.differences ? question_.differences->size() : 0; }

  bool enter(std::size_t oldPlace, std::size_t newPlace, Found* found) {
    open_.push_back({oldPlace, newPlace, oldPlace + 1, newPlace + 1, found});
    return compareDevice(old_.node(oldPlace), new_.node(newPlace), question_);
  }

  // Enters the pair that the identifier stands for below the two nodes.
  bool search(std::size_t oldPlace, std::size_t newPlace, const std::string& deviceId) {
    const std::size_t newFound = new_.first(newPlace, deviceId);
    if (newFound == Index::NONE) return true;  // only in trees of another configuration
    return enterFound(old_.first(oldPlace, deviceId), newFound);
  }

  bool enterFound(std::size_t oldPlace, std::size_t newPlace) {
    const auto [entry, isNew] =
        found_.try_emplace({oldPlace, newPlace}, Found{listed(), Index::NONE});
    Found& found = entry->second;
    if (isNew) return enter(oldPlace, newPlace, &found);
    if (found.end == Index::NONE) return true;
    for (std::size_t i = found.begin; i < found.end; ++i) {
      const Difference again = (*question_.differences)[i];
      question_.differences->push_back(again);
    }
    return true;
  }

  const Index& old_;
  const Index& new_;
  const Question& question_;
  std::map<std::pair<std::size_t, std::size_t>, Found> found_;
  std::vector<Pair> open_;
};

bool compareByIndex(const Index& oldIndex, const Index& newIndex, const Question& question) {
  return IndexedComparison(oldIndex, newIndex, question).run();
}

bool compare(const DeviceNode& oldTree, const DeviceNode& newTree, const Question& question) {
  const Answer answer = compareInStep(oldTree, newTree, question);
  if (answer != Answer::NOT_IN_STEP) return answer == Answer::SAME;
  const Index oldIndex(oldTree);
  const Index newIndex(newTree);
  // One after the other: repeated identifiers can make the list exponential, and where the
  // configuration differs nobody asked for it.
  if (question.configuration && !compareByIndex(oldIndex, newIndex, {true, nullptr})) return false;
  if (question.differences != nullptr) {
    question.differences->clear();
    compareByIndex(oldIndex, newIndex, {false, question.differences});
  }
  return true;
}

}  // namespace

const DeviceNode* subDeviceAt(const DeviceNode::SubDevices& subDevices, const std::string& key,
                              const std::string& deviceId) {
  const auto entry = subDevices.find(key);
  const bool carriesId = entry != subDevices.end() && entry->second != nullptr &&
                         entry->second->getDeviceId() == deviceId;
  return carriesId ? entry->second.get() : nullptr;
}

bool sameConfiguration(const DeviceNode& oldTree, const DeviceNode& newTree) {
  return compare(oldTree, newTree, {true, nullptr});
}

bool sameConfiguration(const DeviceNode& oldTree, const DeviceNode& newTree,
                       std::vector<Difference>& differences) {
  return compare(oldTree, newTree, {true, &differences});
}

std::vector<Difference> statusDifferences(const DeviceNode& oldTree, const DeviceNode& newTree) {
  std::vector<Difference> differences;
  compare(oldTree, newTree, {false, &differences});
  return differences;
}

}  // namespace orv::device_tree
