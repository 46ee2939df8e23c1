#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

#include "database_fixture.h"
#include "support/sqlite_file.h"

namespace platform_test {
namespace {

using db_wrappers::sqlite::alt::kInt64;
using fdn::types::NullType;
using namespace std::string_literals;

using Keys = std::vector<std::string>;

// Keys that a byte-exact LIKE must keep apart and the built-in one does not.
Keys const kKeys = {
    "A/b/", "a/b/", "a/b/c/", "a/bc/",    // case, and a sibling sharing the prefix bytes
    "x\0y/"s, "x\0z/"s, "x/",             // embedded NULs
    "\xC0\x80/", "\xC1\x81/",             // invalid UTF-8, both U+FFFD when decoded
};

// Every path left in `t`, in byte order, read by a connection of its own.
Keys PathsOnFile(std::string const& path) {
  test_support::SqliteFile file(path);
  sqlite3_stmt* raw = nullptr;
  EXPECT_EQ(sqlite3_prepare_v2(file.Handle(), "SELECT path FROM t ORDER BY path", -1, &raw, nullptr),
            SQLITE_OK);
  std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> statement(raw, &sqlite3_finalize);
  Keys out;
  while (sqlite3_step(raw) == SQLITE_ROW) {
    auto const* text = reinterpret_cast<char const*>(sqlite3_column_text(raw, 0));
    out.emplace_back(text, static_cast<std::size_t>(sqlite3_column_bytes(raw, 0)));
  }
  return out;
}

struct PrefixCase {
  char const* name;
  std::string prefix;
  Keys deleted;
};

void PrintTo(PrefixCase const& c, std::ostream* os) { *os << c.name; }

class LikePrefixDelete : public DatabaseTest, public ::testing::WithParamInterface<PrefixCase> {
 protected:
  void SetUp() override {
    DatabaseTest::SetUp();
    Exec("CREATE TABLE t(path TEXT PRIMARY KEY)");
    for (auto const& key : kKeys) Exec("INSERT INTO t VALUES (?)", {key});
  }
};

// The store deletes a subtree this way.
TEST_P(LikePrefixDelete, RemovesKeysStartingWithThePrefixBytes) {
  Query query(db_);
  PrepareBound(db_, query, "DELETE FROM t WHERE path LIKE $p || '%'", {GetParam().prefix});
  ASSERT_EQ(query.Next(), db_wrappers::sqlite::kDone) << db_->LastError();
  EXPECT_EQ(query.GetChangesCount(), static_cast<int>(GetParam().deleted.size()));

  Keys kept;
  for (auto const& key : kKeys)
    if (std::find(GetParam().deleted.begin(), GetParam().deleted.end(), key) ==
        GetParam().deleted.end())
      kept.push_back(key);
  EXPECT_THAT(PathsOnFile(path_), ::testing::UnorderedElementsAreArray(kept));
}

INSTANTIATE_TEST_SUITE_P(
    Keys, LikePrefixDelete,
    ::testing::Values(PrefixCase{"Subtree", "a/b/", {"a/b/", "a/b/c/"}},
                      PrefixCase{"CaseSensitive", "A/b/", {"A/b/"}},
                      PrefixCase{"InvalidUtf8", "\xC0\x80/", {"\xC0\x80/"}},
                      PrefixCase{"EmbeddedNul", "x\0y/"s, {"x\0y/"s}},
                      PrefixCase{"BeforeNul", "x", {"x\0y/"s, "x\0z/"s, "x/"}},
                      PrefixCase{"EmptyPrefixMatchesAll", "", kKeys}),
    [](auto const& tested) { return std::string(tested.param.name); });

struct MatchCase {
  std::string pattern;
  std::string text;
  std::int64_t matches;
};

using LikeMatch = DatabaseTest;

TEST_F(LikeMatch, WildcardsCountBytesAndCaseMatters) {
  std::vector<MatchCase> const cases = {
      {"abc", "abc", 1},      {"abc", "abC", 0},        {"a", "A", 0},
      {"", "", 1},            {"", "a", 0},             {"%", "", 1},
      {"_", "", 0},           {"a_c", "abc", 1},        {"a_c", "ac", 0},
      {"a_c", "a\xff" "c", 1}, {"a_c", "a\xC3\xA9" "c", 0},  // '_' is one byte, not a letter
      {"a__c", "a\xC3\xA9" "c", 1},
      {"a%c", "ac", 1},       {"a%c", "abbbc", 1},      {"a%c", "abcd", 0},
      {"%a", "ba", 1},        {"%b%", "abc", 1},        {"a%%b", "ab", 1},
      {"a%b%c", "aXbYc", 1},  {"a%b%c", "aXcYb", 0},    {"%ab", "aab", 1},
      {"a%", "b", 0},         {"abc%", "ab", 0},        {"a_/%", "ab/cd", 1},
      {"a\0%"s, "a\0b"s, 1},  {"a\0%"s, "a\1b"s, 0},    {"a%"s, "a\0"s, 1},
      {"a"s, "a\0"s, 0},      {"a_%", "ab", 1},         {"a_%%", "ab", 1},
      {"%_%", "", 0},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.pattern) + " LIKE " + ::testing::PrintToString(c.text));
    EXPECT_EQ(Scalar("SELECT ?2 LIKE ?1", kInt64, {c.pattern, c.text}), DbValue(c.matches));
  }
}

TEST_F(LikeMatch, NullOperandGivesNull) {
  EXPECT_EQ(Scalar("SELECT NULL LIKE 'a'", kInt64), DbValue(NullType{}));
  EXPECT_EQ(Scalar("SELECT 'a' LIKE NULL", kInt64), DbValue(NullType{}));
}

TEST_F(LikeMatch, BlobOperandsCompareAsBytes) {
  EXPECT_EQ(Scalar("SELECT x'00ff01' LIKE x'00ff25'", kInt64), DbValue(std::int64_t{1}));
  EXPECT_EQ(Scalar("SELECT x'' LIKE ''", kInt64), DbValue(std::int64_t{1}));
}

TEST_F(LikeMatch, EscapeFormStaysBuiltIn) {
  EXPECT_EQ(Scalar("SELECT 'A%' LIKE 'a%'", kInt64), DbValue(std::int64_t{0}));
  // The built-in three-argument form still folds ASCII case.
  EXPECT_EQ(Scalar("SELECT 'A%' LIKE 'a!%' ESCAPE '!'", kInt64), DbValue(std::int64_t{1}));
  EXPECT_EQ(Scalar("SELECT 'Ab' LIKE 'a!%' ESCAPE '!'", kInt64), DbValue(std::int64_t{0}));
}

}  // namespace
}  // namespace platform_test
