// Setting nodes: alternative indices, copies and equality with attributes, and the
// read-only rule.

#include "settings_manager/setting.h"
#include "tern/rtl/timestamp.h"
#include "uvc/tree.h"
#include "values_test_util.h"

namespace values_test {
namespace {

using settings_manager::IsReadOnly;

TEST(Setting, AlternativeIndicesAreFixed) {
  EXPECT_EQ(Setting().index(), 0u);
  EXPECT_FALSE(Setting().attributes.readOnly);
  struct Case {
    Setting node;
    std::size_t index;
  };
  Case const cases[] = {
      {Setting(uvc_sm::None{}), 0},
      {Setting(List{}), 1},
      {Setting(Map{}), 2},
      {Setting(true), 3},
      {Setting(std::int8_t{-1}), 4},
      {Setting(std::int16_t{-1}), 5},
      {Setting(std::int32_t{-1}), 6},
      {Setting(std::int64_t{-1}), 7},
      {Setting(0.5), 8},
      {Setting(tern::rtl::Timestamp(1)), 9},
      {Setting(std::string("s")), 10},
      {Setting(std::vector<std::uint8_t>{1}), 11},
      {Setting(std::uint8_t{1}), 12},
      {Setting(std::uint16_t{1}), 13},
      {Setting(std::uint32_t{1}), 14},
      {Setting(std::uint64_t{1}), 15},
  };
  for (auto const& c : cases) EXPECT_EQ(c.node.index(), c.index);
}

TEST(Setting, EqualityCoversAlternativeContentsAndAttributesAtEveryLevel) {
  auto const tree = [](bool deepFlag) {
    return MapOf({{"a", Int(1)}, {"l", ListOf({Int(2), MapOf({{"x", Int(3, deepFlag)}})})}});
  };
  Setting const original = tree(true);
  Setting const copy = original;  // copies every node's attributes
  EXPECT_EQ(copy, original);
  EXPECT_TRUE(uvc::GetItem(copy, uvc::Path{K("l"), I(1), K("x")}).attributes.readOnly);
  EXPECT_NE(tree(false), original);  // differs only in a flag three levels down

  EXPECT_EQ(Setting(uvc_sm::None{}), Setting());
  EXPECT_NE(Int(1, true), Int(1));
  EXPECT_NE(Setting(std::int64_t{1}), Int(1));  // same number, other alternative
  EXPECT_NE(Setting(std::uint8_t{1}), Setting(std::int8_t{1}));
  EXPECT_NE(MapOf({{"a", Int(1)}}), MapOf({{"b", Int(1)}}));
  EXPECT_NE(ListOf({Int(1)}), ListOf({Int(1), Int(1)}));
  EXPECT_EQ(Setting(tern::rtl::Timestamp(7)), Setting(tern::rtl::Timestamp(7)));
}

TEST(IsReadOnly, ScalarsAndEmptyContainersFollowTheirOwnFlag) {
  EXPECT_FALSE(IsReadOnly(Int(1)));
  EXPECT_TRUE(IsReadOnly(Int(1, true)));
  EXPECT_FALSE(IsReadOnly(ListOf({})));
  EXPECT_FALSE(IsReadOnly(MapOf({})));
  EXPECT_TRUE(IsReadOnly(MapOf({}, true)));
}

TEST(IsReadOnly, AFlaggedDescendantMakesEveryAncestorReadOnlyButNoSibling) {
  Setting const deep = ListOf({Int(0), Int(1, true)});
  Setting const map =
      MapOf({{"a", Int(1)}, {"b", MapOf({{"x", Int(2)}})}, {"c", MapOf({{"l", deep}})}});
  Setting const outer = ListOf({Int(0), map});
  auto const& entries = std::get<uvc::index::kMap>(map);
  EXPECT_FALSE(IsReadOnly(entries.at("a")));
  EXPECT_FALSE(IsReadOnly(entries.at("b")));
  EXPECT_TRUE(IsReadOnly(entries.at("c")));
  EXPECT_TRUE(IsReadOnly(map));
  EXPECT_TRUE(IsReadOnly(outer));
  EXPECT_FALSE(IsReadOnly(std::get<uvc::index::kList>(deep)[0]));

  // Only the node and what lies below it count, never a parent.
  Setting const parent = MapOf({{"child", Int(1)}}, true);
  EXPECT_TRUE(IsReadOnly(parent));
  EXPECT_FALSE(IsReadOnly(std::get<uvc::index::kMap>(parent).at("child")));
}

TEST(IsReadOnly, AValuelessNodeAnswersFalse) {
  Setting flagged = Int(1, true);
  MakeValueless(flagged);
  ASSERT_TRUE(flagged.valueless_by_exception());
  EXPECT_TRUE(flagged.attributes.readOnly);
  EXPECT_FALSE(IsReadOnly(flagged));

  // The walk ends at the valueless entry, before the flagged one after it.
  Setting map = MapOf({{"a", Int(1)}, {"z", Int(2, true)}});
  ASSERT_TRUE(IsReadOnly(map));
  MakeValueless(std::get<uvc::index::kMap>(map).at("a"));
  EXPECT_FALSE(IsReadOnly(map));
}

}  // namespace
}  // namespace values_test
