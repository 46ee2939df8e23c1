#pragma once

// A manager on a database file in a temporary folder with its six role interfaces and the
// log captured from before its creation; the shape most suites start from.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "settings_manager/settings_manager.h"
#include "settings_manager/tree_access.h"
#include "support/captured_log.h"
#include "support/roles.h"
#include "support/settings.h"
#include "support/sqlite_file.h"
#include "support/temp_dir.h"

namespace test_support {

using tern::logger::LogLevel;

constexpr char kManagerSource[] = "settings_manager/src/settings_manager";

class ManagerTest : public ::testing::Test, protected Roles {
 protected:
  void SetUp() override { Open(dir.File("settings.db")); }
  // The roles (a base) would otherwise keep the manager past the folder and the log.
  ~ManagerTest() override { Close(); }

  // Releases the manager (every interface) and makes a new one on `path`.
  void Open(std::string const& path) {
    Close();
    dbPath = path;
    ASSERT_EQ(settings_manager::CreateSettingsManager({path}, manager), 0);
    ASSERT_TRUE(From(*manager));
    startup = log.ByFunction("SettingsManager");
    ASSERT_FALSE(startup.empty());
    prefix = startup.back().message.substr(0, 11);  // "[SM] +XXXX ", the manager's id
    log.Clear();
  }
  void Reopen() { Open(dbPath); }
  void Close() { Reset(), manager.reset(); }

  Setting Get(std::string_view path) {
    Setting out;
    EXPECT_EQ(getter->GetSetting(P(path), out), 0) << path;
    return out;
  }
  Setting Tree() {
    Setting tree;
    EXPECT_EQ(settings_manager::GetTree(*manager, tree), 0);
    return tree;
  }
  std::vector<SqliteFile::Row> Rows() { return SqliteFile(dbPath).DataRows(); }
  void Sql(std::string const& statement) { SqliteFile(dbPath).Exec(statement); }

  // The records logged since the last Clear, each "<level letter> <message after the id>";
  // every one comes from the manager's source and the function its message names.
  void ExpectLog(std::vector<std::string> const& expected) {
    std::vector<std::string> seen;
    for (auto const& r : log.Records()) {
      auto const text = r.message.substr(std::min(prefix.size() + 1, r.message.size()));
      auto const name = text.substr(text.rfind("### ", 0) == 0 ? 4 : 0);
      EXPECT_EQ(r.file + " " + r.function + " " + r.message.substr(0, prefix.size() + 1),
                kManagerSource + (" " + name.substr(0, name.find('('))) + " " + prefix + " ");
      seen.push_back(std::string(1, "TDIWEF"[static_cast<int>(r.level)]) + " " + text);
    }
    EXPECT_EQ(seen, expected);
  }

  CapturedLog log;
  TempDir dir;
  std::string dbPath;
  std::string prefix;
  std::vector<CapturedRecord> startup;  // the start-up records of the manager now open
  std::shared_ptr<settings_manager::ISettingsManager> manager;
};

}  // namespace test_support
