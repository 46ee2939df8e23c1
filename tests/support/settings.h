#pragma once

// Builders shared by every suite: paths and ids from text, settings of each shape, a node
// left valueless, and result checks that print the code's text (records: records.h).

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "settings_manager/paths.h"
#include "settings_manager/setting.h"
#include "support/codes.h"
#include "support/records.h"
#include "uvc/error.h"
#include "uvc/path.h"

namespace test_support {

using settings_manager::Attributes;
using settings_manager::Setting;
using Map = std::map<std::string, Setting, std::less<>>;
using List = std::vector<Setting>;

// A path from its text form; the text must be valid.
inline uvc::Path P(std::string_view text) {
  auto [path, state] = uvc::FromString(text, settings_manager::meta::GetIdSpecification());
  EXPECT_EQ(state, uvc::IdState::Ok) << text;
  return path;
}
inline std::string Text(uvc::Path const& path) { return settings_manager::PathToStr(path); }
inline uvc::Id K(std::string key) { return uvc::Id(std::in_place_index<1>, std::move(key)); }
inline uvc::Id I(std::uint64_t index) { return uvc::Id(std::in_place_index<0>, index); }

inline Setting Int(std::int32_t value, bool readOnly = false) {
  return Setting(Setting::Value(value), Attributes{readOnly});
}
inline Setting Str(std::string text, bool readOnly = false) {
  return Setting(Setting::Value(std::move(text)), Attributes{readOnly});
}
inline Setting MapOf(std::initializer_list<Map::value_type> entries, bool readOnly = false) {
  return Setting(Setting::Value(Map(entries)), Attributes{readOnly});
}
inline Setting ListOf(std::initializer_list<Setting> items, bool readOnly = false) {
  return Setting(Setting::Value(List(items)), Attributes{readOnly});
}
inline Setting ReadOnly(Setting setting) {
  setting.attributes.readOnly = true;
  return setting;
}

// Leaves `node` holding no alternative, as a failed in-place build does; its attributes
// stay as they were.
inline void MakeValueless(Setting& node) {
  struct Failing {
    operator Map() const { throw 0; }
  };
  try {
    node.emplace<uvc::index::kMap>(Failing{});
  } catch (int) {
  }
}
inline Setting Valueless() {
  Setting node;
  MakeValueless(node);
  return node;
}

// The number of nodes of `s`, itself included: the rows it takes on disk.
inline std::size_t CountNodes(Setting const& s) {
  std::size_t count = 1;
  if (auto const* list = std::get_if<uvc::index::kList>(&s))
    for (auto const& child : *list) count += CountNodes(child);
  if (auto const* map = std::get_if<uvc::index::kMap>(&s))
    for (auto const& entry : *map) count += CountNodes(entry.second);
  return count;
}

// The code and message of the uvc::Error that `action` throws; {0, "nothing thrown"}
// when it returns.
template <typename Action>
uvc::Result ErrorOf(Action&& action) {
  try {
    action();
  } catch (uvc::Error const& error) {
    return {error.code, error.what()};
  }
  return {0, "nothing thrown"};
}

}  // namespace test_support
