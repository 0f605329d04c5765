// The tables of a history, and what keeps them right.
//
// What is recorded of all roots are rows with consecutive numbers, in the order of recording. Each
// row says which was the one before it of the same root. So the rows of a root are a chain, which
// ends at the row that the root's entry names. A whole tree is filed a second time, so that there
// is a way into the middle of the chain. A segment of the chain is a whole tree and the status
// changes after it, up to the next whole tree.
//
// What is filed is a large row, or a block of small ones. It carries a sum of all that it says.
// What was changed does not have its sum, a row that is lost is missed in its chain: either is an
// Error, and no tree is made of what is left.
//
// What is older than the horizon is let go segment by segment. Of each root the segment stays that
// leads up to the horizon.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "history/Database.h"
#include "history/Row.h"
#include "history/Time.h"

namespace orv::history {

struct RootEntry {
  std::int64_t number = 0;
  std::string name;
  std::int64_t head = 0;
};

// The rows of a segment up to some place; the first has a whole tree.
struct Segment {
  std::vector<Row> rows;
  std::optional<Kind> following;  // what came after that place
};

struct State {
  std::int64_t horizon = 1;  // from here on everything is kept
  std::int64_t last = 0;     // the row that was recorded last
  Time seen;                 // when the recorder was at work for the last time
};

class Store {
 public:
  // The entry that WATCH and CLOCK belong to.
  static constexpr std::int64_t watchRoot = 0;
  // No recorder comes to a larger number, and what is counted on from here does not overflow.
  static constexpr std::int64_t largest = std::int64_t{1} << 62;

  // Throws Error, as everything does here.
  Store(const std::string& file, Database::Mode mode);

  Database& database() noexcept { return database_; }
  [[noreturn]] void damaged(const std::string& what) const;

  State state();
  std::optional<RootEntry> root(const std::string& name);
  RootEntry root(std::int64_t number);
  // Those with a higher number than `after`, at most so many, in the order of their numbers.
  std::vector<RootEntry> rootsAfter(std::int64_t after, std::size_t most);
  // The number of the next one, also of one that is damaged; 0 for none.
  std::int64_t rootNumberAfter(std::int64_t number);
  Row row(std::int64_t id);
  // The first row from there on, if there is one.
  std::optional<Row> rowFrom(std::int64_t id);
  // The first whole tree of the root after that place; 0 for none.
  std::int64_t wholeAfter(std::int64_t root, std::int64_t id);
  // The whole trees up to that place, at most so many, the oldest first.
  std::vector<std::int64_t> wholesUpTo(std::int64_t root, std::int64_t id, std::size_t most);
  // The segment that `id` falls into, without what comes after it. Nothing where the root was not
  // there yet.
  std::optional<Segment> segment(const RootEntry& root, std::int64_t id);
  // The rows of the watch root, the newest first.
  std::vector<Row> watches();
  // The last row that was recorded at that time or before it; 0 for none. What a clock that began
  // far back jumped over when it was set belongs to what was recorded before.
  std::int64_t placeOf(Time time);
  // Up to where all was recorded at that time or before it, whatever the clock was set to.
  std::int64_t placeOfOld(Time time, Time now);

  // Rows are filed when they are as many as a block holds, or are told to. Until then they are not
  // found.
  void append(Row row);
  void file();
  void setRoot(const RootEntry& root);
  void setState(const State& state);
  void erase(std::vector<std::int64_t> rows);
  void eraseWhole(std::int64_t root, std::int64_t id);
  void eraseRoot(const RootEntry& root);

 private:
  // A statement that stays within a row would keep its view of the file, and WAL would only grow.
  Row read(Statement& statement) const;
  std::optional<Row> filed(Statement& statement) const;
  std::optional<Row> filedUpTo(std::int64_t id);
  std::optional<Row> rowIn(Row filed, std::int64_t id);
  std::optional<Row> rowInBlock(std::int64_t id) const;
  void file(const std::vector<Row>& rows);
  RootEntry checked(Statement& statement) const;
  std::int64_t lastUpTo(Time time, std::int64_t low, std::int64_t end);

  Database database_;
  std::vector<Row> appended_;  // and not filed yet
  std::size_t appendedBytes_ = 0;
  // The block that was read last. What is filed stays as it is, until some of it is erased.
  std::optional<Row> block_;
  std::int64_t blockLast_ = 0;
  std::optional<Statement> state_, rootByName_, rootByNumber_, rootsAfter_, rootNumberAfter_,
      filedAfter_, filedUpTo_, wholeAfter_, wholesUpTo_, file_, fileWhole_, addRoot_, setHead_,
      setState_, erase_, eraseWhole_, eraseRoot_;
};

}  // namespace orv::history
