// What a manager stores is what the next one loads, and a refused write changes neither
// the tree nor the file.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <random>

#include "fdn/result_codes.h"
#include "manager_test_util.h"

namespace manager_test {
namespace {

using ::testing::ElementsAre;

std::vector<Setting> EveryAlternative() {
  std::vector<Setting> values = {
      Setting(),
      List({Setting(std::int8_t{-1}), ReadOnly(Str("in list")), List({})}),
      Map({{"k", Setting(0.25)}, {"m", ReadOnly(Map({}))}, {"s", Str("")}}),
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
      Setting(std::numeric_limits<std::uint64_t>::max()),
  };
  // Both attribute values on every kind of node.
  for (std::size_t i = 1; i < values.size(); i += 2) values[i].attributes.readOnly = true;
  return values;
}

class Persistence : public ManagerTest {};

TEST_F(Persistence, EveryAlternativeAndBothAttributeValuesSurviveARestart) {
  auto const values = EveryAlternative();
  ASSERT_EQ(values.size(), uvc::index::kCount);
  for (std::size_t i = 0; i < values.size(); ++i) {
    ASSERT_EQ(values[i].index(), i);
    ASSERT_EQ(
        creator->CreateSetting(P("v" + std::string(1, static_cast<char>('a' + i))), values[i]), 0);
  }
  Reopen();
  std::size_t nodes = 1;
  for (std::size_t i = 0; i < values.size(); ++i) {
    auto const key = "v" + std::string(1, static_cast<char>('a' + i));
    EXPECT_EQ(Get(key), values[i]) << key;
    nodes += CountNodes(values[i]);
  }
  EXPECT_EQ(startup.back(), prefix + " OK: " + std::to_string(nodes) + " node(s)");
}

// A long run of mixed operations, chosen by a fixed seed; whatever each one answers, the
// tree left in memory must be exactly what a new manager reads from the file.
TEST_F(Persistence, TreeAfterASeededRunOfOperationsIsWhatTheNextManagerLoads) {
  std::mt19937 random(20240611u);
  auto pick = [&random](std::size_t n) {
    return std::uniform_int_distribution<std::size_t>(0, n - 1)(random);
  };
  std::vector<std::string> const top = {"a", "b", "c", "d"};
  std::vector<std::string> const names = {"x", "y", "z"};

  std::function<Setting(int)> value = [&](int depth) -> Setting {
    Setting s;
    switch (pick(depth > 0 ? 6 : 8)) {
      case 0:
        s = Setting(static_cast<std::int32_t>(pick(3)));
        break;
      case 1:
        s = Str(names[pick(3)]);
        break;
      case 2:
        s = Setting(pick(2) == 0);
        break;
      case 3:
        s = Setting(static_cast<std::uint64_t>(pick(3)));
        break;
      case 4:
        s = Setting(0.5 * static_cast<double>(pick(3)));
        break;
      case 5:
        break;  // None
      case 6: {
        s.emplace<uvc::index::kList>();
        for (std::size_t n = pick(3); n > 0; --n)
          std::get<uvc::index::kList>(s).push_back(value(depth + 1));
        break;
      }
      default: {
        s.emplace<uvc::index::kMap>();
        for (std::size_t n = pick(3); n > 0; --n)
          std::get<uvc::index::kMap>(s)[names[pick(3)]] = value(depth + 1);
      }
    }
    s.attributes.readOnly = pick(6) == 0;
    return s;
  };
  auto path = [&]() {
    uvc::Path p{uvc::Id(top[pick(top.size())])};
    for (std::size_t depth = pick(3); depth > 0; --depth) {
      if (pick(3) == 0)
        p.emplace_back(static_cast<std::uint64_t>(pick(3)));
      else
        p.emplace_back(names[pick(3)]);
    }
    return p;
  };

  std::vector<int> const expected = {
      0, 1, fdn::rc::kFound, fdn::rc::kNotFound, fdn::rc::kNotMatched, fdn::rc::kProhibited};
  int changes = 0;
  for (int step = 0; step < 400; ++step) {
    auto const p = path();
    int result = 0;
    switch (pick(6)) {
      case 0:
      case 1:
        result = creator->CreateSetting(p, value(0));
        break;
      case 2:
        result = valueSetter->SetValue(p, value(1).value());
        break;
      case 3:
        result = setter->SetSetting(p, value(1));
        break;
      case 4:
        result = setter->SetAttribute(p, Attributes{pick(2) == 0});
        break;
      default:
        result = deleter->DeleteSetting(p);
        break;
    }
    EXPECT_THAT(expected, ::testing::Contains(result))
        << "step " << step << " " << settings_manager::PathToStr(p);
    changes += result == 0;
  }
  EXPECT_GT(changes, 100);

  std::vector<std::pair<int, Setting>> before;
  std::size_t nodes = 1;
  for (auto const& key : top) {
    Setting s;
    before.emplace_back(getter->GetSetting(P(key), s), s);
    if (before.back().first == 0) nodes += CountNodes(s);
  }
  Reopen();
  for (std::size_t i = 0; i < top.size(); ++i) {
    Setting s;
    EXPECT_EQ(getter->GetSetting(P(top[i]), s), before[i].first) << top[i];
    EXPECT_EQ(s, before[i].second) << top[i];
  }
  EXPECT_EQ(startup.back(), prefix + " OK: " + std::to_string(nodes) + " node(s)");
  EXPECT_EQ(Rows().size(), nodes);
}

class RefusedWrite : public ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    ASSERT_EQ(creator->CreateSetting(P("a"), Setting(std::int32_t{1})), 0);
    ASSERT_EQ(creator->CreateSetting(P("m"), Map({{"k", Str("v")}})), 0);
    ASSERT_EQ(creator->CreateSetting(P("l"), List({Setting(std::int32_t{1})})), 0);
    rows = Rows();
    log.Clear();
  }
  // The database refuses every `what` (INSERT, UPDATE, DELETE) on `data` from now on.
  void Refuse(std::string const& what) {
    Sql("CREATE TRIGGER refuse_" + what + " BEFORE " + what +
        " ON data BEGIN SELECT RAISE(ABORT, 'refused'); END;");
  }
  void ExpectFailure(int result, std::string const& operation, std::string const& path) {
    EXPECT_EQ(result, fdn::rc::kMediaError);
    ExpectOnly(LogLevel::Warning, operation,
               operation + "(" + path + "): Media error = 0x80000059");
    log.Clear();
  }

