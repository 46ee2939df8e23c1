#pragma once

// A manager on a database file in a temporary folder with its six role interfaces and the
// log captured from before its creation; the shape most suites start from.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "settings_manager/settings_manager.h"
#include "settings_manager/tree_access.h"
#include "support/captured_log.h"
#include "support/settings.h"
#include "support/sqlite_file.h"
#include "support/temp_dir.h"

namespace test_support {

using tern::logger::LogLevel;

constexpr char kManagerSource[] = "settings_manager/src/settings_manager";

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
    startupRecords = init;
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
  std::vector<SqliteFile::Row> Rows() { return SqliteFile(dbPath).DataRows(); }
  std::vector<std::string> Keys() {
    std::vector<std::string> keys;
    for (auto const& row : Rows()) keys.push_back(row.path);
    return keys;
  }
  void Sql(std::string const& statement) { SqliteFile(dbPath).Exec(statement); }

  // The one record logged since the last Clear, checked for source and level.
  void ExpectOnly(LogLevel level, std::string const& function, std::string const& message) {
    auto const records = log.Records();
    ASSERT_EQ(records.size(), 1u) << (records.empty() ? "" : records.front().message);
    EXPECT_EQ(records[0].level, level);
    EXPECT_EQ(records[0].file, kManagerSource);
    EXPECT_EQ(records[0].function, function);
    // Every format puts a blank after the id, which ends with one itself.
    EXPECT_EQ(records[0].message, prefix + " " + message);
  }
  // The records logged since the last Clear, each written "<level> <message>" with the
  // level as one of the letters TDIWEF; every one comes from the function its message names.
  void ExpectLog(std::vector<std::string> const& expected) {
    std::vector<std::string> seen;
    for (auto const& r : log.Records()) {
      auto text = r.message.compare(0, prefix.size(), prefix) == 0
                      ? r.message.substr(std::min(prefix.size() + 1, r.message.size()))
                      : r.message;
      auto const name = text.substr(text.rfind("### ", 0) == 0 ? 4 : 0);
      EXPECT_EQ(r.function, name.substr(0, name.find('('))) << text;
      EXPECT_EQ(r.file, kManagerSource);
      seen.push_back(std::string(1, "TDIWEF"[static_cast<int>(r.level)]) + " " + text);
    }
    EXPECT_EQ(seen, expected);
  }
  // The whole tree in memory.
  Setting Tree() {
    Setting tree;
    EXPECT_EQ(settings_manager::GetTree(*manager, tree), 0);
    return tree;
  }
  void ExpectNoRecord() {
    auto const messages = log.Messages();
    EXPECT_TRUE(messages.empty()) << messages.front();
  }

  CapturedLog log;
  TempDir dir;
  std::string dbPath;
  std::string prefix;
  std::vector<std::string> startup;            // the start-up messages of the manager now open
  std::vector<CapturedRecord> startupRecords;  // and the whole records
  std::shared_ptr<settings_manager::ISettingsManager> manager;
};

}  // namespace test_support
