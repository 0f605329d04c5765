#include "history/Store.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <initializer_list>
#include <utility>

namespace orv::history {

namespace {

using std::chrono::milliseconds;

constexpr std::int64_t application = 0x6f727668;  // that a file is a history, and of which form
constexpr std::int64_t version = 2;               // 1 had no blocks
// So many bytes of rows are a block. A page of the file has eight of these.
constexpr std::size_t blockSize = 980;
constexpr std::size_t bytesOfHead = 8;

constexpr const char* schema =
    "CREATE TABLE event(id INTEGER PRIMARY KEY, root INTEGER, back INTEGER, time INTEGER,"
    " kind INTEGER, data BLOB, sum INTEGER);"
    "CREATE TABLE root(number INTEGER PRIMARY KEY, name BLOB UNIQUE, head INTEGER, sum INTEGER);"
    "CREATE TABLE state(id INTEGER PRIMARY KEY, horizon INTEGER, last INTEGER, seen INTEGER,"
    " sum INTEGER);"
    "CREATE TABLE whole(root INTEGER, id INTEGER, PRIMARY KEY(root, id)) WITHOUT ROWID;";

std::int64_t sumOf(std::initializer_list<std::int64_t> numbers, std::string_view bytes) {
  std::array<unsigned char, 64> packed{};
  std::size_t size = 0;
  for (const std::int64_t number : numbers) {
    for (unsigned int i = 0; i < 8; ++i) {
      packed.at(size++) = static_cast<unsigned char>(static_cast<std::uint64_t>(number) >> (8 * i));
    }
  }
  const uLong first = crc32_z(0, packed.data(), size);
  const uLong sum =
      crc32_z(first, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
  return static_cast<std::int32_t>(sum);  // which takes the fewest bytes
}

std::int64_t sumOf(const Row& row) {
  return sumOf({row.id, row.root, row.previous, row.time.time_since_epoch().count(),
                static_cast<std::int64_t>(row.kind)},
               row.data);
}

// Brings the schema of a file into one form, so that it can be compared.
std::string schemaOf(const Database& database) {
  Statement statement(database,
                      "SELECT sql || ';' FROM sqlite_schema WHERE sql IS NOT NULL ORDER BY name");
  std::string text;
  while (statement.next()) text += statement.bytes(0);
  return text;
}

Statement& prepared(std::optional<Statement>& statement, const Database& database,
                    const char* text) {
  if (!statement) statement.emplace(database, text);
  return *statement;
}

Statement& preparedRow(std::optional<Statement>& statement, const Database& database,
                       const char* which) {
  if (!statement) {
    const std::string select = "SELECT id, root, back, time, kind, data, sum FROM event WHERE ";
    statement.emplace(database, (select + which).c_str());
  }
  return *statement;
}

}  // namespace

Store::Store(const std::string& file, Database::Mode mode)
    : database_(file, mode, milliseconds(mode == Database::Mode::READ ? 2000 : 200)) {
  const bool isReader = mode == Database::Mode::READ;
  const std::int64_t foundVersion = database_.number("PRAGMA user_version");
  const std::int64_t foundApplication = database_.number("PRAGMA application_id");
  const std::string found = schemaOf(database_);
  const bool isNew = found.empty() && foundApplication == 0 && foundVersion == 0;
  if (isNew && isReader) database_.fail("there is no history in this file yet");
  if (!isNew && foundApplication != application) database_.fail("this is no history");
  if (foundVersion > version) {
    database_.fail("this history was written by a later version of this program");
  }
  if (!isNew && (found != schema || foundVersion < 1)) damaged("the tables are not its own");
  if (isReader) return;
  // Blocks fill a larger page better.
  if (isNew) database_.run("PRAGMA page_size = 8192");
  database_.run(
      "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA cache_size = -16000;"
      "PRAGMA journal_size_limit = 16000000");
  if (foundVersion == version) return;
  Transaction transaction(database_, "BEGIN IMMEDIATE");
  if (isNew) {
    database_.run(schema);
    database_.run(("PRAGMA application_id = " + std::to_string(application)).c_str());
    setState({});
  }
  database_.run(("PRAGMA user_version = " + std::to_string(version)).c_str());
  transaction.commit();
}

void Store::damaged(const std::string& what) const { database_.failDamaged(what); }

State Store::state() {
  Statement& statement =
      prepared(state_, database_, "SELECT horizon, last, seen, sum FROM state WHERE id = 1").with();
  if (!statement.next()) damaged("it has no state");
  const State state{statement.number(0), statement.number(1),
                    Time(milliseconds(statement.number(2)))};
  const bool isRight =
      statement.number(3) == sumOf({state.horizon, state.last, statement.number(2)}, {});
  statement.reset();
  // A file from anywhere can have the right sum as well.
  const bool isSound = state.last >= 0 && state.last <= largest && state.horizon >= 1 &&
                       state.horizon <= state.last + 1;
  if (!isRight || !isSound) damaged("its state");
  return state;
}

RootEntry Store::checked(Statement& statement) const {
  RootEntry entry{statement.number(0), std::string(statement.bytes(1)), statement.number(2)};
  if (statement.number(3) != sumOf({entry.number, entry.head}, entry.name)) {
    statement.reset();
    damaged("the entry of the root " + entry.name);
  }
  return entry;
}

std::optional<RootEntry> Store::root(const std::string& name) {
  Statement& statement =
      prepared(rootByName_, database_, "SELECT number, name, head, sum FROM root WHERE name = ?")
          .with(std::string_view(name));
  if (!statement.next()) return std::nullopt;
  RootEntry entry = checked(statement);
  statement.reset();
  if (entry.name != name) damaged("the list of roots");
  return entry;
}

RootEntry Store::root(std::int64_t number) {
  Statement& statement = prepared(rootByNumber_, database_,
                                  "SELECT number, name, head, sum FROM root WHERE number = ?")
                             .with(number);
  if (!statement.next()) damaged("the entry of a root is lost");
  RootEntry entry = checked(statement);
  statement.reset();
  return entry;
}

std::vector<RootEntry> Store::rootsAfter(std::int64_t after, std::size_t most) {
  Statement& statement = prepared(rootsAfter_, database_,
                                  "SELECT number, name, head, sum FROM root WHERE number > ? "
                                  "ORDER BY number LIMIT ?")
                             .with(after, static_cast<std::int64_t>(most));
  std::vector<RootEntry> entries;
  while (statement.next()) entries.push_back(checked(statement));
  return entries;
}

Row Store::read(Statement& statement) const {
  Row row;
  row.id = statement.number(0);
  row.root = statement.number(1);
  row.previous = previousOf(row.id, statement.number(2));
  row.time = Time(milliseconds(statement.number(3)));
  row.kind = static_cast<Kind>(statement.number(4));
  row.data = statement.bytes(5);
  if (statement.number(6) != sumOf(row)) {
    statement.reset();
    damaged("row " + std::to_string(row.id));
  }
  return row;
}

std::int64_t Store::rootNumberAfter(std::int64_t number) {
  Statement& statement =
      prepared(rootNumberAfter_, database_, "SELECT min(number) FROM root WHERE number > ?")
          .with(number);
  statement.next();
  const std::int64_t found = statement.number(0);
  statement.reset();
  if (found != 0 && found <= number) damaged("the list of roots");
  return found;
}

std::optional<Row> Store::filed(Statement& statement) const {
  if (!statement.next()) return std::nullopt;
  Row found = read(statement);
  statement.reset();
  return found;
}

std::optional<Row> Store::filedUpTo(std::int64_t id) {
  auto found =
      filed(preparedRow(filedUpTo_, database_, "id <= ? ORDER BY id DESC LIMIT 1").with(id));
  if (found && found->id > id) damaged("row " + std::to_string(id));
  return found;
}

// The first row from `id` on of the block that was read last.
std::optional<Row> Store::rowInBlock(std::int64_t id) const {
  for (RowsOfBlock rows(*block_); rows.next();) {
    if (rows.id() >= id) return rows.row();
  }
  return std::nullopt;
}

// The first row from `id` on of what is filed.
std::optional<Row> Store::rowIn(Row filed, std::int64_t id) {
  if (filed.kind != Kind::BLOCK) {
    return filed.id < id ? std::nullopt : std::optional(std::move(filed));
  }
  block_.reset();
  RowsOfBlock rows(filed);
  while (rows.next()) blockLast_ = rows.id();
  if (!rows.isAtEnd()) damaged("row " + std::to_string(filed.id));
  block_ = std::move(filed);
  return rowInBlock(id);
}

Row Store::row(std::int64_t id) {
  std::optional<Row> found;
  if (block_ && block_->id <= id && id <= blockLast_) {
    found = rowInBlock(id);
  } else if (auto filed = filedUpTo(id)) {
    found = rowIn(*std::move(filed), id);
  }
  if (!found || found->id != id) damaged("row " + std::to_string(id) + " is lost");
  return *std::move(found);
}

std::optional<Row> Store::rowFrom(std::int64_t id) {
  if (block_ && block_->id <= id && id <= blockLast_) return rowInBlock(id);
  if (auto filed = filedUpTo(id)) {
    if (auto found = rowIn(*std::move(filed), id)) return found;
  }
  auto next = filed(preparedRow(filedAfter_, database_, "id > ? ORDER BY id LIMIT 1").with(id));
  return next ? rowIn(*std::move(next), id) : std::nullopt;
}

std::int64_t Store::wholeAfter(std::int64_t root, std::int64_t id) {
  Statement& statement =
      prepared(wholeAfter_, database_, "SELECT min(id) FROM whole WHERE root = ? AND id > ?")
          .with(root, id);
  statement.next();
  const std::int64_t found = statement.number(0);
  statement.reset();
  return found;
}

std::vector<std::int64_t> Store::wholesUpTo(std::int64_t root, std::int64_t id, std::size_t most) {
  Statement& statement =
      prepared(wholesUpTo_, database_,
               "SELECT id FROM whole WHERE root = ? AND id <= ? ORDER BY id LIMIT ?")
          .with(root, id, static_cast<std::int64_t>(most));
  std::vector<std::int64_t> ids;
  while (statement.next()) ids.push_back(statement.number(0));
  return ids;
}

std::optional<Segment> Store::segment(const RootEntry& root, std::int64_t id) {
  const std::int64_t whole = wholeAfter(root.number, id);
  Segment segment;
  for (std::int64_t next = whole == 0 ? root.head : whole; next != 0;) {
    Row found = row(next);
    if (found.root != root.number) damaged("the rows of the root " + root.name);
    if (found.previous < 0 || found.previous >= found.id) damaged("row " + std::to_string(next));
    next = found.previous;
    if (found.id > id) {
      segment.following = found.kind;
      continue;
    }
    segment.rows.push_back(std::move(found));
    if (segment.rows.back().kind == Kind::STATUS) continue;
    std::reverse(segment.rows.begin(), segment.rows.end());
    return segment;
  }
  if (!segment.rows.empty()) damaged("the root " + root.name + " begins without a tree");
  return std::nullopt;
}

std::vector<Row> Store::watches() {
  const State now = state();
  std::vector<Row> found;
  if (now.last == 0) return found;  // nobody has recorded yet
  for (std::int64_t id = root(watchRoot).head; id != 0;) {
    found.push_back(row(id));
    if (found.back().root != watchRoot || found.back().previous >= id) damaged("its watches");
    id = found.back().id <= now.horizon ? 0 : found.back().previous;
  }
  return found;
}

// The last row at that time or before it from `low` on, which is not later, and before `end`, where
// no clock was set back in between.
std::int64_t Store::lastUpTo(Time time, std::int64_t low, std::int64_t end) {
  for (std::int64_t high = end; high - low > 1;) {
    const std::int64_t middle = low + (high - low) / 2;
    const auto found = rowFrom(middle);
    if (found && found->id < high && found->time <= time) {
      low = found->id;
    } else {
      high = middle;
    }
  }
  // In a damaged file the search may have gone astray.
  if (low + 1 < end && low >= state().horizon && row(low + 1).time <= time) {
    damaged("the order of rows");
  }
  return low;
}

std::int64_t Store::placeOf(Time time) {
  const State now = state();
  const std::vector<Row> found = watches();
  // Of each, the latest time at which a recorder had been at work before it.
  std::vector<Time> seen(found.size());
  Time latest;
  for (std::size_t i = found.size(); i-- > 0;) {
    if (found[i].kind == Kind::WATCH) latest = std::max(latest, watchOf(found[i]).seen);
    seen[i] = latest;
  }
  std::int64_t end = now.last + 1;
  bool isJump = false;  // so it was at `end`
  for (std::size_t i = 0; i < found.size(); end = found[i++].id) {
    if (found[i].time > time) {
      isJump = false;
      continue;
    }
    const std::int64_t place = lastUpTo(time, found[i].id, end);
    if (seen[i] < time || row(place).time >= seen[i]) return place;
    if (!isJump || place + 1 < end) {
      const auto next = rowFrom(place + 1);
      isJump = (next ? next->time : now.seen) >= seen[i];
    }
    if (!isJump) return place;
  }
  return 0;
}

std::int64_t Store::placeOfOld(Time time, Time now) {
  const std::int64_t last = state().last;
  std::int64_t place = last;
  std::int64_t end = last + 1;
  // The oldest stretch counts that has something newer, as later ones can begin with a clock that
  // is far back. What was recorded in the future would stay until then.
  for (const Row& watch : watches()) {
    const std::int64_t low = watch.time > time ? watch.id - 1 : lastUpTo(time, watch.id, end);
    const auto newer = rowFrom(low + 1);
    if (newer && newer->id < end && (end > last || newer->time <= now)) place = low;
    end = watch.id;
  }
  return place;
}

void Store::append(Row row) {
  const std::size_t size = row.data.size() + bytesOfHead;
  const bool isLate = !appended_.empty() && row.time < appended_.back().time;
  if (appendedBytes_ + size > blockSize || isLate) file();
  if (row.kind != Kind::STATUS) {
    prepared(fileWhole_, database_, "INSERT INTO whole VALUES(?, ?)").with(row.root, row.id).run();
  }
  appendedBytes_ += size;
  appended_.push_back(std::move(row));
}

void Store::file() {
  file(appended_);
  appended_.clear();
  appendedBytes_ = 0;
}

void Store::file(const std::vector<Row>& rows) {
  if (rows.empty()) return;
  Row block;
  if (rows.size() > 1) block = blockOf(rows);
  const Row& row = rows.size() > 1 ? block : rows.front();
  prepared(file_, database_, "INSERT INTO event VALUES(?, ?, ?, ?, ?, ?, ?)")
      .with(row.id, row.root, backOf(row), std::int64_t{row.time.time_since_epoch().count()},
            static_cast<std::int64_t>(row.kind), std::string_view(row.data), sumOf(row))
      .run();
}

void Store::setRoot(const RootEntry& root) {
  const std::int64_t sum = sumOf({root.number, root.head}, root.name);
  prepared(setHead_, database_, "UPDATE root SET head = ?, sum = ? WHERE number = ?")
      .with(root.head, sum, root.number)
      .run();
  if (database_.changes() > 0) return;
  prepared(addRoot_, database_, "INSERT INTO root VALUES(?, ?, ?, ?)")
      .with(root.number, std::string_view(root.name), root.head, sum)
      .run();
}

void Store::setState(const State& state) {
  const std::int64_t seen = state.seen.time_since_epoch().count();
  prepared(setState_, database_, "INSERT OR REPLACE INTO state VALUES(1, ?, ?, ?, ?)")
      .with(state.horizon, state.last, seen, sumOf({state.horizon, state.last, seen}, {}))
      .run();
}

void Store::erase(std::vector<std::int64_t> rows) {
  std::sort(rows.begin(), rows.end());
  block_.reset();
  for (auto row = rows.begin(); row != rows.end();) {
    const auto filed = filedUpTo(*row);
    if (!filed) damaged("row " + std::to_string(*row) + " is lost");
    std::vector<Row> rest;
    auto end = std::next(row);
    if (filed->kind == Kind::BLOCK) {
      for (RowsOfBlock block(*filed); block.next();
           end = std::upper_bound(row, rows.end(), block.id())) {
        if (!std::binary_search(row, rows.end(), block.id())) rest.push_back(block.row());
      }
    }
    prepared(erase_, database_, "DELETE FROM event WHERE id = ?").with(filed->id).run();
    file(rest);
    row = end;
  }
}

void Store::eraseWhole(std::int64_t root, std::int64_t id) {
  prepared(eraseWhole_, database_, "DELETE FROM whole WHERE root = ? AND id = ?")
      .with(root, id)
      .run();
}

void Store::eraseRoot(const RootEntry& root) {
  prepared(eraseRoot_, database_, "DELETE FROM root WHERE number = ?").with(root.number).run();
}

}  // namespace orv::history
