// Settings as trees: GetItem/SetItem/DelItem, the read-only rule, ForEach, MakeRefRange,
// exceptions turned into results and the formatters.

#include <functional>
#include <stdexcept>

#include "support/settings.h"
#include "uvc/tree.h"

namespace test_support {
namespace {

namespace mode = uvc::edit_mode;
using uvc::Path;
uvc::Result const kFound{Code(0x8000004Du), "uvc: Item with given id already exists"};
uvc::Result const kNotFound{Code(0x8000004Cu), "uvc: Item with given id does not exist"};
uvc::Result const kNotMatched{Code(0x8000004Au),
                              "uvc: Path or id does not correspond to contained item"};

TEST(Tree, GetSetAndDelItemRefuseWithExactErrorsAndLeaveTheTree) {
  Setting const before = MapOf({{"a", Int(1)}, {"l", ListOf({Int(1), Int(2, true)})}});
  std::tuple<char const*, uvc::EditMode, uvc::Result, int> const cases[] = {
      {"b", mode::Append | mode::Replace, kNotFound, 1},
      {"a", mode::Insert, kFound, 0},
      {"l/0", mode::Append | mode::Insert, kFound, 0},
      {"l/2", mode::Insert | mode::Replace, kNotFound, 1},
      {"0", mode::Insert | mode::Append, kNotMatched, Code(0x8000004Au)},
      {"a/b", mode::Insert | mode::Append, kNotMatched, Code(0x8000004Au)},
      {"a/3", mode::Replace, kNotFound, Code(0x8000004Au)}};
  for (auto const& [path, editMode, error, delCode] : cases) {
    Setting root = before;
    EXPECT_EQ(ErrorOf([&, m = editMode, p = path] { uvc::SetItem(root, P(p), Int(9), m); }), error)
        << path;
    EXPECT_EQ(delCode == 0 ? 0 : uvc::DelItem(root, P(path), true), delCode) << path;
    EXPECT_EQ(root, before) << path;
  }
  Setting root = before;
  EXPECT_EQ(uvc::DelItem(root, Path{}, true), Code(0x80000046u));  // never the root
  EXPECT_EQ(ErrorOf([&] { uvc::GetItem(before, P("l/2")); }), kNotFound);
  EXPECT_THROW(uvc::GetItem(before, P("a/x")), std::bad_variant_access);
}

TEST(Tree, StoresBuildLevelsFillGapsAndKeepTheReplacedNodesAttributes) {
  Setting root = MapOf({{"x", Int(5, true)}});
  Setting& stored = uvc::SetItem(root, P("n/a/2/b"), Int(7), mode::Insert);
  EXPECT_EQ(&stored, &uvc::GetItem(root, P("n/a/2/b")));
  uvc::SetItem(root, P("x/1"), Int(2, true), mode::Replace | mode::Append);
  Path const full = P("outer/r/2/3");
  uvc::SetItem(root, uvc::aux::MakeRefRange(1, 2, full), Int(3), mode::Insert);
  EXPECT_EQ(uvc::aux::ToPath(uvc::aux::MakeRefRange(-10, 1, full)), P("outer"));
  EXPECT_EQ(uvc::aux::ToPath(uvc::aux::MakeRefRange(2, 99, full)), P("2/3"));
  EXPECT_EQ(root,
            MapOf({{"n", MapOf({{"a", ListOf({Setting(), Setting(), MapOf({{"b", Int(7)}})})}})},
                   {"r", Int(3)},
                   {"x", ListOf({Setting(), Int(2, true)}, true)}}));
  EXPECT_EQ(uvc::DelItem(root, P("x/1"), false), 0);  // reset in place, attributes kept
  EXPECT_EQ(uvc::DelItem(root, P("x/0"), true), 0);   // erased
  EXPECT_EQ(uvc::GetItem(root, P("x")), ListOf({ReadOnly(Setting())}, true));
}

TEST(Tree, ReadOnlyAndForEachLookAtEveryLevelAndStopAtAValuelessNode) {
  EXPECT_NE(Int(1), Int(1, true));  // equality takes the attributes in
  EXPECT_FALSE(settings_manager::IsReadOnly(MapOf({{"l", ListOf({Int(2), Int(3)})}})));
  EXPECT_TRUE(settings_manager::IsReadOnly(MapOf({{"l", ListOf({Int(2), Int(3, true)})}})));
  Setting map = MapOf({{"a", Int(1)}, {"z", Int(2, true)}});
  MakeValueless(std::get<uvc::index::kMap>(map).at("a"));  // the walk ends before z
  EXPECT_FALSE(settings_manager::IsReadOnly(map));
  Setting root = MapOf({{"b", ListOf({Int(1), MapOf({})})}, {"a", Int(2)}, {"c", Int(3)}});
  auto const walk = [&root](Path const& stopAt) {
    std::string seen;
    auto const result = uvc::ForEach(root, [&](Setting const& node, Path const& path) {
      seen += Text(path) + ":" + std::to_string(node.index()) + " ";
      return path == stopAt ? uvc::for_each::Stop : uvc::for_each::Continue;
    });
    return std::make_pair(result, seen);
  };
  EXPECT_EQ(walk(P("z")), std::make_pair(uvc::for_each::Continue,
                                         std::string(":2 a/:6 b/:1 b/0/:6 b/1/:2 c/:6 ")));
  EXPECT_EQ(walk(P("b/0")),
            std::make_pair(uvc::for_each::Stop, std::string(":2 a/:6 b/:1 b/0/:6 ")));
  MakeValueless(std::get<uvc::index::kMap>(root).at("b"));
  EXPECT_EQ(walk(P("z")).first, uvc::for_each::Valueless);
}

TEST(Results, ExceptionsBecomeCodesAndFormattersPrintCodeTexts) {
  std::pair<std::function<void()>, uvc::Result> const thrown[] = {
      {[] {
         throw uvc::Result{Code(0x80000059u), "disk"};
       },
       {Code(0x80000059u), "disk"}},
      {[] { throw uvc::Error(Code(0x80000066u), "ro"); }, {Code(0x80000066u), "ro"}},
      {[] { static_cast<void>(std::get<std::string>(Setting(true))); },
       {Code(0x8000004Au), "uvc: std::bad_variant_access"}},
      {[] { throw std::out_of_range("9"); }, {Code(0x8000004Bu), "uvc: std::exception: 9"}},
      {[] { throw 42; }, {Code(0x80000072u), "uvc: non-std exception"}}};
  for (auto const& [thrower, result] : thrown) {
    uvc::Result caught{};
    try {
      thrower();
    } catch (...) {
      caught = uvc::ProcessException();
    }
    EXPECT_EQ(caught, result);
  }
}

}  // namespace
}  // namespace test_support