  std::vector<test_support::SqliteFile::Row> rows;
};

TEST_F(RefusedWrite, ChangesAndCreationsLeaveTreeAndFileAsTheyWere) {
  Refuse("INSERT");
  ExpectFailure(valueSetter->SetValue(P("a"), std::int32_t{2}), "SetValue", "a/");
  ExpectFailure(setter->SetSetting(P("a"), ReadOnly(Setting(std::int32_t{7}))), "SetSetting", "a/");
  EXPECT_EQ(Get("a"), Setting(std::int32_t{1}));

  // The creation guard takes the grown chain away again, at any depth.
  ExpectFailure(creator->CreateSetting(P("m/x/y"), Setting(std::int32_t{3})), "CreateSetting",
                "m/x/y/");
  ExpectFailure(creator->CreateSetting(P("n/x"), Setting(std::int32_t{3})), "CreateSetting",
                "n/x/");
  EXPECT_EQ(Get("m"), Map({{"k", Str("v")}}));
  EXPECT_EQ(GetCode("n"), fdn::rc::kNotFound);
  log.Clear();

  // A list element made by index stays, blanked, so that later positions keep their
  // meaning; so does the gap filled before it.
  ExpectFailure(creator->CreateSetting(P("l/1"), ReadOnly(Setting(std::int32_t{5}))),
                "CreateSetting", "l/1/");
  EXPECT_EQ(Get("l"), List({Setting(std::int32_t{1}), Setting()}));
  ExpectFailure(creator->CreateSetting(P("l/3/k"), Setting(std::int32_t{5})), "CreateSetting",
                "l/3/k/");
  EXPECT_EQ(Get("l"), List({Setting(std::int32_t{1}), Setting(), Setting(), Setting()}));

  // The delete half of every replacement was rolled back with it.
  EXPECT_EQ(Rows(), rows);
}

TEST_F(RefusedWrite, AttributeChangesAndDeletionsLeaveTreeAndFileAsTheyWere) {
  Refuse("UPDATE");
  Refuse("DELETE");
  ExpectFailure(setter->SetAttribute(P("a"), Attributes{true}), "SetAttribute", "a/");
  ExpectFailure(deleter->DeleteSetting(P("m")), "DeleteSetting", "m/");
  // The replacement's first step is a delete.
  ExpectFailure(valueSetter->SetValue(P("a"), std::int32_t{2}), "SetValue", "a/");
  EXPECT_EQ(Get("a"), Setting(std::int32_t{1}));
  EXPECT_EQ(Get("m"), Map({{"k", Str("v")}}));
  EXPECT_EQ(Rows(), rows);

  Sql("DROP TRIGGER refuse_UPDATE; DROP TRIGGER refuse_DELETE;");
  EXPECT_EQ(setter->SetAttribute(P("a"), Attributes{true}), 0);
  EXPECT_EQ(deleter->DeleteSetting(P("m")), 0);
  Reopen();
  EXPECT_EQ(Get("a"), ReadOnly(Setting(std::int32_t{1})));
  EXPECT_EQ(GetCode("m"), fdn::rc::kNotFound);
}

}  // namespace
}  // namespace manager_test
