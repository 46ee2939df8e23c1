// The client operations on one manager with a database file: results, log records, the
// tree afterwards and the rows on disk.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

#include "fdn/result_codes.h"
#include "manager_test_util.h"

namespace manager_test {
namespace {

using ::testing::ElementsAre;
using Row = test_support::SqliteFile::Row;

constexpr int kProhibited = fdn::rc::kProhibited;
constexpr int kCorrupted = fdn::rc::kBasesCorrupted;

Setting I32(std::int32_t v) { return Setting(v); }

class Operations : public ManagerTest {};

TEST_F(Operations, CreateExistingPathGivesOneWhenIdenticalAndFoundOtherwise) {
  ASSERT_EQ(creator->CreateSetting(P("a"), I32(5)), 0);
  ExpectOnly(LogLevel::Debug, "CreateSetting", "CreateSetting(a/)");
  auto const rows = Rows();
  log.Clear();

  EXPECT_EQ(creator->CreateSetting(P("a"), I32(5)), 1);
  EXPECT_EQ(creator->CreateSetting(P("a"), I32(6)), fdn::rc::kFound);
  EXPECT_EQ(creator->CreateSetting(P("a"), Setting(std::int64_t{5})), fdn::rc::kFound);
  EXPECT_EQ(creator->CreateSetting(P("a"), ReadOnly(I32(5))), fdn::rc::kFound);
  ExpectNoRecord();
  EXPECT_EQ(Get("a"), I32(5));
  EXPECT_EQ(Rows(), rows);
}

TEST_F(Operations, CreateBelowAnExistingNodeRewritesThatNodesWholeSubtree) {
  ASSERT_EQ(creator->CreateSetting(P("a/x"), I32(1)), 0);
  ASSERT_EQ(creator->CreateSetting(P("z"), I32(2)), 0);
  // Damage rows behind the manager's back: one inside a's subtree, one outside it.
  Sql("UPDATE data SET value = x'" + test_support::Hex(Int32Record(99)) +
      "' WHERE path IN ('a/x/', 'z/')");
  log.Clear();

  ASSERT_EQ(creator->CreateSetting(P("a/b/c"), Str("deep")), 0);
  ExpectOnly(LogLevel::Debug, "CreateSetting", "CreateSetting(a/b/c/)");
  EXPECT_EQ(Get("a"), Map({{"b", Map({{"c", Str("deep")}})}, {"x", I32(1)}}));
  EXPECT_THAT(Keys(), ElementsAre("", "a/", "a/b/", "a/b/c/", "a/x/", "z/"));
  auto const rows = Rows();
  EXPECT_EQ(rows[4], (Row{"a/x/", Int32Record(1), AttribRecord(false)}));  // rewritten
  EXPECT_EQ(rows[5], (Row{"z/", Int32Record(99), AttribRecord(false)}));   // left alone
}

TEST_F(Operations, CreateByListIndexAppendsAndFillsTheGap) {
  ASSERT_EQ(creator->CreateSetting(P("l"), List({I32(0), I32(1)})), 0);
  EXPECT_EQ(creator->CreateSetting(P("l/2"), I32(2)), 0);
  EXPECT_EQ(creator->CreateSetting(P("l/5"), ReadOnly(I32(5))), 0);
  EXPECT_EQ(Get("l"), List({I32(0), I32(1), I32(2), Setting(), Setting(), ReadOnly(I32(5))}));
  EXPECT_EQ(creator->CreateSetting(P("l/3"), I32(3)), fdn::rc::kFound);  // a None is there
  // Missing levels are built to fit the next id: a list before an index, a map before a key.
  EXPECT_EQ(creator->CreateSetting(P("m/1/k"), I32(7)), 0);
  EXPECT_EQ(Get("m"), List({Setting(), Map({{"k", I32(7)}})}));
  EXPECT_THAT(Keys(), ElementsAre("", "l/", "l/0/", "l/1/", "l/2/", "l/3/", "l/4/", "l/5/", "m/",
                                  "m/0/", "m/1/", "m/1/k/"));
  Reopen();
  EXPECT_EQ(Get("l/5"), ReadOnly(I32(5)));
  EXPECT_EQ(Get("m/1/k"), I32(7));
}

TEST_F(Operations, CreateThroughANodeOfTheWrongKindChangesNothing) {
  ASSERT_EQ(creator->CreateSetting(P("s"), I32(1)), 0);
  ASSERT_EQ(creator->CreateSetting(P("m"), Map({})), 0);
  auto const rows = Rows();
  log.Clear();
  EXPECT_EQ(creator->CreateSetting(P("s/x"), I32(2)), fdn::rc::kNotMatched);
  ExpectOnly(LogLevel::Warning, "CreateSetting", "CreateSetting(s/x/): Not matched = 0x8000004a");
  log.Clear();
  EXPECT_EQ(creator->CreateSetting(P("m/0"), I32(2)), fdn::rc::kNotMatched);
  ExpectOnly(LogLevel::Warning, "CreateSetting", "CreateSetting(m/0/): Not matched = 0x8000004a");
  EXPECT_EQ(Get("s"), I32(1));
  EXPECT_EQ(Get("m"), Map({}));
  EXPECT_EQ(Rows(), rows);
}

TEST_F(Operations, GetSettingCopiesTheWholeSubtreeOverAnyPreviousValue) {
  auto const tree = Map({{"x", ReadOnly(I32(1))}, {"y", List({Str("a"), ReadOnly(Str("b"))})}});
  ASSERT_EQ(creator->CreateSetting(P("t"), ReadOnly(tree)), 0);
  Setting out = List({I32(9)});
  ASSERT_EQ(getter->GetSetting(P("t"), out), 0);
  EXPECT_EQ(out, ReadOnly(tree));
  Attributes attributes;
  ASSERT_EQ(getter->GetAttribute(P("t/y/1"), attributes), 0);
  EXPECT_TRUE(attributes.readOnly);

  // A failed read leaves the caller's value alone and says why.
  log.Clear();
  EXPECT_EQ(getter->GetSetting(P("t/q"), out), fdn::rc::kNotFound);
  ExpectOnly(LogLevel::Warning, "GetSetting", "GetSetting(t/q/): Not found = 0x8000004c");
  log.Clear();
  EXPECT_EQ(getter->GetAttribute(P("t/x/0"), attributes), fdn::rc::kNotMatched);
  ExpectOnly(LogLevel::Warning, "GetAttribute", "GetAttribute(t/x/0/): Not matched = 0x8000004a");
  EXPECT_EQ(out, ReadOnly(tree));
  EXPECT_TRUE(attributes.readOnly);
}

TEST_F(Operations, SetValueHonoursReadOnlyUnlessTheValueIsEqual) {
  ASSERT_EQ(creator->CreateSetting(P("r"), ReadOnly(I32(5))), 0);
  ASSERT_EQ(creator->CreateSetting(P("p"), Map({{"x", ReadOnly(I32(1))}, {"y", I32(2)}})), 0);
  auto const rows = Rows();
  log.Clear();

  EXPECT_EQ(valueSetter->SetValue(P("r"), std::int32_t{5}), 1);  // equal: attributes not compared
  EXPECT_EQ(valueSetter->SetValue(P("r"), std::int32_t{6}), kProhibited);
  // A read-only node anywhere below guards the whole subtree's value.
  EXPECT_EQ(valueSetter->SetValue(P("p"), Map({})), kProhibited);
  ExpectNoRecord();
  EXPECT_EQ(Get("r"), ReadOnly(I32(5)));
  EXPECT_EQ(Rows(), rows);

  // A writable sibling is still free, and the privileged setters work on the guarded node.
  EXPECT_EQ(valueSetter->SetValue(P("p/y"), std::int32_t{3}), 0);
  ExpectOnly(LogLevel::Trace, "SetValue", "SetValue(p/y/)");
  EXPECT_EQ(setter->SetSetting(P("r"), I32(6)), 0);
  EXPECT_EQ(setter->SetAttribute(P("p/x"), Attributes{false}), 0);
  EXPECT_EQ(valueSetter->SetValue(P("p"), Map({{"n", I32(4)}})), 0);
  EXPECT_EQ(Get("p"), Map({{"n", I32(4)}}));
  EXPECT_THAT(Keys(), ElementsAre("", "p/", "p/n/", "r/"));
}

TEST_F(Operations, SetValueChangesTheTypeWithAWarningExceptFromNone) {
  ASSERT_EQ(creator->CreateSetting(P("a"), I32(5)), 0);
  ASSERT_EQ(creator->CreateSetting(P("n"), Setting()), 0);
  log.Clear();

  EXPECT_EQ(valueSetter->SetValue(P("a"), std::string("five")), 0);
  auto records = log.Records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].level, LogLevel::Error);
  EXPECT_EQ(records[0].function, "SetValue");
  EXPECT_EQ(records[0].message, prefix + " ### SetValue(a/): old/new value type mismatch: 6/10");
  EXPECT_EQ(records[1].level, LogLevel::Trace);
  EXPECT_EQ(records[1].message, prefix + " SetValue(a/)");
  EXPECT_EQ(Get("a"), Str("five"));

