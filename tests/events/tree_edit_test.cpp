// A whole-tree edit tells observers what changed, node by node, with the kinds the role
// interfaces use; CompareTrees names the same changes in advance.

#include <gtest/gtest.h>

#include <algorithm>

#include "event_test_util.h"
#include "settings_manager/tree_access.h"

namespace events_test {
namespace {

using Seen = std::vector<std::pair<std::string, int>>;

Setting Map(std::initializer_list<std::pair<std::string const, Setting>> entries) {
  Setting s;
  s.emplace<uvc::index::kMap>(entries);
  return s;
}
Setting List(std::initializer_list<Setting> elements) {
  Setting s;
  s.emplace<uvc::index::kList>(elements);
  return s;
}
Setting Marked(Setting s) {
  s.attributes.readOnly = true;
  return s;
}

class TreeEditTest : public EventsTest {};

TEST_F(TreeEditTest, ObserversHearEachChangedNodeOnce) {
  Setting const before = Map({{"keep", Int(1)},
                              {"gone", Map({{"deep", Int(1)}})},
                              {"val", Int(1)},
                              {"attr", Int(1)},
                              {"both", Int(1)},
                              {"m", Map({{"a", Int(1)}, {"b", Int(2)}})},
                              {"l", List({Int(1), Int(2)})},
                              {"grow", List({Int(1)})},
                              {"kind", Map({{"a", Int(1)}})}});
  Setting const after = Map({{"keep", Int(1)},
                             {"val", Int(2)},
                             {"attr", Marked(Int(1))},
                             {"both", Marked(Setting(std::string("x")))},
                             {"m", Marked(Map({{"a", Int(1)}, {"b", Int(3)}, {"c", Int(4)}}))},
                             {"l", List({Int(1), Int(5)})},
                             {"grow", List({Int(1), Int(2)})},
                             {"kind", List({Int(1)})},
                             {"new", Map({{"x", Int(1)}})}});
  ASSERT_EQ(settings_manager::ReplaceTree(*m.manager, before), kOk);
  auto recorder = std::make_shared<Recorder>();
  Subscribe(uvc::Path(), recorder);

  Seen expected;
  ASSERT_EQ(settings_manager::CompareTrees(before, after,
                                           [&](uvc::Path const& path, unsigned char kind) {
                                             expected.emplace_back(Text(path), kind);
                                           }),
            kOk);
  ASSERT_EQ(settings_manager::ReplaceTree(*m.manager, after), kOk);
  Drain();
  auto seen = recorder->Seen();
  std::sort(seen.begin(), seen.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(seen, (Seen{{"attr/", 4},
                        {"both/", 6},
                        {"gone/", 8},
                        {"grow/", 2},
                        {"kind/", 2},
                        {"l/1/", 2},
                        {"m/", 4},
                        {"m/b/", 2},
                        {"m/c/", 1},
                        {"new/", 1},
                        {"val/", 2}}));

  // The same tree again: nothing written, nothing heard.
  Setting now;
  ASSERT_EQ(settings_manager::GetTree(*m.manager, now), kOk);
  ASSERT_EQ(settings_manager::ReplaceTree(*m.manager, now), 1);
  Drain();
  EXPECT_EQ(recorder->Seen().size(), seen.size());
}

}  // namespace
}  // namespace events_test
