#include "history/Database.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

namespace orv::history {

namespace {

// In words that say what is to be done.
std::string reasonOf(sqlite3* connection) {
  const int code = sqlite3_extended_errcode(connection);
  const int system = sqlite3_system_errno(connection);
  switch (code & 0xff) {
    case SQLITE_FULL:
      return "the disk is full";
    case SQLITE_CORRUPT:
      return "the file is damaged";
    case SQLITE_NOTADB:
      return "this is no history, or the file is damaged";
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return "another program holds it";
    case SQLITE_CANTOPEN:
      return "it cannot be opened" + (system == 0 ? "" : std::string(": ") + std::strerror(system));
    case SQLITE_IOERR:
      if (system == ENOSPC || system == EDQUOT || system == EFBIG) return "the disk is full";
      break;
    default:
      break;
  }
  if (code == SQLITE_IOERR_WRITE || code == SQLITE_IOERR_SHMSIZE) return "it cannot be written";
  std::string reason = sqlite3_errmsg(connection);
  if (system != 0) reason += std::string(": ") + std::strerror(system);
  return reason;
}

}  // namespace

Statement::Statement(const Database& database, const char* text)
    : database_(&database), statement_(nullptr, sqlite3_finalize) {
  sqlite3_stmt* statement = nullptr;
  const int code = sqlite3_prepare_v3(database.handle(), text, -1, SQLITE_PREPARE_PERSISTENT,
                                      &statement, nullptr);
  statement_.reset(statement);
  if (code != SQLITE_OK) database.fail();
}

bool Statement::next() {
  const int code = sqlite3_step(statement_.get());
  if (code != SQLITE_ROW && code != SQLITE_DONE) database_->fail();
  if (code == SQLITE_DONE) reset();
  return code == SQLITE_ROW;
}

void Statement::run() {
  while (next()) {
  }
}

void Statement::reset() noexcept { sqlite3_reset(statement_.get()); }

std::int64_t Statement::number(int column) const {
  return sqlite3_column_int64(statement_.get(), column);
}

std::string_view Statement::bytes(int column) const {
  const void* const data = sqlite3_column_blob(statement_.get(), column);
  const int size = sqlite3_column_bytes(statement_.get(), column);
  if (data == nullptr || size <= 0) return {};
  return {static_cast<const char*>(data), static_cast<std::size_t>(size)};
}

void Statement::bind(int place, std::int64_t value) {
  if (sqlite3_bind_int64(statement_.get(), place, value) != SQLITE_OK) database_->fail();
}

void Statement::bind(int place, std::string_view value) {
  // The value outlives the run of the statement.
  const char* const data = value.empty() ? "" : value.data();
  if (sqlite3_bind_blob64(statement_.get(), place, data, value.size(), SQLITE_STATIC) !=
      SQLITE_OK) {
    database_->fail();
  }
}

Database::Database(const std::string& file, Mode mode, std::chrono::milliseconds patience)
    : file_(file), connection_(nullptr, sqlite3_close_v2) {
  if (mode == Mode::WRITE) {
    // SQLite would let everybody read it. What is made beside the file gets the same mode.
    mknod(file.c_str(), S_IFREG | 0640, 0);
  }
  const int flags = (mode == Mode::WRITE ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY) |
                    SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
  sqlite3* connection = nullptr;
  const int code = sqlite3_open_v2(file.c_str(), &connection, flags, nullptr);
  connection_.reset(connection);
  if (connection == nullptr) fail("there is no memory");
  if (code != SQLITE_OK) fail();
  sqlite3_busy_timeout(connection, static_cast<int>(patience.count()));
  // The file may come from anywhere: nothing in it is run.
  for (const auto& [option, value] :
       {std::pair(SQLITE_DBCONFIG_DEFENSIVE, 1), std::pair(SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0),
        std::pair(SQLITE_DBCONFIG_ENABLE_TRIGGER, 0), std::pair(SQLITE_DBCONFIG_ENABLE_VIEW, 0)}) {
    sqlite3_db_config(connection, option, value, nullptr);  // NOLINT(*-vararg)
  }
  run("PRAGMA cell_size_check = ON; PRAGMA mmap_size = 0");
  if (mode == Mode::WRITE) {
    // A reader that may not write needs the files beside it, also when nobody records.
    int stays = 1;
    sqlite3_file_control(connection, nullptr, SQLITE_FCNTL_PERSIST_WAL, &stays);
  }
}

void Database::run(const char* statements) const {
  if (sqlite3_exec(handle(), statements, nullptr, nullptr, nullptr) != SQLITE_OK) fail();
}

std::int64_t Database::number(const char* query) const {
  Statement statement(*this, query);
  return statement.next() ? statement.number(0) : 0;
}

int Database::changes() const noexcept { return sqlite3_changes(handle()); }

std::uint64_t Database::logSize() const {
  std::error_code error;
  const char* const name = sqlite3_filename_wal(sqlite3_db_filename(handle(), "main"));
  const std::uintmax_t size = std::filesystem::file_size(name, error);
  return error ? 0 : size;
}

void Database::shortenLog() const { run("PRAGMA wal_checkpoint(TRUNCATE)"); }

bool Database::isMoved() const noexcept {
  int moved = 0;
  sqlite3_file_control(handle(), nullptr, SQLITE_FCNTL_HAS_MOVED, &moved);
  return moved != 0;
}

void Database::fail() const {
  const int code = sqlite3_errcode(handle());
  if (code == SQLITE_CORRUPT || code == SQLITE_NOTADB)
    throw Damage(file_ + ": " + reasonOf(handle()));
  fail(reasonOf(handle()));
}

void Database::failDamaged(const std::string& what) const {
  throw Damage(file_ + ": the file is damaged: " + what);
}

void Database::fail(const std::string& reason) const { throw Error(file_ + ": " + reason); }

Transaction::Transaction(const Database& database, const char* begin) : database_(database) {
  database.run(begin);
}

Transaction::~Transaction() {
  if (isOpen_) sqlite3_exec(database_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
}

void Transaction::commit() {
  database_.run("COMMIT");
  isOpen_ = false;
}

}  // namespace orv::history