  log.Clear();
  EXPECT_EQ(valueSetter->SetValue(P("n"), std::uint64_t{7}), 0);
  ExpectOnly(LogLevel::Trace, "SetValue", "SetValue(n/)");
  Reopen();
  EXPECT_EQ(Get("a"), Str("five"));
  EXPECT_EQ(Get("n"), Setting(std::uint64_t{7}));

  EXPECT_EQ(valueSetter->SetValue(P("q"), std::int32_t{1}), fdn::rc::kNotFound);
  ExpectOnly(LogLevel::Warning, "SetValue", "SetValue(q/): Not found = 0x8000004c");
}

// Records every update; Wait blocks until `count` have arrived.
class Recorder : public settings_manager::ISettingsUpdateObserver {
 public:
  void Update(uvc::Path const& path, unsigned char kind) override {
    std::lock_guard<std::mutex> lock(mutex_);
    seen_.emplace_back(settings_manager::PathToStr(path), kind);
    arrived_.notify_all();
  }
  std::vector<std::pair<std::string, unsigned char>> Wait(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    arrived_.wait(lock, [&] { return seen_.size() >= count; });
    return seen_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<std::pair<std::string, unsigned char>> seen_;
};

TEST_F(Operations, SetSettingReplacesEvenReadOnlyNodes) {
  ASSERT_EQ(creator->CreateSetting(P("a"), ReadOnly(I32(5))), 0);
  log.Clear();
  EXPECT_EQ(setter->SetSetting(P("a"), ReadOnly(I32(5))), 1);
  ExpectNoRecord();

  EXPECT_EQ(setter->SetSetting(P("a"), Str("x")), 0);
  auto const records = log.Records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].level, LogLevel::Error);
  EXPECT_EQ(records[0].message,
            prefix + " ### SetSetting(a/): old/new setting type mismatch: 6/10");
  EXPECT_EQ(records[1].level, LogLevel::Trace);
  EXPECT_EQ(records[1].function, "SetSetting");
  EXPECT_EQ(records[1].message, prefix + " SetSetting(a/)");
  EXPECT_EQ(Get("a"), Str("x"));

  // Equal value, other attributes: a change.
  log.Clear();
  EXPECT_EQ(setter->SetSetting(P("a"), ReadOnly(Str("x"))), 0);
  ExpectOnly(LogLevel::Trace, "SetSetting", "SetSetting(a/)");
  EXPECT_EQ(Rows().at(1).attrib, AttribRecord(true));

  // Nothing was queued while nobody listened: a later subscriber hears only what follows.
  auto recorder = std::make_shared<Recorder>();
  settings_manager::SubscriptionId id{};
  ASSERT_EQ(subscriber->Subscribe(uvc::Path(), recorder, id), 0);
  ASSERT_EQ(setter->SetSetting(P("z"), I32(1)), fdn::rc::kNotFound);
  ASSERT_EQ(creator->CreateSetting(P("z"), I32(1)), 0);
  ASSERT_EQ(setter->SetSetting(P("z"), I32(2)), 0);
  auto const seen = recorder->Wait(1);
  EXPECT_EQ(seen.front().first, "z/");
  ASSERT_EQ(subscriber->Unsubscribe(id), 0);
}

