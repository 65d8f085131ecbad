#pragma once

// The store's SQLite statements and transactions, which throw std::runtime_error on a failure.

#include <sqlite3.h>

#include <cstdint>
#include <stdexcept>
#include <string>

namespace KOEmulatorSQL {

class Statement {
 public:
  Statement(sqlite3* db, const std::string& sql) : db_(db) {
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt_, nullptr) != SQLITE_OK) {
      throw std::runtime_error(std::string("sqlite prepare: ") + sqlite3_errmsg(db));
    }
  }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& bind(int i, const std::string& s) {
    sqlite3_bind_text(stmt_, i, s.data(), static_cast<int>(s.size()), SQLITE_TRANSIENT);
    return *this;
  }
  Statement& bind(int i, int64_t v) {
    sqlite3_bind_int64(stmt_, i, v);
    return *this;
  }
  Statement& bind(int i, double v) {
    sqlite3_bind_double(stmt_, i, v);
    return *this;
  }
  // True while a row is available.
  bool step() {
    int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    throw std::runtime_error(std::string("sqlite step: ") + sqlite3_errmsg(db_));
  }
  void reset() {
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
  }
  void run() {
    while (step()) {
    }
  }
  std::string text(int col) const {
    auto p = sqlite3_column_text(stmt_, col);
    int n = sqlite3_column_bytes(stmt_, col);
    return p ? std::string(reinterpret_cast<const char*>(p), static_cast<size_t>(n)) : std::string();
  }
  int64_t integer(int col) const { return sqlite3_column_int64(stmt_, col); }
  double real(int col) const { return sqlite3_column_double(stmt_, col); }

 private:
  sqlite3* db_;
  sqlite3_stmt* stmt_ = nullptr;
};

// Keeps a multi-statement change all-or-nothing even when a step throws.
class Transaction {
 public:
  explicit Transaction(sqlite3* db) : db_(db) { sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr); }
  ~Transaction() {
    if (!committed_) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  void commit() {
    if (sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) {
      throw std::runtime_error(std::string("sqlite commit: ") + sqlite3_errmsg(db_));
    }
    committed_ = true;
  }

 private:
  sqlite3* db_;
  bool committed_ = false;
};

}  // namespace KOEmulatorSQL
