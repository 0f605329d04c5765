// SQLite, as far as a history needs it.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "history/Error.h"

struct sqlite3;
struct sqlite3_stmt;

namespace orv::history {

class Database;

// The content of the file is not what was written. What is not damaged can still be used.
class Damage : public Error {
 public:
  using Error::Error;
};

// One statement, prepared once and run many times.
class Statement {
 public:
  Statement(const Database& database, const char* text);

  // Takes the values of the parameters, in their order.
  template <typename... Values>
  Statement& with(const Values&... values) {
    reset();
    int place = 0;
    (bind(++place, values), ...);
    return *this;
  }
  // Goes to the next row; false at the end. Throws Error.
  bool next();
  // For what returns no rows. Throws Error.
  void run();
  void reset() noexcept;

  // Of the row. A text is good until the statement goes on.
  std::int64_t number(int column) const;
  std::string_view bytes(int column) const;

 private:
  void bind(int place, std::int64_t value);
  void bind(int place, std::string_view value);

  const Database* database_;
  std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> statement_;
};

// A connection to a file. One thread at a time uses it.
class Database {
 public:
  enum class Mode { READ, WRITE };

  // Throws Error. For writing, it makes the file if there is none, which its group may read and
  // nobody else.
  Database(const std::string& file, Mode mode, std::chrono::milliseconds patience);

  void run(const char* statements) const;
  std::int64_t number(const char* query) const;
  // How many rows the last statement changed.
  int changes() const noexcept;
  // Throws the Error for what SQLite said last.
  [[noreturn]] void fail() const;
  [[noreturn]] void fail(const std::string& reason) const;
  [[noreturn]] void failDamaged(const std::string& what) const;
  // How long the log of what is written is.
  std::uint64_t logSize() const;
  // Has the log begin anew, once all that is read now has been read. Its patience can end before.
  void shortenLog() const;
  // Whether the file is no longer where it was opened.
  bool isMoved() const noexcept;
  sqlite3* handle() const noexcept { return connection_.get(); }

 private:
  std::string file_;
  std::unique_ptr<sqlite3, int (*)(sqlite3*)> connection_;
};

// Rolls back unless it is committed.
class Transaction {
 public:
  Transaction(const Database& database, const char* begin);
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction();
  void commit();

 private:
  const Database& database_;
  bool isOpen_ = true;
};

}  // namespace orv::history
