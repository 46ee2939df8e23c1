// The property of the public API that everything else rests on: whatever a random
// sequence of calls (valid and invalid paths, every kind of value, valueless ones too)
// answers, after every call the tree in memory is the tree a fresh manager loads from
// the file. A manager without a file runs the same calls beside it and must answer and
// look the same.

#include <sstream>

#include "reliability_util.h"
#include "support/fault_vfs.h"
#include "support/temp_dir.h"

namespace reliability {
namespace {

namespace ix = uvc::index;

// Every top-level key the run can create.
std::vector<std::string> const& Keys() {
  static std::vector<std::string> const keys = [] {
    std::vector<std::string> all = TopKeys();
    for (char const* k : {"a", "b", "c", "d", "e", "ab", "A", "a.b", "\xC3\xA9t\xC3\xA9", "k\xFF",
                          "mtu", "port", "dns", "x-y"})
      all.emplace_back(k);
    all.emplace_back("a\0b", 3);
    return all;
  }();
  return keys;
}

void MakeValueless(Setting& s) {
  struct Refuse {};
  struct Throwing {
    operator std::map<std::string, Setting, std::less<>>() const { throw Refuse{}; }
  };
  try {
    s.emplace<ix::kMap>(Throwing{});
  } catch (Refuse const&) {
  }
}

class Calls {
 public:
  explicit Calls(std::mt19937_64& random) : values_(random) {}

  uvc::Path Path(Setting const& tree) {
    if (values_.Chance(12)) return Invalid();
    if (values_.Chance(50)) {
      // An existing node, or a child of one that may not exist.
      std::vector<uvc::Path> nodes;
      Collect(tree, uvc::Path(), nodes);
      if (!nodes.empty()) {
        uvc::Path path = nodes[values_.Below(nodes.size())];
        if (values_.Chance(25)) path.push_back(Step());
        return path;
      }
    }
    uvc::Path path{Keys()[values_.Below(Keys().size())]};
    for (auto extra = values_.Below(4); extra > 0; --extra) path.push_back(Step());
    return path;
  }

  Setting Value() {
    Setting value = values_.Chance(50) ? values_.Scalar() : values_.Tree(1 + values_.Below(30));
    if (values_.Chance(3)) MakeValueless(value);
    return value;
  }

  Values& values() { return values_; }

 private:
  uvc::Id Step() {
    if (values_.Chance(30)) return uvc::Id(std::in_place_index<0>, values_.Below(5));
    return uvc::Id(std::in_place_index<1>, values_.Key());
  }

  // Paths the id rules refuse.
  uvc::Path Invalid() {
    using Id = uvc::Id;
    switch (values_.Below(8)) {
      case 0:
        return {};  // the root
      case 1:
        return {Id(std::in_place_index<0>, 0u), Id("a")};  // an index first
      case 2: {
        static char const* const bad[] = {"a b", "a%", "a_b", "x/y", "q\"", "back`", "it's", "\\"};
        return {Id("net"), Id(bad[values_.Below(8)])};
      }
      case 3:
        return {Id("net"), Id(std::string())};  // an empty key
      case 4:
        return {Id("9lives")};  // a key that starts with a digit
      case 5:
        return {Id("net"), Id(std::in_place_index<0>, 65536u)};  // an index too big
      case 6:
        return {Id("net"), Id(std::in_place_index<0>, ~std::uint64_t{0})};
      default:
        return {Id(std::string("a\0b", 3))};  // valid after all: NUL is no special character
    }
  }

  static void Collect(Setting const& node, uvc::Path at, std::vector<uvc::Path>& out) {
    if (!at.empty()) out.push_back(at);
    if (auto const* map = std::get_if<ix::kMap>(&node)) {
      for (auto const& [key, child] : *map) {
        at.emplace_back(std::in_place_index<1>, key);
        Collect(child, at, out);
        at.pop_back();
      }
    } else if (auto const* list = std::get_if<ix::kList>(&node)) {
      for (std::size_t i = 0; i < list->size(); ++i) {
        at.emplace_back(std::in_place_index<0>, i);
        Collect((*list)[i], at, out);
        at.pop_back();
      }
    }
  }

