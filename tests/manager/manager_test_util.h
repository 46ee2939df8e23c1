#pragma once

// Shared setup of the manager suites: a manager on a database file in a temporary folder,
// its role interfaces, the captured log, and short ways to write paths and values.

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "settings_manager/settings_manager.h"
#include "support/captured_log.h"
#include "support/sqlite_file.h"
#include "support/temp_dir.h"
#include "uvc/path.h"

namespace manager_test {

using settings_manager::Attributes;
using settings_manager::Setting;
using tern::logger::LogLevel;
using test_support::CapturedRecord;

constexpr char kSource[] = "settings_manager/src/settings_manager";

// A path from its text form; the text must be valid.
inline uvc::Path P(std::string_view text) {
  auto [path, state] = uvc::FromString(text, settings_manager::meta::GetIdSpecification());
  EXPECT_EQ(state, uvc::IdState::Ok) << text;
  return path;
}

inline Setting ReadOnly(Setting s) {
  s.attributes.readOnly = true;
  return s;
}

inline Setting Map(std::initializer_list<std::pair<std::string const, Setting>> entries) {
  Setting s;
  s.emplace<uvc::index::kMap>(entries);
  return s;
}

inline Setting List(std::initializer_list<Setting> elements) {
  Setting s;
  s.emplace<uvc::index::kList>(elements);
  return s;
}

inline Setting Str(std::string text) { return Setting(std::move(text)); }

// Makes `s` hold no alternative, as a failed assignment would.
// (A map, unlike a string, is built in place by emplace, so a throw leaves nothing.)
template <typename Variant>
void MakeValueless(Variant& s) {
  using MapValue = std::map<std::string, Setting, std::less<>>;
  struct Throwing {
    operator MapValue() const { throw 7; }
  };
  try {
    s.template emplace<uvc::index::kMap>(Throwing{});
  } catch (int) {
  }
}

// The stored value record of an int32, as the file holds it.
inline std::vector<std::uint8_t> Int32Record(std::int32_t v) {
  std::vector<std::uint8_t> bytes(16, 0);
  bytes[0] = 6;
  auto const u = static_cast<std::uint32_t>(v);
  for (int i = 0; i < 4; ++i) bytes[8 + i] = static_cast<std::uint8_t>(u >> (8 * i));
  return bytes;
}

inline std::vector<std::uint8_t> AttribRecord(bool readOnly) {
  std::vector<std::uint8_t> bytes(16, 0);
  bytes[2] = 1;  // version 0x10000
  bytes[8] = readOnly ? 1 : 0;
  return bytes;
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

// The six role interfaces of one manager.
struct Roles {
  // Fills every pointer from `manager`; true when all six accessors answered 0.
  bool From(settings_manager::ISettingsManager& manager) {
    return manager.GetSettingsCreator(creator) == 0 && manager.GetSettingsGetter(getter) == 0 &&
           manager.GetSettingsValueSetter(valueSetter) == 0 &&
           manager.GetSettingsSetter(setter) == 0 && manager.GetSettingsDeleter(deleter) == 0 &&
           manager.GetSettingsUpdateSubscriber(subscriber) == 0;
  }
  void Reset() { *this = Roles(); }
  auto Tie() const { return std::tie(creator, getter, valueSetter, setter, deleter, subscriber); }

  std::shared_ptr<settings_manager::ISettingsCreator> creator;
  std::shared_ptr<settings_manager::ISettingsGetter> getter;
  std::shared_ptr<settings_manager::ISettingsValueSetter> valueSetter;
  std::shared_ptr<settings_manager::ISettingsSetter> setter;
  std::shared_ptr<settings_manager::ISettingsDeleter> deleter;
  std::shared_ptr<settings_manager::ISettingsUpdateSubscriber> subscriber;
};

// A manager on a fresh database file with all its role interfaces; the log is captured
// from before its creation.
class ManagerTest : public ::testing::Test, protected Roles {
 protected:
  void SetUp() override { Open(dir.File("settings.db")); }
  // The roles (a base) would otherwise keep the manager past the folder and the log.
  ~ManagerTest() override { Close(); }

  // Releases the manager (every interface) and makes a new one on `path`.
  void Open(std::string const& path) {
    Close();
    dbPath = path;
    settings_manager::SettingsManagerConfig const config{path};
    ASSERT_EQ(settings_manager::CreateSettingsManager(config, manager), 0);
    ASSERT_TRUE(From(*manager));
    auto const init = log.ByFunction("SettingsManager");
    ASSERT_FALSE(init.empty());
    startup.clear();
    for (auto const& r : init) startup.push_back(r.message);
    prefix = init.back().message.substr(0, 11);  // "[SM] +XXXX ", the manager's id
    log.Clear();
  }
  void Reopen() { Open(dbPath); }
  void Close() {
    Reset();
    manager.reset();
  }

  Setting Get(std::string_view path) {
    Setting out;
    EXPECT_EQ(getter->GetSetting(P(path), out), 0) << path;
    return out;
  }
  int GetCode(std::string_view path) {
    Setting out;
    return getter->GetSetting(P(path), out);
  }
  std::vector<test_support::SqliteFile::Row> Rows() {
    return test_support::SqliteFile(dbPath).DataRows();
  }
  std::vector<std::string> Keys() {
    std::vector<std::string> keys;
    for (auto const& row : Rows()) keys.push_back(row.path);
    return keys;
  }
  void Sql(std::string const& statement) { test_support::SqliteFile(dbPath).Exec(statement); }

  // The one record logged since the last Clear, checked for source and level.
  void ExpectOnly(LogLevel level, std::string const& function, std::string const& message) {
    auto const records = log.Records();
    ASSERT_EQ(records.size(), 1u) << (records.empty() ? "" : records.front().message);
    EXPECT_EQ(records[0].level, level);
    EXPECT_EQ(records[0].file, kSource);
    EXPECT_EQ(records[0].function, function);
    // Every format puts a blank after the id, which ends with one itself.
    EXPECT_EQ(records[0].message, prefix + " " + message);
  }
  void ExpectNoRecord() {
    auto const messages = log.Messages();
    EXPECT_TRUE(messages.empty()) << messages.front();
  }

  test_support::CapturedLog log;
  test_support::TempDir dir;
  std::string dbPath;
  std::string prefix;
  std::vector<std::string> startup;  // the start-up messages of the manager now open
  std::shared_ptr<settings_manager::ISettingsManager> manager;
};

}  // namespace manager_test