TEST_F(Operations, SetAttributeChangesTheNodeAloneAndChecksTheRow) {
  ASSERT_EQ(creator->CreateSetting(P("a"), Map({{"x", I32(1)}})), 0);
  log.Clear();
  EXPECT_EQ(setter->SetAttribute(P("a"), Attributes{false}), 1);
  ExpectNoRecord();
  EXPECT_EQ(setter->SetAttribute(P("a"), Attributes{true}), 0);
  ExpectOnly(LogLevel::Trace, "SetAttribute", "SetAttribute(a/) = true");
  EXPECT_EQ(Get("a"), ReadOnly(Map({{"x", I32(1)}})));
  auto rows = Rows();
  EXPECT_EQ(rows[1].attrib, AttribRecord(true));
  EXPECT_EQ(rows[2].attrib, AttribRecord(false));
  // No read-only check: this is how the mark is cleared.
  log.Clear();
  EXPECT_EQ(setter->SetAttribute(P("a"), Attributes{false}), 0);
  ExpectOnly(LogLevel::Trace, "SetAttribute", "SetAttribute(a/) = false");

  // The row has gone behind the manager's back: refused, and the tree keeps its state.
  Sql("DELETE FROM data WHERE path = 'a/x/'");
  log.Clear();
  EXPECT_EQ(setter->SetAttribute(P("a/x"), Attributes{true}), kCorrupted);
  ExpectOnly(LogLevel::Warning, "SetAttribute", "SetAttribute(a/x/): Bases corrupted = 0x80000069");
  Attributes attributes{true};
  EXPECT_EQ(getter->GetAttribute(P("a/x"), attributes), 0);
  EXPECT_FALSE(attributes.readOnly);
}

