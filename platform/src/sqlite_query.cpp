#include <sqlite3.h>

#include <limits>
#include <type_traits>
#include <utility>

#include "db_wrappers/sqlite/database.h"
#include "sqlite_failure.h"
#include "sqlite_space.h"

namespace db_wrappers::sqlite {
namespace {

// A failure's code, with its reason remembered for TakeFailureReason.
int Failure(sqlite3* connection, int rc) noexcept {
  failure::Record(connection, rc);
  return MakeError(rc);
}

int BindValue(sqlite3_stmt* st, int position, DbValue const& value) noexcept {
  return std::visit(
      [st, position](auto const& v) noexcept {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, fdn::types::NullType>) {
          return sqlite3_bind_null(st, position);
        } else if constexpr (std::is_same_v<T, double>) {
          return sqlite3_bind_double(st, position, v);
        } else if constexpr (std::is_same_v<T, std::string>) {
          return sqlite3_bind_text64(st, position, v.data(), v.size(), SQLITE_TRANSIENT,
                                     SQLITE_UTF8);
        } else if constexpr (std::is_same_v<T, tern::rtl::Timestamp>) {
          return sqlite3_bind_int64(st, position, v.Microseconds());
        } else if constexpr (std::is_same_v<T, std::vector<std::uint8_t>>) {
          // An empty vector has no data pointer, and bind_blob of a null pointer binds NULL.
          if (v.empty()) return sqlite3_bind_zeroblob(st, position, 0);
          return sqlite3_bind_blob64(st, position, v.data(), v.size(), SQLITE_TRANSIENT);
        } else {
          return sqlite3_bind_int64(st, position, static_cast<sqlite3_int64>(v));  // ints, bool
        }
      },
      value);
}

template <typename T>
bool Fits(sqlite3_int64 v) noexcept {
  return v >= std::numeric_limits<T>::min() && v <= std::numeric_limits<T>::max();
}

// An integer column as the asked alternative. A value the alternative cannot hold comes
// back as int64, so that the caller's std::get fails instead of reading a wrapped number.
DbValue Integer(sqlite3_int64 v, int alternative) noexcept {
  switch (alternative) {
    case alt::kInt8: if (Fits<std::int8_t>(v)) return static_cast<std::int8_t>(v); break;
    case alt::kInt16: if (Fits<std::int16_t>(v)) return static_cast<std::int16_t>(v); break;
    case alt::kInt32: if (Fits<std::int32_t>(v)) return static_cast<std::int32_t>(v); break;
    case alt::kBool: if (v == 0 || v == 1) return v == 1; break;
    case alt::kTimestamp: return tern::rtl::Timestamp(v);
    default: break;
  }
  return static_cast<std::int64_t>(v);
}

}  // namespace

Query::Query(std::unique_ptr<IDatabase> const& db) noexcept
    : connection_(db ? db->Handle() : nullptr) {
  failure::Clear();
}

Query::Query(Query&& other) noexcept
    : connection_(std::exchange(other.connection_, nullptr)),
      statement_(std::exchange(other.statement_, nullptr)),
      owned_(std::exchange(other.owned_, true)) {}

Query& Query::operator=(Query&& other) noexcept {
  if (this != &other) {
    Release();
    connection_ = std::exchange(other.connection_, nullptr);
    statement_ = std::exchange(other.statement_, nullptr);
    owned_ = std::exchange(other.owned_, true);
  }
  return *this;
}

Query::~Query() { Release(); }

void Query::Release() noexcept {
  if (owned_) sqlite3_finalize(statement_);
  statement_ = nullptr;
  owned_ = true;
}

int Query::Prepare(std::string_view sql) {
  Release();
  if (connection_ == nullptr || sql.empty()) return MakeError(SQLITE_MISUSE);
  if (sql.size() > static_cast<std::size_t>(std::numeric_limits<int>::max()))
    return MakeError(SQLITE_TOOBIG);
  int const rc = sqlite3_prepare_v2(connection_, sql.data(), static_cast<int>(sql.size()),
                                    &statement_, nullptr);
  if (rc != SQLITE_OK) return Failure(connection_, rc);  // the statement is left null
  // Only blanks or comments: nothing to run, and every later call would misbehave.
  return statement_ != nullptr ? 0 : MakeError(SQLITE_MISUSE);
}

int Query::Bind(int position, DbValue const& value) {
  if (statement_ == nullptr) return MakeError(SQLITE_MISUSE);
  int const rc = BindValue(statement_, position, value);
  return rc == SQLITE_OK ? 0 : Failure(connection_, rc);
}

int Query::Next() {
  if (statement_ == nullptr) return MakeError(SQLITE_MISUSE);
  // A change that is a transaction of its own and found the disk full is rolled back
  // whole: it may run again once the log's room is given back.
  bool const ownTransaction =
      sqlite3_get_autocommit(connection_) != 0 && sqlite3_stmt_readonly(statement_) == 0;
  int rc = sqlite3_step(statement_);
  if (ownTransaction && space::IsFull(rc)) {
    sqlite3_reset(statement_);
    if (space::ReclaimLog(connection_)) rc = sqlite3_step(statement_);
  }
  if (rc == SQLITE_ROW) return kRowReady;
  if (rc == SQLITE_DONE) return kDone;
  return Failure(connection_, rc);
}

DbValue Query::Value(int column, int alternative) const {
  if (statement_ == nullptr) return fdn::types::NullType{};
  switch (sqlite3_column_type(statement_, column)) {
    case SQLITE_INTEGER:
      return Integer(sqlite3_column_int64(statement_, column), alternative);
    case SQLITE_FLOAT:
      return sqlite3_column_double(statement_, column);
    case SQLITE_TEXT: {
      // Data before length, so that the length is that of the text form.
      auto const* text = reinterpret_cast<char const*>(sqlite3_column_text(statement_, column));
      auto const size = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
      return text ? std::string(text, size) : std::string();
    }
    case SQLITE_BLOB: {
      auto const* data = static_cast<std::uint8_t const*>(sqlite3_column_blob(statement_, column));
      auto const size = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
      // A zero-length blob has no data pointer.
      return data ? std::vector<std::uint8_t>(data, data + size) : std::vector<std::uint8_t>();
    }
    default:
      return fdn::types::NullType{};
  }
}

int Query::GetChangesCount() const noexcept {
  return connection_ ? sqlite3_changes(connection_) : 0;
}

int Query::Flush() noexcept {
  if (statement_ == nullptr) return MakeError(SQLITE_MISUSE);
  int const rc = sqlite3_reset(statement_);
  return rc == SQLITE_OK ? 0 : Failure(connection_, rc);
}

int Query::ClearBindings() noexcept {
  if (statement_ == nullptr) return MakeError(SQLITE_MISUSE);
  int const rc = sqlite3_clear_bindings(statement_);
  return rc == SQLITE_OK ? 0 : Failure(connection_, rc);
}

}  // namespace db_wrappers::sqlite
