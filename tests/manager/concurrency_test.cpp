// Client threads on one manager with a file: every call answers as if alone, no reader sees
// a counter go back, and the file ends equal to the tree.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <utility>

#include "support/manager_fixture.h"

namespace test_support {
namespace {

class Concurrency : public ManagerTest {};

TEST_F(Concurrency, ReadersAndWritersKeepTreeAndFileEqual) {
  constexpr int kWriters = 4;
  constexpr std::uint64_t kRounds = 60;
  auto const counter = [](int w) { return P("w" + std::to_string(w) + "/counter"); };
  for (int w = 0; w < kWriters; ++w)
    ASSERT_EQ(creator->CreateSetting(counter(w), Setting(std::uint64_t{0})), 0);
  ASSERT_EQ(creator->CreateSetting(P("shared"), Int(0)), 0);
  std::atomic<int> unexpected{0}, writing{kWriters};
  auto check = [&](int rc, int a, int b) { unexpected += rc != a && rc != b; };
  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; ++w) {
    threads.emplace_back([&, w, base = "w" + std::to_string(w) + "/k"] {
      for (std::uint64_t r = 1; r <= kRounds; ++r) {
        auto const item = P(base + std::to_string(r % 5));
        check(valueSetter->SetValue(counter(w), r), 0, 0);
        check(creator->CreateSetting(item, MapOf({{"v", Int(int(r))}})), 0, Code(0x8000004Du));
        check(setter->SetAttribute(item, Attributes{r % 2 == 0}), 0, 1);
        if (r % 3 == 0) check(deleter->DeleteSetting(P(base + std::to_string((r + 2) % 5))), 0, 1);
        check(setter->SetSetting(P("shared"), Int(w * 1000 + int(r))), 0, 0);
      }
      --writing;
    });
  }
  threads.emplace_back([&] {  // a counter has one writer: a reader never sees it go back
    std::vector<std::uint64_t> last(kWriters, 0);
    for (Setting value; writing > 0;)
      for (int w = 0; w < kWriters; ++w) {
        check(getter->GetSetting(counter(w), value), 0, 0);
        unexpected +=
            std::get<std::uint64_t>(value) < std::exchange(last[w], std::get<std::uint64_t>(value));
      }
  });
  for (auto& t : threads) t.join();
  EXPECT_EQ(unexpected, 0);
  for (int w = 0; w < kWriters; ++w) EXPECT_EQ(Get(Text(counter(w))), Setting(kRounds));
  auto const tree = Tree();
  Reopen();
  EXPECT_EQ(Tree(), tree);
  EXPECT_EQ(Rows().size(), CountNodes(tree));
}

}  // namespace
}  // namespace test_support