TEST_F(Operations, DeleteSettingRemovesNamedSubtrees) {
  ASSERT_EQ(creator->CreateSetting(P("a"), Map({{"b", Map({{"c", I32(1)}})}, {"d", I32(2)}})), 0);
  ASSERT_EQ(creator->CreateSetting(P("l"), List({I32(1), I32(2)})), 0);
  log.Clear();

  EXPECT_EQ(deleter->DeleteSetting(P("a/b")), 0);
  ExpectOnly(LogLevel::Debug, "DeleteSetting", "DeleteSetting(a/b/)");
  EXPECT_EQ(Get("a"), Map({{"d", I32(2)}}));
  EXPECT_THAT(Keys(), ElementsAre("", "a/", "a/d/", "l/", "l/0/", "l/1/"));

  log.Clear();
  EXPECT_EQ(deleter->DeleteSetting(P("a/b")), 1);  // the parent is there, the name is not
  ExpectOnly(LogLevel::Debug, "DeleteSetting", "DeleteSetting(a/b/)");
  log.Clear();
  EXPECT_EQ(deleter->DeleteSetting(P("a/b/c")), fdn::rc::kNotMatched);
  ExpectNoRecord();
  EXPECT_EQ(deleter->DeleteSetting(P("l/1")), kProhibited);
  ExpectOnly(LogLevel::Warning, "DeleteSetting", "DeleteSetting(l/1/): Prohibited = 0x80000066");
  EXPECT_EQ(Get("l"), List({I32(1), I32(2)}));
  EXPECT_THAT(Keys(), ElementsAre("", "a/", "a/d/", "l/", "l/0/", "l/1/"));
}

TEST_F(Operations, DeleteSettingReportsATreeAndFileThatDisagree) {
  ASSERT_EQ(creator->CreateSetting(P("a"), I32(1)), 0);
  // No row for a node of the tree: the removal stands, the call fails.
  Sql("DELETE FROM data WHERE path = 'a/'");
  log.Clear();
  EXPECT_EQ(deleter->DeleteSetting(P("a")), kCorrupted);
  ExpectOnly(LogLevel::Warning, "DeleteSetting", "DeleteSetting(a/): Bases corrupted = 0x80000069");
  EXPECT_EQ(GetCode("a"), fdn::rc::kNotFound);

  // A single row for a node the tree does not have: the row goes, the call fails.
  test_support::SqliteFile(dbPath).InsertRow({"z/", Int32Record(3), AttribRecord(false)});
  log.Clear();
  EXPECT_EQ(deleter->DeleteSetting(P("z")), kCorrupted);
  ExpectOnly(LogLevel::Warning, "DeleteSetting", "DeleteSetting(z/): Bases corrupted = 0x80000069");
  EXPECT_THAT(Keys(), ElementsAre(""));
}

