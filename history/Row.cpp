#include "history/Row.h"

#include <array>
#include <utility>

namespace orv::history {

namespace {

using google::protobuf::io::CodedOutputStream;
using std::chrono::milliseconds;

void append(std::string& target, std::uint64_t number) {
  for (unsigned int i = 0; i < 8; ++i) target += static_cast<char>(number >> (8 * i));
}

std::uint64_t read(std::string_view bytes, std::size_t at) {
  std::uint64_t number = 0;
  for (unsigned int i = 0; i < 8; ++i) {
    number |= static_cast<std::uint64_t>(static_cast<unsigned char>(bytes.at(at + i))) << (8 * i);
  }
  return number;
}

// What stands before the data of a row in a block is not longer than that.
constexpr std::size_t mostHead = 50;
// The kind takes the lowest bits of the first number, what the numbers of rows skip the others.
constexpr unsigned int kindBits = 4;

void appendHead(std::string& target, std::initializer_list<std::uint64_t> numbers) {
  std::array<std::uint8_t, mostHead> head{};
  std::uint8_t* end = head.data();
  for (const std::uint64_t number : numbers) {
    end = CodedOutputStream::WriteVarint64ToArray(number, end);
  }
  target.append(reinterpret_cast<const char*>(head.data()),
                static_cast<std::size_t>(end - head.data()));
}

}  // namespace

std::string dataOf(const reporting::Sequence& sequence) {
  std::string data;
  append(data, sequence.epoch);
  append(data, sequence.n);
  return data;
}

Whole wholeOf(const Row& row) {
  if (row.data.size() < 16) return {};
  return {{read(row.data, 0), read(row.data, 8)}, std::string_view(row.data).substr(16)};
}

std::string dataOf(const Watch& watch) {
  std::string data;
  append(data, static_cast<std::uint64_t>(watch.seen.time_since_epoch().count()));
  return data + watch.reason;
}

Watch watchOf(const Row& row) {
  if (row.data.size() < 8) return {};
  return {Time(milliseconds(static_cast<std::int64_t>(read(row.data, 0)))), row.data.substr(8)};
}

std::int64_t backOf(const Row& row) { return row.previous == 0 ? 0 : row.id - row.previous; }

std::int64_t previousOf(std::int64_t id, std::int64_t back) {
  return back > 0 && back <= id ? id - back : -std::int64_t{back != 0};
}

Row blockOf(const std::vector<Row>& rows) {
  Row block;
  block.id = rows.front().id;
  block.time = rows.front().time;
  block.kind = Kind::BLOCK;
  block.data.reserve(1024);
  std::int64_t next = block.id;
  Time time = block.time;
  for (const Row& row : rows) {
    const auto skipped = static_cast<std::uint64_t>(row.id - next);
    appendHead(block.data,
               {skipped << kindBits | static_cast<std::uint64_t>(row.kind),
                static_cast<std::uint64_t>(row.root), static_cast<std::uint64_t>(backOf(row)),
                static_cast<std::uint64_t>((row.time - time).count()), row.data.size()});
    block.data += row.data;
    next = row.id + 1;
    time = row.time;
  }
  return block;
}

RowsOfBlock::RowsOfBlock(const Row& block)
    : block_(block),
      bytes_(reinterpret_cast<const std::uint8_t*>(block.data.data()),
             static_cast<int>(block.data.size())),
      id_(block.id),
      time_(block.time),
      next_(static_cast<std::uint64_t>(block.id)) {}

bool RowsOfBlock::next() {
  const auto begin = static_cast<std::size_t>(bytes_.CurrentPosition());
  if (begin == block_.data.size()) {
    isAtEnd_ = true;
    return false;
  }
  std::uint64_t first = 0;
  std::uint64_t later = 0;
  std::uint64_t size = 0;
  for (std::uint64_t* const number : {&first, &root_, &back_, &later, &size}) {
    if (!bytes_.ReadVarint64(number)) return false;
  }
  const auto data = static_cast<std::size_t>(bytes_.CurrentPosition());
  // What is not of a recorder may have any number: nothing may overflow.
  const std::uint64_t id = next_ + (first >> kindBits);
  kind_ = first & ((1U << kindBits) - 1);
  const bool isBlock = kind_ == static_cast<std::uint64_t>(Kind::BLOCK);
  if (size > block_.data.size() - data || id < next_ || id > INT64_MAX || isBlock) return false;
  bytes_.Skip(static_cast<int>(size));
  data_ = std::string_view(block_.data).substr(data, size);
  id_ = static_cast<std::int64_t>(id);
  next_ = id + 1;
  const auto time = static_cast<std::uint64_t>(time_.time_since_epoch().count()) + later;
  time_ = Time(milliseconds(static_cast<std::int64_t>(time)));
  return true;
}

Row RowsOfBlock::row() const {
  return {
      id_,   static_cast<std::int64_t>(root_), previousOf(id_, static_cast<std::int64_t>(back_)),
      time_, static_cast<Kind>(kind_),         std::string(data_)};
}

}  // namespace orv::history
