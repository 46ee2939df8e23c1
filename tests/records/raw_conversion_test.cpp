#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "raw_conversion.h"
#include "record_test_util.h"

namespace {

using namespace records_test;
using settings_manager::Deserialize;
using settings_manager::Serialize;
using settings_manager::impl::RawAttrib;
using settings_manager::impl::RawItem;
using ::testing::ElementsAre;

std::vector<std::string> PathsOf(std::vector<RawItem> const& items) {
  std::vector<std::string> paths;
  for (auto const& item : items) paths.push_back(item.path);
  return paths;
}

std::vector<RawItem> SortedRecords(uvc::Path const& path, Setting const& tree) {
  std::vector<RawItem> items;
  EXPECT_EQ(Serialize(path, tree, items), uvc::ResultOk());
  // As the database hands them over: by path text, bytewise.
  std::sort(items.begin(), items.end(),
            [](RawItem const& a, RawItem const& b) { return a.path < b.path; });
  return items;
}

Setting Twelve() {
  std::vector<Setting> elements;
  for (std::uint16_t i = 0; i < 12; ++i) elements.emplace_back(i);
  return List(std::move(elements));
}

TEST(Serialize, WritesParentsBeforeChildrenInKeyAndIndexOrder) {
  std::vector<RawItem> out{RawItem(P("old/"), Setting())};
  ASSERT_EQ(Serialize(P("a/b/"), Setting(std::int32_t{7}), out), uvc::ResultOk());
  ASSERT_THAT(PathsOf(out), ElementsAre("a/b/"));
  EXPECT_EQ(ToHex(out[0].value), "0600000000000000 0700000000000000");

  ASSERT_EQ(Serialize(uvc::Root(), MapOf({}), out), uvc::ResultOk());
  ASSERT_THAT(PathsOf(out), ElementsAre(""));
  EXPECT_EQ(ToHex(out[0].value), "0200000000000000 0000000000000000");

  ASSERT_EQ(Serialize(uvc::Root(), MapOf({{"x", Setting(true)}, {"a", Setting(false)}}), out),
            uvc::ResultOk());
  EXPECT_THAT(PathsOf(out), ElementsAre("", "a/", "x/"));

  ASSERT_EQ(Serialize(P("l/"), Twelve(), out), uvc::ResultOk());
  EXPECT_THAT(PathsOf(out), ElementsAre("l/", "l/0/", "l/1/", "l/2/", "l/3/", "l/4/", "l/5/",
                                        "l/6/", "l/7/", "l/8/", "l/9/", "l/10/", "l/11/"));
  EXPECT_EQ(ToHex(out[0].value), "0100000000000000 0c00000000000000");
  EXPECT_EQ(ToHex(out[12].value), "0d00000000000000 0b00000000000000");
}

TEST(Serialize, RefRangeGivesTheSameRecords) {
  uvc::Path const full = P("a/b/c/");
  Setting const tree = MapOf({{"k", ReadOnly(Setting(std::string("v")))}});
  std::vector<RawItem> byPath, byRange;
  ASSERT_EQ(Serialize(P("a/b/"), tree, byPath), uvc::ResultOk());
  ASSERT_EQ(Serialize(uvc::aux::MakeRefRange(0, 2, full), tree, byRange), uvc::ResultOk());
  ASSERT_THAT(PathsOf(byRange), ElementsAre("a/b/", "a/b/k/"));
  for (std::size_t i = 0; i < byPath.size(); ++i) {
    EXPECT_EQ(byRange[i].attrib, byPath[i].attrib);
    EXPECT_EQ(byRange[i].value, byPath[i].value);
  }
}

TEST(Serialize, FailuresLeaveTheOutputAlone) {
  struct Row {
    uvc::Path path;
    Setting tree;
    uvc::Result expected;
  } const rows[] = {
      {P("a/"), MapOf({{"b", Setting(true)}, {"c", List({Setting(), Valueless()})}}),
       Failure(0x8000006A, "[RawSetting] Invalid value state")},
      {P("a/"), MapOf({{"a b", Setting(true)}}),
       Failure(0x80000046, "[RawSetting] Path to str fail: state = 7")},
      {uvc::Path{std::uint64_t{65536}}, Setting(),
       Failure(0x80000046, "[RawSetting] Path to str fail: state = 2")},
  };
  for (auto const& row : rows) {
    std::vector<RawItem> out{RawItem(P("keep/"), Setting())};
    EXPECT_EQ(Serialize(row.path, row.tree, out), row.expected);
    EXPECT_THAT(PathsOf(out), ElementsAre("keep/"));
  }
}

TEST(Deserialize, RebuildsSubtreesFromSortedRecords) {
  Setting head;
  uvc::Path headPath;

  // Only the head: the list keeps no elements but its attributes.
  ASSERT_EQ(
      Deserialize({RawItem(P("cfg/1/"), ReadOnly(List({Setting(), Setting()})))}, headPath, head),
      uvc::ResultOk());
  EXPECT_EQ(headPath, P("cfg/1/"));
  EXPECT_EQ(head, ReadOnly(List({})));

  // "l/10/" and "l/11/" sort before "l/2/"; the list still comes back whole and in order.
  Setting const twelve = MapOf({{"l", Twelve()}});
  auto const items = SortedRecords(uvc::Root(), twelve);
  ASSERT_EQ(items[4].path, "l/10/");
  ASSERT_EQ(Deserialize(items, headPath, head), uvc::ResultOk());
  EXPECT_EQ(headPath, uvc::Root());
  EXPECT_EQ(head, twelve);
}

TEST(Deserialize, MixedSubtreeRoundTrip) {
  Map scalars{{"none", Setting()},
              {"b", Setting(true)},
              {"i8", Setting(std::int8_t{-8})},
              {"i16", Setting(std::int16_t{-16})},
              {"i32", ReadOnly(Setting(std::int32_t{-32}))},
              {"i64", Setting(std::int64_t{-64})},
              {"d", Setting(-0.25)},
              {"t", Setting(tern::rtl::Timestamp(1700000000000000))},
              {"s", Setting(std::string("text"))},
              {"bytes", Setting(Bytes{0, 255})},
              {"u8", Setting(std::uint8_t{8})},
              {"u16", Setting(std::uint16_t{16})},
              {"u32", Setting(std::uint32_t{32})},
              {"u64", Setting(std::uint64_t{64})}};
  std::vector<Setting> rows;
  for (std::uint16_t i = 0; i < 12; ++i)
    rows.push_back(
        MapOf({{"id", Setting(i)},
               {"tags", List({Setting(std::string("t")),
                              ReadOnly(Setting(Bytes{static_cast<std::uint8_t>(i)}))})}}));
  rows[10] = ReadOnly(MapOf({{"deep", List({MapOf({{"flag", ReadOnly(Setting(false))}})})}}));
  Setting const tree = MapOf({{"all", MapOf(scalars)},
                              {"rows", List(rows)},
                              {"emptyList", List({})},
                              {"emptyMap", MapOf({})}});

  Setting head;
  uvc::Path headPath;
  ASSERT_EQ(Deserialize(SortedRecords(P("cfg/2/"), tree), headPath, head), uvc::ResultOk());
  EXPECT_EQ(headPath, P("cfg/2/"));
  EXPECT_EQ(head, tree);
}

TEST(Deserialize, FailuresLeaveTheOutputsAlone) {
  auto const at = [](char const* path, Setting setting) { return RawItem(P(path), setting); };
  Setting const map = MapOf({});
  Setting const number(std::int32_t{1});
  struct Row {
    std::vector<RawItem> items;
    uvc::Result expected;
  } const rows[] = {
      {{}, Failure(0x80000101, "[RawSetting] empty raw setting")},
      {{at("a/", map), at("a/", number)},
       Failure(0x80000064, "[RawSetting] non-rooted path: root = 'a/', this = 'a/'")},
      {{at("a/", map), at("b/x/", number)},
       Failure(0x80000064, "[RawSetting] non-rooted path: root = 'a/', this = 'b/x/'")},
      {{at("a/", map), at("a/b/c/", number)},
       Failure(0x80000065, "[RawSetting] path level jump: prev = 'a/', this = 'a/b/c/'")},
      {{at("a/", map), at("a/b/", map), at("a/b/c/d/", number)},
       Failure(0x80000065, "[RawSetting] path level jump: prev = 'a/b/', this = 'a/b/c/d/'")},
      {{at("a/", number), at("a/b/", number)},
       Failure(0x8000004A, "uvc: Path or id does not correspond to contained item")},
      {{at("a/", map),
        RawItem(RawAttrib(Attributes{}).attrib, Hex("0300000000000000 01000000000000"), "a/b/")},
       Failure(0x8000005C, "[RawSetting] Insufficient raw data size: fact/plan = 15/16")},
      {{RawItem(RawAttrib(Attributes{}).attrib, RawItem::SerializeValue(map), "a//")},
       Failure(0x80000046, "[RawSetting] Str to path fail: src = 'a//', state = 5")},
  };
  for (auto const& row : rows) {
    SCOPED_TRACE(row.expected.second);
    Setting head = ReadOnly(Setting(std::string("keep")));
    uvc::Path headPath = P("keep/");
    EXPECT_EQ(Deserialize(row.items, headPath, head), row.expected);
    EXPECT_EQ(head, ReadOnly(Setting(std::string("keep"))));
    EXPECT_EQ(headPath, P("keep/"));
  }
}

}  // namespace