TEST_F(Operations, InvalidPathsAreRefusedByEveryOperation) {
  ASSERT_EQ(creator->CreateSetting(P("a"), List({I32(1)})), 0);
  log.Clear();
  std::vector<uvc::Path> const bad = {
      {},
      {uvc::Id(std::uint64_t{0}), uvc::Id(std::string("a"))},
      {uvc::Id(std::string("a b"))},
      {uvc::Id(std::string("a")), uvc::Id(std::uint64_t{65536})},
  };
  for (auto const& path : bad) {
    auto const text = settings_manager::PathToStr(path);
    auto expect = [&](int code, char const* operation) {
      EXPECT_EQ(code, fdn::rc::kInvalidArgument) << operation << " " << text;
      ExpectOnly(LogLevel::Warning, operation,
                 std::string(operation) + "(" + text + "): Invalid argument = 0x80000046");
      log.Clear();
    };
    Setting out;
    Attributes attributes;
    expect(creator->CreateSetting(path, I32(1)), "CreateSetting");
    expect(getter->GetSetting(path, out), "GetSetting");
    expect(getter->GetAttribute(path, attributes), "GetAttribute");
    expect(valueSetter->SetValue(path, std::int32_t{1}), "SetValue");
    expect(setter->SetSetting(path, I32(1)), "SetSetting");
    expect(setter->SetAttribute(path, Attributes{true}), "SetAttribute");
    expect(deleter->DeleteSetting(path), "DeleteSetting");
  }
  EXPECT_EQ(Get("a"), List({I32(1)}));
  EXPECT_THAT(Keys(), ElementsAre("", "a/", "a/0/"));
}

TEST_F(Operations, ValuelessValuesAreRefused) {
  ASSERT_EQ(creator->CreateSetting(P("a"), I32(1)), 0);
  log.Clear();
  Setting setting;
  MakeValueless(setting);
  uvc::TValue<Setting> value;
  MakeValueless(value);
  ASSERT_TRUE(setting.valueless_by_exception() && value.valueless_by_exception());

  EXPECT_EQ(creator->CreateSetting(P("b"), setting), fdn::rc::kInvalidState);
  ExpectOnly(LogLevel::Warning, "CreateSetting", "CreateSetting(b/): Invalid state = 0x8000006a");
  log.Clear();
  EXPECT_EQ(valueSetter->SetValue(P("a"), value), fdn::rc::kInvalidState);
  ExpectOnly(LogLevel::Warning, "SetValue", "SetValue(a/): Invalid state = 0x8000006a");
  log.Clear();
  EXPECT_EQ(setter->SetSetting(P("a"), setting), fdn::rc::kInvalidState);
  ExpectOnly(LogLevel::Warning, "SetSetting", "SetSetting(a/): Invalid state = 0x8000006a");
  EXPECT_EQ(Get("a"), I32(1));
  EXPECT_THAT(Keys(), ElementsAre("", "a/"));
}

TEST(OperationsInMemory, DeleteWithoutADatabaseHasNothingToDisagreeWith) {
  std::shared_ptr<settings_manager::ISettingsManager> manager;
  ASSERT_EQ(settings_manager::CreateSettingsManager({}, manager), 0);
  std::shared_ptr<settings_manager::ISettingsCreator> creator;
  std::shared_ptr<settings_manager::ISettingsDeleter> deleter;
  std::shared_ptr<settings_manager::ISettingsSetter> setter;
  ASSERT_EQ(manager->GetSettingsCreator(creator), 0);
  ASSERT_EQ(manager->GetSettingsDeleter(deleter), 0);
  ASSERT_EQ(manager->GetSettingsSetter(setter), 0);
  ASSERT_EQ(creator->CreateSetting(P("a/b"), I32(1)), 0);
  EXPECT_EQ(setter->SetAttribute(P("a/b"), Attributes{true}), 0);
  EXPECT_EQ(deleter->DeleteSetting(P("a/b")), 0);
  EXPECT_EQ(deleter->DeleteSetting(P("a/b")), 1);
  EXPECT_EQ(deleter->DeleteSetting(P("a")), 0);
  EXPECT_EQ(deleter->DeleteSetting(P("a/b")), fdn::rc::kNotMatched);
}

}  // namespace
}  // namespace manager_test
