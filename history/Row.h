// What is recorded, in bytes.
#pragma once

#include <google/protobuf/io/coded_stream.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "history/Time.h"
#include "reporting/Sequence.h"

namespace orv::history {

// The numbers stand in files.
enum class Kind : std::int64_t {
  STATUS = 0,      // what follows from the row before it: a status change
  CHECKPOINT = 1,  // nothing has changed: the tree as it is
  ADDED = 2,
  CONFIGURED = 3,
  REMOVED = 4,
  CAUGHT_UP = 5,  // the tree after steps that were not recorded
  FORGOTTEN = 6,  // the root is gone, and no event said so
  WATCH = 7,      // a recorder began; belongs to no root
  CLOCK = 8,      // the clock was set back; belongs to no root
  BLOCK = 9       // several rows in one
};

struct Row {
  std::int64_t id = 0;
  std::int64_t root = 0;
  std::int64_t previous = 0;  // 0: there was none
  Time time;
  Kind kind = Kind::STATUS;
  std::string data;
};

// What a row holds that begins a segment. The tree is packed; nothing stands for no tree.
struct Whole {
  reporting::Sequence sequence;
  std::string_view tree;
};
std::string dataOf(const reporting::Sequence& sequence);  // the tree is appended to it
Whole wholeOf(const Row& row);

// What a WATCH holds.
struct Watch {
  Time seen;  // when the last recorder was at work for the last time
  std::string reason;
};
std::string dataOf(const Watch& watch);
Watch watchOf(const Row& row);

// Small rows are filed several in one, which takes and costs a fraction. Their numbers ascend, and
// their times do not descend. The block has the number and the time of the first.
Row blockOf(const std::vector<Row>& rows);

// Goes through the rows of a block, which outlives this.
class RowsOfBlock {
 public:
  explicit RowsOfBlock(const Row& block);

  // Goes to the next row. False at the end, and where the bytes are none of a block.
  bool next();
  // Whether all bytes were those of rows.
  bool isAtEnd() const { return isAtEnd_; }
  std::int64_t id() const { return id_; }
  Row row() const;

 private:
  const Row& block_;
  google::protobuf::io::CodedInputStream bytes_;
  std::int64_t id_;
  Time time_;
  std::uint64_t next_;  // the least number that the next row can have
  std::uint64_t kind_ = 0;
  std::uint64_t root_ = 0;
  std::uint64_t back_ = 0;
  std::string_view data_;
  bool isAtEnd_ = false;
};

// A row is filed with the distance to the row before it of its root, not with that one's number.
// What no distance can be gives -1.
std::int64_t backOf(const Row& row);
std::int64_t previousOf(std::int64_t id, std::int64_t back);

}  // namespace orv::history
