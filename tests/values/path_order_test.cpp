// The order of paths and of map keys: indices before keys, numbers by value, keys by their
// bytes, a prefix before its extensions.

#include <algorithm>
#include <set>

#include "values_test_util.h"

namespace values_test {
namespace {

using uvc::Path;

std::string const kHigh = "\xC3\xA9";  // bytes above 0x7F sort after every ASCII byte

TEST(PathOrder, IndicesFirstThenKeysBytewisePrefixesFirst) {
  std::vector<Path> const ascending = {
      {},         {I(0)},   {I(0), I(5)}, {I(0), K("a")}, {I(2)},
      {I(10)},  // numerically, not as text
      {I(65536)}, {K("B")}, {K("a")},     {K("a"), I(0)}, {K("a"), K("")},
      {K("ab")},  {K("z")}, {K("z~")},    {K(kHigh)},     {K(kHigh), I(0)},
  };
  for (std::size_t i = 0; i + 1 < ascending.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_TRUE(ascending[i] < ascending[i + 1]);
    EXPECT_FALSE(ascending[i + 1] < ascending[i]);
  }
  std::set<Path> const keyed(ascending.rbegin(), ascending.rend());
  EXPECT_TRUE(std::equal(keyed.begin(), keyed.end(), ascending.begin(), ascending.end()));
}

TEST(MapOrder, KeysIterateByBytesHighBytesLast) {
  Setting const node = MapOf({{kHigh, Int(1)}, {"z", Int(2)}, {"Z", Int(3)}, {"a", Int(4)}});
  std::vector<std::string> keys;
  for (auto const& entry : std::get<uvc::index::kMap>(node)) keys.push_back(entry.first);
  EXPECT_EQ(keys, (std::vector<std::string>{"Z", "a", "z", kHigh}));
  // A string_view lookup compiles only with a transparent comparator.
  EXPECT_EQ(std::get<uvc::index::kMap>(node).count(std::string_view("z")), 1u);
}

}  // namespace
}  // namespace values_test
