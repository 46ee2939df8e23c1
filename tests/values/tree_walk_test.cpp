// Walking a subtree with ForEach, and taking part of a path with MakeRefRange.

#include <limits>

#include "uvc/tree.h"
#include "values_test_util.h"

namespace values_test {
namespace {

using uvc::Path;
namespace for_each = uvc::for_each;

struct Visit {
  Path path;
  std::size_t index;
  bool operator==(Visit const& other) const { return path == other.path && index == other.index; }
};
void PrintTo(Visit const& visit, std::ostream* os) {
  *os << ::testing::PrintToString(visit.path) << '#' << visit.index;
}

// Walks `node`, recording every visit; `answer` gives the visitor's result for a path.
template <typename Answer>
std::pair<for_each::Option, std::vector<Visit>> Walk(Setting const& node, Answer answer) {
  std::vector<Visit> visits;
  auto const result = uvc::ForEach(node, [&](Setting const& visited, Path const& path) {
    visits.push_back({path, visited.index()});
    return answer(path);
  });
  return {result, visits};
}
auto const kContinue = [](Path const&) { return for_each::Continue; };

constexpr auto kNpos = std::numeric_limits<std::size_t>::max();

Setting Sample() {
  // Inserted as b, a, c: the walk still goes by key order.
  Setting root = MapOf({});
  auto& map = std::get<uvc::index::kMap>(root);
  map.emplace("b", ListOf({Int(1), MapOf({})}));
  map.emplace("a", Int(2));
  map.emplace("c", MapOf({{"d", Setting()}}));
  return root;
}

TEST(ForEach, VisitsParentsFirstInKeyAndIndexOrder) {
  auto const [result, visits] = Walk(Sample(), kContinue);
  EXPECT_EQ(result, for_each::Continue);
  EXPECT_EQ(visits, (std::vector<Visit>{{{}, uvc::index::kMap},
                                        {{K("a")}, uvc::index::kInt32},
                                        {{K("b")}, uvc::index::kList},
                                        {{K("b"), I(0)}, uvc::index::kInt32},
                                        {{K("b"), I(1)}, uvc::index::kMap},
                                        {{K("c")}, uvc::index::kMap},
                                        {{K("c"), K("d")}, uvc::index::kNone}}));
}

TEST(ForEach, StopEndsTheWholeWalkAndPassIsPassedUp) {
  Path const stopAt{K("b"), I(0)};
  auto const stopped = Walk(Sample(), [&](Path const& path) {
    return path == stopAt ? for_each::Stop : for_each::Continue;
  });
  EXPECT_EQ(stopped.first, for_each::Stop);
  ASSERT_EQ(stopped.second.size(), 4u);
  EXPECT_EQ(stopped.second.back().path, stopAt);

  auto const passed = Walk(Sample(), [](Path const& path) {
    return path == Path{K("a")} ? for_each::Pass : for_each::Continue;
  });
  EXPECT_EQ(passed.first, for_each::Pass);
  EXPECT_EQ(passed.second.size(), 7u);  // a non-stopping result does not end the walk
}

TEST(ForEach, AValuelessNodeEndsTheWalk) {
  Setting root = MapOf({{"a", Int(1)}, {"b", Int(2)}, {"c", Int(3)}});
  MakeValueless(std::get<uvc::index::kMap>(root).at("b"));
  ASSERT_TRUE(std::get<uvc::index::kMap>(root).at("b").valueless_by_exception());

  auto const [result, visits] = Walk(root, kContinue);
  EXPECT_EQ(result, for_each::Valueless);
  ASSERT_EQ(visits.size(), 3u);  // the valueless node is still shown to the visitor; c is not
  EXPECT_EQ(visits[2].path, Path{K("b")});
  EXPECT_EQ(visits[2].index, std::variant_npos);
}

TEST(ForEach, ExtendsAGivenStartPathAndRestoresIt) {
  Path start{K("root")};
  std::vector<Path> paths;
  Setting const node = MapOf({{"a", Int(1)}});
  uvc::ForEach(node, start, [&](Setting const&, Path const& path) {
    paths.push_back(path);
    return for_each::Continue;
  });
  EXPECT_EQ(paths, (std::vector<Path>{{K("root")}, {K("root"), K("a")}}));
  EXPECT_EQ(start, Path{K("root")});
}

TEST(MakeRefRange, TakesIdsFromBeginUpToEnd) {
  Path const path{K("a"), I(1), K("b"), I(2)};
  struct Case {
    std::int64_t begin;
    std::size_t end;
    Path ids;
  };
  Case const cases[] = {
      {-1, path.size(), {I(2)}}, {1, 3, {I(1), K("b")}},
      {0, path.size(), path},    {-10, 1, {K("a")}},  // a begin before the start is clamped to it
      {2, 99, {K("b"), I(2)}},   {2, kNpos, {K("b"), I(2)}},
      {5, path.size(), {}},      {3, 2, {}},
  };
  for (auto const& c : cases) {
    auto const range = uvc::aux::MakeRefRange(c.begin, c.end, path);
    EXPECT_EQ(uvc::aux::ToPath(range), c.ids) << c.begin << ".." << c.end;
  }
  auto const last = uvc::aux::MakeRefRange(-1, path.size(), path);
  ASSERT_EQ(last.size(), 1u);
  EXPECT_EQ(&last[0].get(), &path[3]);  // references into the path, not copies
}

}  // namespace
}  // namespace values_test
