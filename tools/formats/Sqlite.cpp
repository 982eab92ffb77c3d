#include "Sqlite.h"

#include <new>

#include "FormatError.h"

namespace Formats {
namespace {

void Check(sqlite3* database, int result, const std::filesystem::path& path) {
  if (result == SQLITE_OK || result == SQLITE_ROW || result == SQLITE_DONE) return;
  if (result == SQLITE_NOMEM || database == nullptr) throw std::bad_alloc();
  throw FormatError(path, std::string("SQLite answers: ") + sqlite3_errmsg(database));
}

}  // namespace

void SqliteStatement::Check(int result) const {
  Formats::Check(sqlite3_db_handle(m_statement.get()), result, *m_path);
}

void SqliteStatement::Bind(int parameter, std::int64_t number) {
  Check(sqlite3_bind_int64(m_statement.get(), parameter, number));
}

void SqliteStatement::Bind(int parameter, hx::Bytes bytes) {
  Check(
      sqlite3_bind_blob64(m_statement.get(), parameter, bytes.data(), bytes.size(), SQLITE_STATIC));
}

void SqliteStatement::Bind(int parameter, const std::string& text) {
  Check(sqlite3_bind_text64(m_statement.get(), parameter, text.data(), text.size(), SQLITE_STATIC,
                            SQLITE_UTF8));
}

bool SqliteStatement::Step() {
  const int result = sqlite3_step(m_statement.get());
  Check(result);
  return result == SQLITE_ROW;
}

hx::Bytes SqliteStatement::Blob(int column) const {
  const void* const bytes = sqlite3_column_blob(m_statement.get(), column);
  return {bytes, static_cast<std::size_t>(sqlite3_column_bytes(m_statement.get(), column))};
}

std::string SqliteStatement::Text(int column) const {
  const auto* const text = sqlite3_column_text(m_statement.get(), column);
  if (text == nullptr) return "";
  return {reinterpret_cast<const char*>(text),
          static_cast<std::size_t>(sqlite3_column_bytes(m_statement.get(), column))};
}

SqliteDatabase::SqliteDatabase(const std::filesystem::path& file, const std::filesystem::path& name,
                               bool forWriting)
    : m_name(name) {
  sqlite3* database = nullptr;
  const int result = sqlite3_open_v2(
      file.c_str(), &database, forWriting ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY, nullptr);
  m_database.reset(database);
  Check(database, result, name);
  if (forWriting) return;
  constexpr int kPatience = 5000;  // milliseconds, while another program writes
  constexpr int kMostTile = 256 << 20;
  sqlite3_busy_timeout(database, kPatience);
  sqlite3_limit(database, SQLITE_LIMIT_LENGTH, kMostTile);
  sqlite3_db_config(database, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_db_config(database, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
}

void SqliteDatabase::Run(const std::string& sql) {
  Check(m_database.get(), sqlite3_exec(m_database.get(), sql.c_str(), nullptr, nullptr, nullptr),
        m_name);
}

SqliteStatement SqliteDatabase::Prepare(const std::string& sql) const {
  sqlite3_stmt* prepared = nullptr;
  const int result = sqlite3_prepare_v2(m_database.get(), sql.c_str(), -1, &prepared, nullptr);
  SqliteStatement statement;
  statement.m_statement.reset(prepared);
  statement.m_path = &m_name;
  Check(m_database.get(), result, m_name);
  return statement;
}

bool SqliteDatabase::Has(const char* name) const {
  SqliteStatement statement = Prepare(
      "SELECT 1 FROM sqlite_master WHERE type IN ('table', 'view') AND name = ?1 COLLATE NOCASE");
  const std::string text = name;
  statement.Bind(1, text);
  return statement.Step();
}

}  // namespace Formats
