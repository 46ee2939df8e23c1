// The client operations on a manager with a database file: each call's result, its log
// records, the tree afterwards, and the file, which must agree with the tree after a change
// and be untouched after a refusal.

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <limits>
#include <optional>

#include "support/manager_fixture.h"

namespace test_support {
namespace {

constexpr int kCorrupted = Code(0x80000069u);

class Operations : public ManagerTest {};

// Every case starts from this tree on a fresh file.
Setting const kBase = MapOf({{"a", Int(5)},
                             {"l", ListOf({Int(0), Int(1)})},
                             {"n", Setting()},
                             {"p", MapOf({{"x", Int(1, true)}, {"y", MapOf({{"z", Int(2)}})}})},
                             {"r", Int(5, true)}});

struct Case {
  std::function<void()> prepare;  // done before the tree and file are taken as "before"
  std::function<int()> call;
  int rc;
  std::vector<std::string> log;
  char const* key = "";            // "": the tree and the file stay as they were
  std::optional<Setting> after{};  // what `key` holds afterwards; none: it is not found
};

TEST_F(Operations, ResultsLogRecordsTreeAndFile) {
  auto refuse = [this](std::string what) {
    return [this, what] {
      Sql("CREATE TRIGGER refuse BEFORE " + what + " ON data BEGIN SELECT RAISE(ABORT, 'no'); END");
    };
  };
  auto const media = [](std::string const& call) {
    return "W " + call + ": Media error = 0x80000059";
  };
  auto const x1 = Int(1, true);
  Case const cases[] = {
      // CreateSetting: an identical setting is there (1), a different one (Found).
      {nullptr, [&] { return creator->CreateSetting(P("a"), Int(5)); }, 1, {}},
      {nullptr, [&] { return creator->CreateSetting(P("a"), Int(6)); }, Code(0x8000004Du), {}},
      {nullptr,
       [&] { return creator->CreateSetting(P("a"), Int(5, true)); },
       Code(0x8000004Du),
       {}},
      {nullptr,
       [&] { return creator->CreateSetting(P("a"), Setting(std::int64_t{5})); },
       Code(0x8000004Du),
       {}},
      {nullptr,
       [&] { return creator->CreateSetting(P("c/b/c"), Str("deep")); },
       0,
       {"D CreateSetting(c/b/c/)"},
       "c",
       MapOf({{"b", MapOf({{"c", Str("deep")}})}})},
      {nullptr,
       [&] { return creator->CreateSetting(P("l/2"), Int(2)); },
       0,
       {"D CreateSetting(l/2/)"},
       "l",
       ListOf({Int(0), Int(1), Int(2)})},
      // An index past the end fills the gap with None; a None there later is Found.
      {nullptr,
       [&] { return creator->CreateSetting(P("l/4"), Int(4, true)); },
       0,
       {"D CreateSetting(l/4/)"},
       "l",
       ListOf({Int(0), Int(1), Setting(), Setting(), Int(4, true)})},
      {[&] { creator->CreateSetting(P("l/3"), Int(3)); },
       [&] { return creator->CreateSetting(P("l/2"), Int(9)); },
       Code(0x8000004Du),
       {}},
      // Missing levels are built to fit the next id: a list before an index.
      {nullptr,
       [&] { return creator->CreateSetting(P("q/1/k"), Int(7)); },
       0,
       {"D CreateSetting(q/1/k/)"},
       "q",
       ListOf({Setting(), MapOf({{"k", Int(7)}})})},
      {nullptr,
       [&] { return creator->CreateSetting(P("a/x"), Int(2)); },
       Code(0x8000004Au),
       {"W CreateSetting(a/x/): Not matched = 0x8000004a"}},
      {nullptr,
       [&] { return creator->CreateSetting(P("p/0"), Int(2)); },
       Code(0x8000004Au),
       {"W CreateSetting(p/0/): Not matched = 0x8000004a"}},
      {nullptr,
       [&] { return creator->CreateSetting(P("b"), Valueless()); },
       Code(0x8000006Au),
       {"W CreateSetting(b/): Invalid state = 0x8000006a"}},
      // Reads copy the whole subtree over the caller's value; a failed read leaves it.
      {nullptr,
       [&] {
         Setting out = ListOf({Int(9)});
         int const rc = getter->GetSetting(P("p"), out);
         EXPECT_EQ(out, std::get<uvc::index::kMap>(kBase).at("p"));
         return rc;
       },
       0,
       {}},
      {nullptr,
       [&] {
         Attributes attributes{false};
         int const rc = getter->GetAttribute(P("p/x"), attributes);
         EXPECT_TRUE(attributes.readOnly);
         return rc;
       },
       0,
       {}},
      {nullptr,
       [&] {
         Setting out = Int(9);
         int const rc = getter->GetSetting(P("p/q"), out);
         EXPECT_EQ(out, Int(9));
         return rc;
       },
       Code(0x8000004Cu),
       {"W GetSetting(p/q/): Not found = 0x8000004c"}},
      {nullptr,
       [&] {
         Attributes attributes{true};
         int const rc = getter->GetAttribute(P("p/x/0"), attributes);
         EXPECT_TRUE(attributes.readOnly);
         return rc;
       },
       Code(0x8000004Au),
       {"W GetAttribute(p/x/0/): Not matched = 0x8000004a"}},
      // SetValue: equal is 1 even on a read-only node; any read-only node below guards.
      {nullptr, [&] { return valueSetter->SetValue(P("r"), std::int32_t{5}); }, 1, {}},
      {nullptr,
       [&] { return valueSetter->SetValue(P("r"), std::int32_t{6}); },
       Code(0x80000066u),
       {}},
      {nullptr, [&] { return valueSetter->SetValue(P("p"), MapOf({})); }, Code(0x80000066u), {}},
      {nullptr,
       [&] { return valueSetter->SetValue(P("p/y/z"), std::int32_t{3}); },
       0,
       {"T SetValue(p/y/z/)"},
       "p",
       MapOf({{"x", x1}, {"y", MapOf({{"z", Int(3)}})}})},
      {[&] { setter->SetAttribute(P("p/x"), Attributes{false}); },
       [&] {
         return valueSetter->SetValue(P("p"), MapOf({{"n", Int(4)}}));
       },
       0,
       {"T SetValue(p/)"},
       "p",
       MapOf({{"n", Int(4)}})},
      {nullptr,
       [&] { return valueSetter->SetValue(P("a"), std::string("five")); },
       0,
       {"E ### SetValue(a/): old/new value type mismatch: 6/10", "T SetValue(a/)"},
       "a",
       Str("five")},
      {nullptr,
       [&] { return valueSetter->SetValue(P("n"), std::uint64_t{7}); },
       0,
       {"T SetValue(n/)"},
       "n",
       Setting(std::uint64_t{7})},
      {nullptr,
       [&] { return valueSetter->SetValue(P("q"), std::int32_t{1}); },
       Code(0x8000004Cu),
       {"W SetValue(q/): Not found = 0x8000004c"}},
      {nullptr,
       [&] { return valueSetter->SetValue(P("a"), Valueless().value()); },
       Code(0x8000006Au),
       {"W SetValue(a/): Invalid state = 0x8000006a"}},
      // SetSetting replaces read-only nodes too; equal value, other attributes: a change.
      {nullptr, [&] { return setter->SetSetting(P("r"), Int(5, true)); }, 1, {}},
      {nullptr,
       [&] { return setter->SetSetting(P("r"), Str("x")); },
       0,
       {"E ### SetSetting(r/): old/new setting type mismatch: 6/10", "T SetSetting(r/)"},
       "r",
       Str("x")},
      {nullptr,
       [&] { return setter->SetSetting(P("a"), Int(5, true)); },
       0,
       {"T SetSetting(a/)"},
       "a",
       Int(5, true)},
      {nullptr,
       [&] { return setter->SetSetting(P("z"), Int(1)); },
       Code(0x8000004Cu),
       {"W SetSetting(z/): Not found = 0x8000004c"}},
      {nullptr,
       [&] { return setter->SetSetting(P("a"), Valueless()); },
       Code(0x8000006Au),
       {"W SetSetting(a/): Invalid state = 0x8000006a"}},
      // SetAttribute changes the node alone, with no read-only check; its row must be there.
      {nullptr, [&] { return setter->SetAttribute(P("p"), Attributes{false}); }, 1, {}},
      {nullptr,
       [&] { return setter->SetAttribute(P("p"), Attributes{true}); },
       0,
       {"T SetAttribute(p/) = true"},
       "p",
       ReadOnly(std::get<uvc::index::kMap>(kBase).at("p"))},
      {nullptr,
       [&] { return setter->SetAttribute(P("p/x"), Attributes{false}); },
       0,
       {"T SetAttribute(p/x/) = false"},
       "p",
       MapOf({{"x", Int(1)}, {"y", MapOf({{"z", Int(2)}})}})},
      {[&] { Sql("DELETE FROM data WHERE path = 'p/y/z/'"); },
       [&] { return setter->SetAttribute(P("p/y/z"), Attributes{true}); },
       kCorrupted,
       {"W SetAttribute(p/y/z/): Bases corrupted = 0x80000069"}},
      // DeleteSetting: 1 when the parent is there and the name is not.
      {nullptr,
       [&] { return deleter->DeleteSetting(P("p/y")); },
       0,
       {"D DeleteSetting(p/y/)"},
       "p",
       MapOf({{"x", x1}})},
      {nullptr, [&] { return deleter->DeleteSetting(P("p/q")); }, 1, {"D DeleteSetting(p/q/)"}},
      {nullptr, [&] { return deleter->DeleteSetting(P("p/q/z")); }, Code(0x8000004Au), {}},
      {nullptr,
       [&] { return deleter->DeleteSetting(P("l/1")); },
       Code(0x80000066u),
       {"W DeleteSetting(l/1/): Prohibited = 0x80000066"}},
      // Tree and file disagree: the removal stands, or the stray row goes; the call fails.
      {[&] { Sql("DELETE FROM data WHERE path = 'a/'"); },
       [&] { return deleter->DeleteSetting(P("a")); },
       kCorrupted,
       {"W DeleteSetting(a/): Bases corrupted = 0x80000069"},
       "a",
       std::nullopt},
      {[&] {
         SqliteFile(dbPath).InsertRow({"z/", Int32Record(3), AttribRecord(false)});
       },
       [&] { return deleter->DeleteSetting(P("z")); },
       kCorrupted,
       {"W DeleteSetting(z/): Bases corrupted = 0x80000069"},
       "z",
       std::nullopt},
      // The file refuses the write: the tree is rolled back, at any depth.
      {refuse("INSERT"),
       [&] { return valueSetter->SetValue(P("a"), std::int32_t{2}); },
       Code(0x80000059u),
       {media("SetValue(a/)")}},
      {refuse("INSERT"),
       [&] { return setter->SetSetting(P("a"), Int(7, true)); },
       Code(0x80000059u),
       {media("SetSetting(a/)")}},
      {refuse("INSERT"),
       [&] { return creator->CreateSetting(P("p/q/w"), Int(3)); },
       Code(0x80000059u),
       {media("CreateSetting(p/q/w/)")}},
      {refuse("INSERT"),
       [&] { return creator->CreateSetting(P("c/x"), Int(3)); },
       Code(0x80000059u),
       {media("CreateSetting(c/x/)")}},
      // ... except list elements made by index: they stay, blanked, so positions keep meaning.
      {refuse("INSERT"),
       [&] { return creator->CreateSetting(P("l/2"), Int(5, true)); },
       Code(0x80000059u),
       {media("CreateSetting(l/2/)")},
       "l",
       ListOf({Int(0), Int(1), Setting()})},
      {refuse("INSERT"),
       [&] { return creator->CreateSetting(P("l/3/k"), Int(5)); },
       Code(0x80000059u),
       {media("CreateSetting(l/3/k/)")},
       "l",
       ListOf({Int(0), Int(1), Setting(), Setting()})},
      {refuse("UPDATE"),
       [&] { return setter->SetAttribute(P("a"), Attributes{true}); },
       Code(0x80000059u),
       {media("SetAttribute(a/)")}},
      {refuse("DELETE"),
       [&] { return deleter->DeleteSetting(P("p")); },
       Code(0x80000059u),
       {media("DeleteSetting(p/)")}},
      {refuse("DELETE"),
       [&] { return valueSetter->SetValue(P("a"), std::int32_t{2}); },
       Code(0x80000059u),
       {media("SetValue(a/)")}},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    auto const& c = cases[i];
    SCOPED_TRACE("case " + std::to_string(i));
    Open(dir.File(std::to_string(i) + ".db"));
    ASSERT_EQ(settings_manager::ReplaceTree(*manager, kBase), 0);
    if (c.prepare) c.prepare();
    auto const tree = Tree();
    auto const rows = Rows();
    log.Clear();
    EXPECT_RC(c.call(), c.rc);
    ExpectLog(c.log);
    if (*c.key == '\0') {
      EXPECT_EQ(Tree(), tree);
      EXPECT_EQ(Rows(), rows);
      continue;
    }
    if (c.after)
      EXPECT_EQ(Get(c.key), *c.after);
    else
      EXPECT_RC(GetCode(c.key), 0x8000004Cu);
    if (c.rc != 0 && c.rc != kCorrupted) {
      EXPECT_EQ(Rows(), rows);
      continue;
    }
    auto const now = Tree();
    EXPECT_EQ(Rows().size(), CountNodes(now));
    if (c.rc != 0) continue;
    Reopen();
    EXPECT_EQ(Tree(), now);
  }
}

TEST_F(Operations, CreateBelowAnExistingNodeRewritesThatNodesWholeSubtreeAlone) {
  ASSERT_EQ(creator->CreateSetting(P("a/x"), Int(1)), 0);
  ASSERT_EQ(creator->CreateSetting(P("z"), Int(2)), 0);
  Sql("UPDATE data SET value = x'" + Hex(Int32Record(99)) + "' WHERE path IN ('a/x/', 'z/')");
  ASSERT_EQ(creator->CreateSetting(P("a/b"), Str("deep")), 0);
  auto const rows = Rows();
  ASSERT_EQ(rows.size(), 5u);
  EXPECT_EQ(rows[3], (SqliteFile::Row{"a/x/", Int32Record(1), AttribRecord(false)}));
  EXPECT_EQ(rows[4], (SqliteFile::Row{"z/", Int32Record(99), AttribRecord(false)}));
}

TEST_F(Operations, InvalidPathsAreRefusedByEveryOperation) {
  ASSERT_EQ(creator->CreateSetting(P("a"), ListOf({Int(1)})), 0);
  auto const rows = Rows();
  for (auto const& path :
       std::vector<uvc::Path>{{}, {I(0), K("a")}, {K("a b")}, {K("a"), I(65536)}}) {
    Setting out;
    Attributes attributes;
    std::pair<char const*, std::function<int()>> const calls[] = {
        {"CreateSetting", [&] { return creator->CreateSetting(path, Int(1)); }},
        {"GetSetting", [&] { return getter->GetSetting(path, out); }},
        {"GetAttribute", [&] { return getter->GetAttribute(path, attributes); }},
        {"SetValue", [&] { return valueSetter->SetValue(path, std::int32_t{1}); }},
        {"SetSetting", [&] { return setter->SetSetting(path, Int(1)); }},
        {"SetAttribute", [&] { return setter->SetAttribute(path, Attributes{true}); }},
        {"DeleteSetting", [&] { return deleter->DeleteSetting(path); }}};
    for (auto const& [name, call] : calls) {
      log.Clear();
      EXPECT_RC(call(), 0x80000046u);
      ExpectLog({"W " + std::string(name) + "(" + Text(path) + "): Invalid argument = 0x80000046"});
    }
  }
  EXPECT_EQ(Get("a"), ListOf({Int(1)}));
  EXPECT_EQ(Rows(), rows);
}

TEST_F(Operations, WithoutADatabaseThereIsNothingToDisagreeWith) {
  Open("");
  ASSERT_EQ(creator->CreateSetting(P("a/b"), Int(1)), 0);
  EXPECT_RC(setter->SetAttribute(P("a/b"), Attributes{true}), 0);
  EXPECT_RC(deleter->DeleteSetting(P("a/b")), 0);
  EXPECT_RC(deleter->DeleteSetting(P("a/b")), 1);
  EXPECT_RC(deleter->DeleteSetting(P("a")), 0);
  EXPECT_RC(deleter->DeleteSetting(P("a/b")), 0x8000004Au);
}

// Nothing is queued while nobody listens: a later subscriber hears only what follows.
TEST_F(Operations, ASubscriberHearsOnlyChangesAfterIt) {
  ASSERT_EQ(creator->CreateSetting(P("a"), Int(1)), 0);
  struct First : settings_manager::ISettingsUpdateObserver {
    std::promise<std::string> path;
    void Update(uvc::Path const& p, unsigned char) override {
      if (!told.exchange(true)) path.set_value(Text(p));
    }
    std::atomic<bool> told{false};
  };
  auto first = std::make_shared<First>();
  settings_manager::SubscriptionId id{};
  ASSERT_EQ(subscriber->Subscribe(uvc::Path(), first, id), 0);
  ASSERT_EQ(setter->SetSetting(P("z"), Int(2)), Code(0x8000004Cu));
  ASSERT_EQ(creator->CreateSetting(P("z"), Int(2)), 0);
  EXPECT_EQ(first->path.get_future().get(), "z/");
  ASSERT_EQ(subscriber->Unsubscribe(id), 0);
}

TEST_F(Operations, EveryAlternativeAndBothAttributeValuesSurviveARestart) {
  std::vector<Setting> values = {
      Setting(),
      ListOf({Setting(std::int8_t{-1}), Str("in list", true), ListOf({})}),
      MapOf({{"k", Setting(0.25)}, {"m", MapOf({}, true)}, {"s", Str("")}}),
      Setting(true),
      Setting(std::int8_t{-128}),
      Setting(std::int16_t{-2}),
      Setting(std::numeric_limits<std::int32_t>::min()),
      Setting(std::numeric_limits<std::int64_t>::min()),
      Setting(-1.5e300),
      Setting(tern::rtl::Timestamp(1700000000123456)),
      Str(std::string("a/b \0 z", 7)),
      Setting(std::vector<std::uint8_t>{0, 255, 1}),
      Setting(std::uint8_t{255}),
      Setting(std::uint16_t{65535}),
      Setting(std::numeric_limits<std::uint32_t>::max()),
      Setting(std::numeric_limits<std::uint64_t>::max())};
  ASSERT_EQ(values.size(), uvc::index::kCount);
  Map expected;
  for (std::size_t i = 0; i < values.size(); ++i) {
    ASSERT_EQ(values[i].index(), i);
    values[i].attributes.readOnly = i % 2 == 1;
    expected.emplace("v" + std::to_string(i), values[i]);
    ASSERT_EQ(creator->CreateSetting(P("v" + std::to_string(i)), values[i]), 0);
  }
  Reopen();
  EXPECT_EQ(Tree(), Setting(Setting::Value(expected)));
  EXPECT_EQ(startup.back(), prefix + " OK: " + std::to_string(CountNodes(Tree())) + " node(s)");
}

}  // namespace
}  // namespace test_support