  Values values_;
};

TEST(Property, AfterEveryCallTheTreeInMemoryIsTheTreeAFreshManagerLoads) {
  QuietLog quiet;
  auto const seed = TestSeed("Property");
  std::mt19937_64 random(seed);
  // Durability is the power-cut suite's business: syncs are skipped here, for speed.
  test_support::FaultVfs vfs;
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");
  std::size_t const steps = Scaled(2000, 150);
  Deadline const deadline(std::chrono::milliseconds(Scaled(30000, 15000)));

  Client file, memory;
  ASSERT_EQ(file.Open(db), 0);
  ASSERT_EQ(memory.Open(""), 0);
  Calls calls(random);
  std::map<std::string, std::size_t> answers;
  std::size_t step = 0, maxNodes = 0;
  for (; step < steps && !deadline.Passed(); ++step) {
    Setting const tree = TreeOf(*file.getter, Keys());
    uvc::Path const path = calls.Path(tree);
    std::string call;
    int a = 0, b = 0;
    switch (calls.values().Below(8)) {
      case 0:
      case 1: {
        call = "CreateSetting";
        auto const value = calls.Value();
        a = file.creator->CreateSetting(path, value);
        b = memory.creator->CreateSetting(path, value);
        break;
      }
      case 2: {
        call = "SetValue";
        auto const value = calls.Value();
        a = file.valueSetter->SetValue(path, value.value());
        b = memory.valueSetter->SetValue(path, value.value());
        break;
      }
      case 3: {
        call = "SetSetting";
        auto const value = calls.Value();
        a = file.setter->SetSetting(path, value);
        b = memory.setter->SetSetting(path, value);
        break;
      }
      case 4: {
        call = "SetAttribute";
        Attributes const attributes{calls.values().Chance(50)};
        a = file.setter->SetAttribute(path, attributes);
        b = memory.setter->SetAttribute(path, attributes);
        break;
      }
      case 5: {
        call = "DeleteSetting";
        a = file.deleter->DeleteSetting(path);
        b = memory.deleter->DeleteSetting(path);
        break;
      }
      case 6: {
        call = "GetSetting";
        Setting x, y;
        a = file.getter->GetSetting(path, x);
        b = memory.getter->GetSetting(path, y);
        ASSERT_TRUE(Same(x, y)) << "step " << step;
        break;
      }
      default: {
        call = "GetAttribute";
        Attributes x{true}, y{true};
        a = file.getter->GetAttribute(path, x);
        b = memory.getter->GetAttribute(path, y);
        ASSERT_EQ(x, y) << "step " << step;
      }
    }
    std::ostringstream answer;
    answer << call << " " << std::hex << a;
    ++answers[answer.str()];
    std::string const where = "step " + std::to_string(step) + " (seed " + std::to_string(seed) +
                              "): " + call + "(" + Text(path) + ")";
    ASSERT_EQ(a, b) << where;

    Setting const now = TreeOf(*file.getter, Keys());
    ASSERT_TRUE(Same(now, TreeOf(*memory.getter, Keys()))) << where;
    // A fresh manager on the file, beside the one that wrote it.
    Client fresh;
    ASSERT_EQ(fresh.Open(db), 0) << where;
    ASSERT_TRUE(Same(now, TreeOf(*fresh.getter, Keys())))
        << where << "\nmemory: " << Describe(now)
        << "\nfile:   " << Describe(TreeOf(*fresh.getter, Keys()));
    std::string error;
    Setting rows;
    ASSERT_TRUE(LoadFile(db, rows, error)) << where << ": " << error;
    ASSERT_TRUE(Same(now, rows)) << where << ": the file holds rows of no top-level key";
    maxNodes = std::max(maxNodes, CountNodes(now));
  }
  EXPECT_GE(step, std::min<std::size_t>(steps, 150));
  std::ostringstream figures;
  figures << step << " random calls, each followed by a fresh manager on the file (trees up to "
          << maxNodes << " nodes), answers:";
  for (auto const& [answer, n] : answers) figures << " [" << answer << "] " << n;
  Report("property", figures.str());
}

}  // namespace
}  // namespace reliability
