#include "collector/FleetNews.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <iterator>
#include <utility>
#include <vector>

#include "collector/Json.h"
#include "device_tree/Walk.h"

using orv::device_tree::DeviceNode;

namespace {

// An event of a stream, see the page.
Text eventOf(const std::string& name, const std::string& id, const Json& data) {
  std::string text = "event: " + name + "\n";
  if (!id.empty()) text += "id: " + id + "\n";
  return share(text + "data: " + dump(data) + "\n\n");
}

}  // namespace

const Feed::Piece& Feed::after(std::uint64_t version, std::uint64_t latest) {
  using Clock = std::chrono::steady_clock;
  if (Clock::now() > keptUntil_) whole_ = Piece();
  if (latest != latest_) pieces_.clear();
  latest_ = latest;
  if (version != 0) {
    const auto [piece, isNew] = pieces_.try_emplace(version);
    if (isNew) piece->second = make_(version);
    if (piece->second) return *piece->second;
  }
  // Readers whose versions are too old share one text. It must take them further.
  if (whole_.version <= version) whole_ = Piece();
  if (!whole_.text) {
    const auto begin = Clock::now();
    whole_ = make_(0).value();
    // What took long is kept for longer, or many readers would hold each other up.
    const auto end = Clock::now();
    keptUntil_ = end + std::max<Clock::duration>(std::chrono::seconds(1), 10 * (end - begin));
  }
  return whole_;
}

struct FleetNews::Root {
  std::shared_ptr<const Changes> changes;
  Feed feed;
};

class FleetNews::Reader final : public News {
 public:
  Reader(FleetNews& news, std::uint64_t listVersion, std::shared_ptr<Root> root)
      : news_(news), listVersion_(listVersion), root_(std::move(root)) {}

  bool isThere() const override {
    return kept_ || listVersion_ != news_.fleet_.listChanges().version() ||
           (root_ && rootVersion_ != root_->changes->version());
  }

  Text next() override {
    if (kept_) return std::exchange(kept_, nullptr);
    const Text list = next(news_.list_, news_.fleet_.listChanges(), listVersion_);
    const Text root = root_ ? next(root_->feed, *root_->changes, rootVersion_) : nullptr;
    if (!list || !root) return list ? list : root;
    constexpr std::size_t most = 65'536;  // otherwise readers go on to share the text
    if (list->size() + root->size() > most) {
      kept_ = list;
      return root;
    }
    return share(*root + *list);
  }

 private:
  static Text next(Feed& feed, const Changes& changes, std::uint64_t& version) {
    const std::uint64_t latest = changes.version();
    if (version == latest) return nullptr;
    const Feed::Piece& piece = feed.after(version, latest);
    version = piece.version;
    return piece.text;
  }

  FleetNews& news_;
  std::uint64_t listVersion_;
  std::shared_ptr<Root> root_;
  std::uint64_t rootVersion_ = 0;
  Text kept_;
};

FleetNews::FleetNews(Fleet& fleet)
    : fleet_(fleet), list_([this](std::uint64_t after) { return makeList(after); }) {}

std::shared_ptr<News> FleetNews::follow(const std::string& lastEvent,
                                        const std::optional<std::string>& root) {
  const auto guard = fleet_.lock();
  // The versions of another process are others.
  const std::string start = fleet_.start() + ".";
  std::uint64_t version = 0;
  if (lastEvent.compare(0, start.size(), start) == 0) {
    std::from_chars(lastEvent.data() + start.size(), lastEvent.data() + lastEvent.size(), version);
    if (version > fleet_.listChanges().version()) version = 0;
  }
  std::shared_ptr<Root> followed;
  if (root) {
    for (auto entry = roots_.begin(); entry != roots_.end();) {
      entry = entry->second.expired() ? roots_.erase(entry) : std::next(entry);
    }
    followed = roots_[*root].lock();
    if (!followed) {
      const auto changes = fleet_.follow(*root);
      const auto make = [this, id = *root, changes](std::uint64_t after) {
        return makeRoot(id, *changes, after);
      };
      followed = std::make_shared<Root>(Root{changes, Feed(make)});
      roots_[*root] = followed;
    }
  }
  return std::make_shared<Reader>(*this, version, followed);
}

std::optional<Feed::Piece> FleetNews::makeList(std::uint64_t after) const {
  std::vector<std::pair<std::string, Fleet::Summary>> roots;
  Json gone = Json::array();
  Json data;
  Feed::Piece piece;
  {
    const auto guard = fleet_.lock();
    const Changes& changes = fleet_.listChanges();
    const auto parts = after == 0 ? std::nullopt : changes.after(after);
    if (after != 0 && !parts) return std::nullopt;
    piece.version = changes.version();
    data = {{"connected", fleet_.isConnected()},
            {"time", textOf(std::chrono::system_clock::now())},
            {"complete", !parts}};
    if (!parts) {
      for (const auto& [id, root] : fleet_.roots()) roots.emplace_back(id, root.summary);
    } else {
      for (const std::string& id : *parts) {
        const auto root = fleet_.roots().find(id);
        if (root == fleet_.roots().end()) gone.push_back(id);
        if (root != fleet_.roots().end()) roots.emplace_back(id, root->second.summary);
      }
    }
  }
  data["roots"] = Json::array();
  for (const auto& [id, summary] : roots) data["roots"].push_back(jsonOf(id, summary));
  if (!gone.empty()) data["gone"] = std::move(gone);
  piece.text = eventOf("list", fleet_.start() + "." + std::to_string(piece.version), data);
  return piece;
}

std::optional<Feed::Piece> FleetNews::makeRoot(const std::string& id, const Changes& changes,
                                               std::uint64_t after) const {
  Json data = {{"id", id}};
  std::optional<DeviceNode> tree;
  Feed::Piece piece;
  {
    const auto guard = fleet_.lock();
    auto parts = after == 0 ? std::nullopt : changes.after(after);
    if (after != 0 && !parts) return std::nullopt;
    piece.version = changes.version();
    const auto root = fleet_.roots().find(id);
    data["known"] = root != fleet_.roots().end();
    if (root != fleet_.roots().end()) {
      const auto view = fleet_.view(id);
      addHead(view, data);
      // All of it takes less time under the lock than many of its devices.
      if (parts && parts->size() > root->second.summary.devices / 4 + 10) parts = std::nullopt;
      if (parts) data["devices"] = Json::array();
      if (parts && view.tree) {
        orv::device_tree::anyNode(*view.tree, [&](const DeviceNode& device) {
          // Of those that share an identifier a change is that of the first.
          if (parts->erase(device.getDeviceId()) > 0) data["devices"].push_back(ownJsonOf(device));
          return parts->empty();
        });
      }
      if (!parts && view.tree) tree.emplace(*view.tree);
    }
  }
  if (tree) data["tree"] = jsonOf(*tree);
  piece.text = eventOf("root", "", data);
  return piece;
}
