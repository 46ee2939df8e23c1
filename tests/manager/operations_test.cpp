// The client operations on a manager with a database file: each call's result, its log
// records, the tree afterwards, and the file, which must agree with the tree after a change
// and be untouched after a refusal.

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <thread>
#include <utility>

#include "support/manager_fixture.h"

namespace test_support {
namespace {

constexpr int kFound = Code(0x8000004Du), kNotFound = Code(0x8000004Cu), kMedia = Code(0x80000059u);
constexpr int kNotMatched = Code(0x8000004Au), kProhibited = Code(0x80000066u);
constexpr int kInvalid = Code(0x8000006Au), kCorrupted = Code(0x80000069u);

enum Op { kCreate, kGet, kGetAttribute, kSetValue, kSetSetting, kSetAttribute, kDelete };
char const* const kNames[] = {"CreateSetting", "GetSetting",   "GetAttribute", "SetValue",
                              "SetSetting",    "SetAttribute", "DeleteSetting"};

class Operations : public ManagerTest {
 protected:
  // One call with `arg` as the setting, value or attributes it takes; a read starts from
  // `arg` and must leave it alone on failure and overwrite it whole on success.
  int Call(Op op, uvc::Path const& path, Setting const& arg) {
    if (op == kCreate) return creator->CreateSetting(path, arg);
    if (op == kSetValue) return valueSetter->SetValue(path, arg.value());
    if (op == kSetSetting) return setter->SetSetting(path, arg);
    if (op == kSetAttribute) return setter->SetAttribute(path, arg.attributes);
    if (op == kDelete) return deleter->DeleteSetting(path);
    Setting out = arg;
    int const rc =
        op == kGet ? getter->GetSetting(path, out) : getter->GetAttribute(path, out.attributes);
    auto const expected = rc == 0 ? Get(Text(path)) : arg;
    EXPECT_TRUE(op == kGet ? out == expected : out.attributes == expected.attributes);
    return rc;
  }
};

// The file refuses every INSERT, or every DELETE, on its data.
auto const ins = "CREATE TRIGGER t BEFORE INSERT ON data BEGIN SELECT RAISE(ABORT, 'no'); END";
auto const del = "CREATE TRIGGER t BEFORE DELETE ON data BEGIN SELECT RAISE(ABORT, 'no'); END";

struct Case {
  Op op;
  char const* path;
  Setting arg;
  int rc;
  std::vector<std::string> log;    // "@" stands for "<operation>(<path>/)"
  std::string prepare = "";        // SQL run on the file before the call
  char const* key = "";            // "": the tree and the file stay as they were
  std::optional<Setting> after{};  // what `key` holds afterwards; none: it is not found
};

TEST_F(Operations, ResultsLogRecordsTreeAndFile) {
  // clang-format off
  auto const x = Int(1, true), y = MapOf({{"z", Int(2)}});
  // Every case starts from this tree on a fresh file.
  auto const base = MapOf({{"a", Int(5)}, {"d", Setting(0.0)}, {"l", ListOf({Int(0), Int(1), Setting()})},
      {"n", Setting()}, {"p", MapOf({{"x", x}, {"y", y}})}, {"r", Int(5, true)}});
  Case const cases[] = {
      // CreateSetting: an identical setting is there (1), a different one (Found).
      {kCreate, "a", Int(5), 1, {}}, {kCreate, "a", Int(5, true), kFound, {}},
      // An index past the end fills the gap; missing levels fit the next id (a list here).
      {kCreate, "l/5", Int(4, true), 0, {"D @"}, "", "l",
       ListOf({Int(0), Int(1), Setting(), Setting(), Setting(), Int(4, true)})},
      {kCreate, "q/1/k", Int(7), 0, {"D @"}, "", "q", ListOf({Setting(), MapOf({{"k", Int(7)}})})},
      {kCreate, "a/x", Int(2), kNotMatched, {"W @: Not matched = 0x8000004a"}},
      {kCreate, "b", Valueless(), kInvalid, {"W @: Invalid state = 0x8000006a"}},
      {kGet, "p", ListOf({Int(9)}), 0, {}},
      {kGet, "p/q", Int(9), kNotFound, {"W @: Not found = 0x8000004c"}},
      {kGetAttribute, "p/x", Int(0), 0, {}},
      // SetValue: equal is 1 even when read-only; a read-only node anywhere below guards.
      {kSetValue, "r", Int(5), 1, {}}, {kSetValue, "p", MapOf({}), kProhibited, {}},
      {kSetValue, "p/y/z", Int(3), 0, {"T @"}, "", "p",
       MapOf({{"x", x}, {"y", MapOf({{"z", Int(3)}})}})},
      {kSetValue, "d", Setting(-0.0), 0, {"T @"}, "", "d", Setting(-0.0)},  // bits, not ==
      {kSetValue, "a", Str("5"), 0,
       {"E ### SetValue(a/): old/new value type mismatch: 6/10", "T @"}, "", "a", Str("5")},
      // SetSetting replaces read-only nodes too; equal value, other attributes: a change.
      {kSetSetting, "r", Int(5, true), 1, {}},
      {kSetSetting, "r", Str("x"), 0, {"E ### SetSetting(r/): old/new setting type mismatch: 6/10",
       "T @"}, "", "r", Str("x")},
      {kSetSetting, "a", Int(5, true), 0, {"T @"}, "", "a", Int(5, true)},
      // SetAttribute changes the node alone, with no read-only check; its row must be there.
      {kSetAttribute, "p", Int(0), 1, {}},
      {kSetAttribute, "p", Int(0, true), 0, {"T @ = true"}, "", "p",
       MapOf({{"x", x}, {"y", y}}, true)},
      {kSetAttribute, "p/y/z", Int(0, true), kCorrupted, {"W @: Bases corrupted = 0x80000069"},
       "DELETE FROM data WHERE path = 'p/y/z/'"},
      // DeleteSetting: 1 when the parent is there and the name is not.
      {kDelete, "p/y", {}, 0, {"D @"}, "", "p", MapOf({{"x", x}})},
      {kDelete, "p/q", {}, 1, {"D @"}}, {kDelete, "p/q/z", {}, kNotMatched, {}},
      {kDelete, "l/1", {}, kProhibited, {"W @: Prohibited = 0x80000066"}},
      // Tree and file disagree: the removal stands, or the stray row goes; the call fails.
      {kDelete, "a", {}, kCorrupted, {"W @: Bases corrupted = 0x80000069"},
       "DELETE FROM data WHERE path = 'a/'", "a"},
      {kDelete, "z", {}, kCorrupted, {"W @: Bases corrupted = 0x80000069"},
       "INSERT INTO data SELECT 'z/', value, attrib FROM data WHERE path = 'a/'", "z"},
      // The file refuses the write: the tree is rolled back, at any depth...
      {kSetValue, "a", Int(2), kMedia, {"W @: Media error = 0x80000059"}, ins},
      {kDelete, "p", {}, kMedia, {"W @: Media error = 0x80000059"}, del},
      // ... except list elements made by index: they stay, blanked, so positions keep meaning.
      {kCreate, "l/4/k", Int(5), kMedia, {"W @: Media error = 0x80000059"}, ins, "l",
       ListOf({Int(0), Int(1), Setting(), Setting(), Setting()})},
  };
  // clang-format on
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    auto const& c = cases[i];
    SCOPED_TRACE(std::string(kNames[c.op]) + " " + c.path + ", case " + std::to_string(i));
    Open(dir.File(std::to_string(i) + ".db"));
    ASSERT_EQ(settings_manager::ReplaceTree(*manager, base), 0);
    if (!c.prepare.empty()) Sql(c.prepare);
    auto const tree = Tree();
    auto const rows = Rows();
    log.Clear();
    EXPECT_RC(Call(c.op, P(c.path), c.arg), c.rc);
    auto logged = c.log;
    for (auto& text : logged)
      if (auto at = text.find('@'); at != std::string::npos)
        text.replace(at, 1, std::string(kNames[c.op]) + "(" + c.path + "/)");
    ExpectLog(logged);
    auto expected = tree;
    auto& top = std::get<uvc::index::kMap>(expected);
    if (*c.key != '\0') top.erase(c.key);
    if (c.after) top.emplace(c.key, *c.after);
    EXPECT_EQ(Tree(), expected);
    // Refused: the file is untouched whatever the tree keeps.
    bool const untouched = *c.key == '\0' || (c.rc != 0 && c.rc != kCorrupted);
    EXPECT_TRUE(untouched ? Rows() == rows : Rows().size() == CountNodes(expected));
    if (c.rc != 0 || *c.key == '\0') continue;
    Reopen();
    EXPECT_EQ(Tree(), expected);
  }
}

TEST_F(Operations, InvalidPathsAreRefusedByEveryOperation) {
  for (auto const& path :
       std::vector<uvc::Path>{{}, {I(0), K("a")}, {K("a b")}, {K("a"), I(65536)}})
    for (auto op : {kCreate, kGet, kGetAttribute, kSetValue, kSetSetting, kSetAttribute, kDelete}) {
      log.Clear();
      EXPECT_RC(Call(op, path, Int(1, true)), 0x80000046u);
      ExpectLog(
          {"W " + std::string(kNames[op]) + "(" + Text(path) + "): Invalid argument = 0x80000046"});
    }
}

// Client threads: every call answers as if alone, no reader sees a counter go back, and the
// file ends equal to the tree.
TEST_F(Operations, ReadersAndWritersOnThreadsKeepTreeAndFileEqual) {
  constexpr int kWriters = 4;
  constexpr std::uint64_t kRounds = 60;
  auto const counter = [](int w) { return P("w" + std::to_string(w) + "/counter"); };
  for (int w = 0; w < kWriters; ++w)
    ASSERT_EQ(creator->CreateSetting(counter(w), Setting(std::uint64_t{0})), 0);
  std::atomic<int> unexpected{0}, writing{kWriters};
  auto check = [&](int rc, int a, int b) { unexpected += rc != a && rc != b; };
  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; ++w) {
    threads.emplace_back([&, w, base = "w" + std::to_string(w) + "/k"] {
      for (std::uint64_t r = 1; r <= kRounds; ++r) {
        auto const item = P(base + std::to_string(r % 5));
        check(r % 2 ? valueSetter->SetValue(counter(w), r)
                    : setter->SetSetting(counter(w), Setting(r)),
              0, 0);
        check(creator->CreateSetting(item, MapOf({{"v", Int(int(r))}})), 0, Code(0x8000004Du));
        check(setter->SetAttribute(item, Attributes{r % 2 == 0}), 0, 1);
        if (r % 3 == 0) check(deleter->DeleteSetting(P(base + std::to_string((r + 2) % 5))), 0, 1);
      }
      --writing;
    });
  }
  std::vector<std::uint64_t> last(kWriters, 0);  // a counter has one writer: it never goes back
  for (Setting value; writing > 0;)
    for (int w = 0; w < kWriters; ++w) {
      check(getter->GetSetting(counter(w), value), 0, 0);
      unexpected +=
          std::get<std::uint64_t>(value) < std::exchange(last[w], std::get<std::uint64_t>(value));
    }
  for (auto& t : threads) t.join();
  EXPECT_EQ(unexpected, 0);
  for (int w = 0; w < kWriters; ++w) EXPECT_EQ(Get(Text(counter(w))), Setting(kRounds));
  auto const tree = Tree();
  Reopen();
  EXPECT_EQ(Tree(), tree);
  EXPECT_EQ(Rows().size(), CountNodes(tree));
}

}  // namespace
}  // namespace test_support
