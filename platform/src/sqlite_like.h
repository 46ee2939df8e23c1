#pragma once

#include <sqlite3.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

// Our two-argument LIKE: exact bytes. Keys are arbitrary bytes, so the built-in one is
// wrong for them three ways: it folds ASCII case ("A/" matches "a/"), it decodes UTF-8
// (every invalid sequence becomes U+FFFD, so different keys match alike) and it stops at
// an embedded NUL.
namespace db_wrappers::sqlite::like {

// '%' matches any run of bytes (possibly empty), '_' exactly one byte; no escape.
inline bool Match(std::string_view pattern, std::string_view text) noexcept {
  // Greedy with one back-track point: on a mismatch the last '%' takes one byte more.
  std::size_t p = 0, t = 0;
  std::size_t starP = std::string_view::npos, starT = 0;
  while (t < text.size()) {
    if (p < pattern.size() && pattern[p] == '%') {
      starP = p++;
      starT = t;
    } else if (p < pattern.size() && (pattern[p] == '_' || pattern[p] == text[t])) {
      ++p;
      ++t;
    } else if (starP != std::string_view::npos) {
      p = starP + 1;
      t = ++starT;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '%') ++p;
  return p == pattern.size();
}

// A pattern analysed once per statement: the store's own form, "prefix%" with no other
// wildcard, is a plain prefix compare.
struct Pattern {
  explicit Pattern(std::string_view pattern) {
    auto const head = pattern.substr(0, pattern.empty() ? 0 : pattern.size() - 1);
    prefixForm = !pattern.empty() && pattern.back() == '%' &&
                 head.find_first_of("%_") == std::string_view::npos;
    text.assign(prefixForm ? head : pattern);
  }

  bool Matches(std::string_view candidate) const noexcept {
    if (!prefixForm) return Match(text, candidate);
    return candidate.size() >= text.size() &&
           (text.empty() || std::memcmp(candidate.data(), text.data(), text.size()) == 0);
  }

  bool prefixForm = false;
  std::string text;  // the prefix (prefix form) or the whole pattern
};

// Value bytes with their exact length (sqlite3_value_bytes): embedded NULs count.
// False when SQLite ran out of memory converting the value to text.
inline bool Bytes(sqlite3_value* value, std::string_view& out) noexcept {
  bool const blob = sqlite3_value_type(value) == SQLITE_BLOB;
  // Fetch the data before the length, which then describes that very form.
  void const* data = blob ? sqlite3_value_blob(value) : sqlite3_value_text(value);
  auto const size = static_cast<std::size_t>(sqlite3_value_bytes(value));
  if (data == nullptr) {
    out = {};
    return blob && size == 0;  // a zero-length blob has no data pointer
  }
  out = std::string_view(static_cast<char const*>(data), size);
  return true;
}

// like(pattern, text) as SQLite calls it for "text LIKE pattern". The pattern is the same
// for every row of a statement, so its analysis is kept with the statement (auxdata).
inline void Function(sqlite3_context* context, int, sqlite3_value** argv) noexcept {
  if (sqlite3_value_type(argv[0]) == SQLITE_NULL || sqlite3_value_type(argv[1]) == SQLITE_NULL) {
    sqlite3_result_null(context);
    return;
  }
  std::string_view text;
  if (!Bytes(argv[1], text)) {
    sqlite3_result_error_nomem(context);
    return;
  }
  auto const* pattern = static_cast<Pattern const*>(sqlite3_get_auxdata(context, 0));
  std::unique_ptr<Pattern> analysed;
  if (pattern == nullptr) {
    std::string_view bytes;
    if (!Bytes(argv[0], bytes)) {
      sqlite3_result_error_nomem(context);
      return;
    }
    try {
      analysed = std::make_unique<Pattern>(bytes);
    } catch (...) {
      sqlite3_result_error_nomem(context);
      return;
    }
    pattern = analysed.get();
  }
  sqlite3_result_int(context, pattern->Matches(text) ? 1 : 0);
  // Last: SQLite may destroy the pattern at once when the argument is not constant.
  if (analysed)
    sqlite3_set_auxdata(context, 0, analysed.release(),
                        [](void* kept) { std::unique_ptr<Pattern> owned(static_cast<Pattern*>(kept)); });
}

// Replaces like(X, Y) on `db`; the three-argument (ESCAPE) form stays built in.
inline int Register(sqlite3* db) noexcept {
  return sqlite3_create_function_v2(db, "like", 2,
                                    SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS,
                                    nullptr, &Function, nullptr, nullptr, nullptr);
}

}  // namespace db_wrappers::sqlite::like
