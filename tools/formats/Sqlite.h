#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include <hx/bytes.h>

namespace Formats {

/// The bytes with which every SQLite file begins.
constexpr std::string_view kSqliteMagic{"SQLite format 3\0", 16};

/// A prepared statement. Use: Bind, Step until it answers false, Reset, and again.
class SqliteStatement {
 public:
  /// Bytes and texts must stay as they are until the next Reset.
  void Bind(int parameter, std::int64_t number);
  void Bind(int parameter, hx::Bytes bytes);
  void Bind(int parameter, const std::string& text);
  /// Whether there is a row. Throws FormatError.
  bool Step();
  void Reset() { sqlite3_reset(m_statement.get()); }

  /// @name Columns of the row
  /// Valid until the next step.
  /// @{
  /// One of SQLITE_INTEGER, SQLITE_BLOB and so on, as it is stored.
  int TypeOf(int column) const { return sqlite3_column_type(m_statement.get(), column); }
  std::int64_t Number(int column) const { return sqlite3_column_int64(m_statement.get(), column); }
  hx::Bytes Blob(int column) const;
  /// Also of a number; empty for NULL.
  std::string Text(int column) const;
  /// @}

 private:
  friend class SqliteDatabase;
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };

  void Check(int result) const;

  const std::filesystem::path* m_path = nullptr;  // the database's
  std::unique_ptr<sqlite3_stmt, Finalize> m_statement;
};

/// A database file that is open. What SQLite refuses is thrown as FormatError with its reason.
/// Statements must not outlive it.
class SqliteDatabase {
 public:
  /// `name` stands for the file in what is thrown. For reading, the file is taken as a stranger's:
  /// its views cannot call functions with side effects.
  SqliteDatabase(const std::filesystem::path& file, const std::filesystem::path& name,
                 bool forWriting);
  SqliteDatabase(const SqliteDatabase&) = delete;
  SqliteDatabase& operator=(const SqliteDatabase&) = delete;

  void Run(const std::string& sql);
  SqliteStatement Prepare(const std::string& sql) const;
  /// Whether there is a table or view of this name.
  bool Has(const char* name) const;

 private:
  struct Close {
    void operator()(sqlite3* database) const { sqlite3_close(database); }
  };

  std::filesystem::path m_name;
  std::unique_ptr<sqlite3, Close> m_database;
};

}  // namespace Formats
