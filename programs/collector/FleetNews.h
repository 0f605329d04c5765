// What readers of a fleet have not been told yet.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "collector/Fleet.h"
#include "collector/HttpServer.h"

// What many readers are told of one thing that changes: all of it, or what has changed after the
// version that they know. What several are to be told is made once. For one thread.
class Feed {
 public:
  struct Piece {
    std::uint64_t version = 0;  // that the reader has then
    Text text;                  // empty for nothing
  };
  // What has changed after a version, nothing if that cannot be told; all if the version is 0.
  using Make = std::function<std::optional<Piece>(std::uint64_t after)>;

  explicit Feed(Make make) : make_(std::move(make)) {}

  // `latest` is the version that has to be reached. All of it may be a little older.
  const Piece& after(std::uint64_t version, std::uint64_t latest);

 private:
  Make make_;
  Piece whole_;
  std::chrono::steady_clock::time_point keptUntil_;
  std::map<std::uint64_t, std::optional<Piece>> pieces_;  // by the version after which they are
  std::uint64_t latest_ = 0;                              // of these
};

// The news of a fleet, for all readers.
class FleetNews {
 public:
  explicit FleetNews(Fleet& fleet);

  // For a reader who knows the list of roots as the event of that identifier left it, or not at
  // all, and who follows one root or none. Any thread may call it. This has to outlive the result.
  std::shared_ptr<News> follow(const std::string& lastEvent,
                               const std::optional<std::string>& root);

 private:
  struct Root;
  class Reader;

  std::optional<Feed::Piece> makeList(std::uint64_t after) const;
  std::optional<Feed::Piece> makeRoot(const std::string& id, const Changes& changes,
                                      std::uint64_t after) const;

  Fleet& fleet_;
  Feed list_;
  std::map<std::string, std::weak_ptr<Root>> roots_;  // that readers follow; under the fleet's lock
};
