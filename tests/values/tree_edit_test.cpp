// Finding, storing and removing children of a tree: GetItem, SetItem and DelItem.

#include <variant>

#include "uvc/tree.h"
#include "values_test_util.h"

namespace values_test {
namespace {

namespace mode = uvc::edit_mode;
using uvc::Path;

constexpr int kInvalidArgument = Code(0x80000046u);
constexpr int kNotMatchedCode = Code(0x8000004Au);

List const& ListIn(Setting const& node) { return std::get<uvc::index::kList>(node); }
Map const& MapIn(Setting const& node) { return std::get<uvc::index::kMap>(node); }

TEST(GetItem, FindsChildrenOrThrows) {
  Setting root = MapOf({{"a", ListOf({Int(1), Int(2)})}, {"s", Int(3)}});
  Setting const& constRoot = root;
  Setting& list = uvc::GetItem(root, K("a"));
  EXPECT_EQ(&list, &MapIn(root).at("a"));
  EXPECT_EQ(&uvc::GetItem(list, I(1)), &ListIn(list)[1]);
  EXPECT_EQ(&uvc::GetItem(constRoot, Path{K("a"), I(1)}), &ListIn(list)[1]);
  EXPECT_EQ(&uvc::GetItem(root, uvc::Root()), &root);

  EXPECT_EQ(ErrorOf([&] { uvc::GetItem(root, K("b")); }), kNotFound);
  EXPECT_EQ(ErrorOf([&] { uvc::GetItem(constRoot, Path{K("a"), I(2)}); }), kNotFound);
  EXPECT_THROW(uvc::GetItem(root, I(0)), std::bad_variant_access);
  EXPECT_THROW(uvc::GetItem(list, K("a")), std::bad_variant_access);
  EXPECT_THROW(uvc::GetItem(constRoot, Path{K("s"), K("x")}), std::bad_variant_access);
}

TEST(SetItemById, ModeRulesAndErrors) {
  struct Case {
    char const* name;
    Setting node;
    uvc::Id id;
    uvc::EditMode mode;
    uvc::Result error;
  };
  Case const cases[] = {
      {"index 0 into empty list without Append", ListOf({}), I(0), mode::Insert | mode::Replace,
       kNotFound},
      {"existing index without Replace", ListOf({Int(1)}), I(0), mode::Append | mode::Insert,
       kFound},
      {"index on a map", MapOf({}), I(0), mode::All, kNotMatched},
      {"absent key without Insert", MapOf({}), K("a"), mode::Append | mode::Replace, kNotFound},
      {"existing key with Insert alone", MapOf({{"a", Int(1)}}), K("a"), mode::Insert, kFound},
      {"key on a list", ListOf({}), K("a"), mode::All, kNotMatched},
      {"key on a scalar", Int(1), K("a"), mode::All, kNotMatched},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    Setting node = c.node;
    EXPECT_EQ(ErrorOf([&] { uvc::SetItem(node, c.id, Int(9), c.mode); }), c.error);
    EXPECT_EQ(node, c.node);
  }
}

TEST(SetItemById, FillsTheGapBeforeAnIndexBeyondTheEnd) {
  Setting list = ListOf({});
  Setting& stored = uvc::SetItem(list, I(5), Int(7, true), mode::Append);
  ASSERT_EQ(ListIn(list).size(), 6u);
  for (std::size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(ListIn(list)[i].index(), uvc::index::kNone) << i;
    EXPECT_FALSE(ListIn(list)[i].attributes.readOnly) << i;
  }
  EXPECT_EQ(&stored, &ListIn(list)[5]);
  EXPECT_EQ(stored, Int(7, true));

  uvc::SetItem(list, I(6), Int(8), mode::Append);  // index equal to the size appends
  EXPECT_EQ(ListIn(list).size(), 7u);
  EXPECT_EQ(ListIn(list)[6], Int(8));
}

TEST(SetItemById, StoredSlotsTakeValueAndAttributes) {
  Setting list = ListOf({Int(1, true), Int(2)});
  uvc::SetItem(list, I(0), Int(5), mode::Replace);
  uvc::SetItem(list, I(1), Int(6, true), mode::Replace);
  EXPECT_EQ(list, ListOf({Int(5), Int(6, true)}));

  Setting map = MapOf({{"a", Int(1, true)}});
  Setting& replaced = uvc::SetItem(map, K("a"), Int(3), mode::Replace);
  Setting& inserted = uvc::SetItem(map, K("b"), Int(4, true), mode::Insert);
  EXPECT_EQ(map, MapOf({{"a", Int(3)}, {"b", Int(4, true)}}));
  EXPECT_EQ(&replaced, &MapIn(map).at("a"));
  EXPECT_EQ(&inserted, &MapIn(map).at("b"));
}

TEST(SetItemByPath, BuildsMissingLevelsBelowTheInsertionPoint) {
  Setting root = MapOf({{"x", MapOf({}, true)}});
  Setting& stored = uvc::SetItem(root, Path{K("x"), K("a"), I(2), K("b")}, Int(7), mode::Insert);
  Setting const expected =
      MapOf({{"x", MapOf({{"a", ListOf({Setting(), Setting(), MapOf({{"b", Int(7)}})})}}, true)}});
  EXPECT_EQ(root, expected);
  EXPECT_EQ(&stored, &uvc::GetItem(root, Path{K("x"), K("a"), I(2), K("b")}));

  // The last id exists: Insert alone does not permit storing there.
  EXPECT_EQ(ErrorOf([&] {
              uvc::SetItem(root, Path{K("x"), K("a")}, Int(1), mode::Insert);
            }),
            kFound);
  EXPECT_EQ(root, expected);
}

TEST(SetItemByPath, ThroughAScalarNeedsReplace) {
  Setting const before = MapOf({{"a", Int(5, true)}});
  Setting root = before;
  EXPECT_EQ(ErrorOf([&] {
              uvc::SetItem(root, Path{K("a"), K("b")}, Int(1), mode::Insert | mode::Append);
            }),
            kNotMatched);
  // Replace permits the new container, but the mode must still permit the store into it;
  // when it does not, the scalar stays as it was.
  EXPECT_EQ(ErrorOf([&] {
              uvc::SetItem(root, Path{K("a"), I(3)}, Int(1), mode::Replace);
            }),
            kNotFound);
  EXPECT_EQ(ErrorOf([&] {
              uvc::SetItem(root, Path{K("a"), K("b")}, Int(1), mode::Replace);
            }),
            kNotFound);
  EXPECT_EQ(root, before);

  // The replaced node keeps its own attributes.
  Setting& stored = uvc::SetItem(root, Path{K("a"), K("b")}, Int(1), mode::Replace | mode::Insert);
  EXPECT_EQ(root, MapOf({{"a", MapOf({{"b", Int(1)}}, true)}}));
  EXPECT_EQ(&stored, &MapIn(MapIn(root).at("a")).at("b"));

  uvc::SetItem(root, Path{K("a"), I(1)}, Int(2), mode::Replace | mode::Append);
  EXPECT_EQ(root, MapOf({{"a", ListOf({Setting(), Int(2)}, true)}}));
}

TEST(SetItemByPath, AcceptsARangeOfIdReferences) {
  Path const full{K("outer"), K("a"), I(0)};
  Setting root = MapOf({{"a", ListOf({})}});
  Setting& stored =
      uvc::SetItem(root, uvc::aux::MakeRefRange(1, full.size(), full), Int(3), mode::Append);
  EXPECT_EQ(root, MapOf({{"a", ListOf({Int(3)})}}));
  EXPECT_EQ(&stored, &ListIn(MapIn(root).at("a"))[0]);

  Setting empty = MapOf({});
  uvc::SetItem(empty, uvc::aux::MakeRefRange(-2, full.size(), full), Int(4), mode::Insert);
  EXPECT_EQ(empty, MapOf({{"a", ListOf({Int(4)})}}));
}

TEST(DelItem, ReturnsCodesForEveryOutcome) {
  Setting const before = MapOf({{"a", Int(1)}, {"l", ListOf({Int(1), Int(2)})}});
  struct Case {
    Path path;
    int code;
  };
  Case const refusals[] = {
      {{}, kInvalidArgument},               // the root cannot be removed
      {{K("b")}, 1},                        // missing key
      {{K("l"), I(2)}, 1},                  // index at the end
      {{K("l"), K("x")}, kNotMatchedCode},  // key on a list
      {{I(0)}, kNotMatchedCode},            // index on a map
      {{K("b"), K("x")}, kNotMatchedCode},  // missing step before the last
      {{K("a"), K("x")}, kNotMatchedCode},  // scalar before the last
      {{I(0), I(0)}, kNotMatchedCode},      // unfitting step before the last
  };
  for (auto const& c : refusals) {
    Setting root = before;
    EXPECT_EQ(uvc::DelItem(root, c.path, true), c.code) << ::testing::PrintToString(c.path);
    EXPECT_EQ(root, before);
  }
  Setting root = before;
  EXPECT_EQ(uvc::DelItem(root, K("a"), false), 0);
  EXPECT_EQ(uvc::DelItem(root, K("a"), false), 1);
  EXPECT_EQ(uvc::DelItem(root, I(0), false), kNotMatchedCode);
  EXPECT_EQ(root, MapOf({{"l", ListOf({Int(1), Int(2)})}}));
}

TEST(DelItem, ResetsInPlaceOrErasesListElements) {
  Setting const before = ListOf({Int(1), Int(2, true), Int(3)});
  Setting kept = before;
  EXPECT_EQ(uvc::DelItem(kept, Path{I(1)}, false), 0);
  EXPECT_EQ(kept, ListOf({Int(1), Setting(uvc_sm::None{}, Attributes{true}), Int(3)}));

  Setting erased = before;
  EXPECT_EQ(uvc::DelItem(erased, I(1), true), 0);
  EXPECT_EQ(erased, ListOf({Int(1), Int(3)}));
  EXPECT_EQ(uvc::DelItem(erased, I(2), true), 1);
}

}  // namespace
}  // namespace values_test
