// Making and releasing managers: the start-up records, damaged files, and the role
// interfaces' shared ownership.

#include <gtest/gtest.h>

#include <regex>

#include "settings_manager.h"  // the class itself, for a manager without shared ownership
#include "support/manager_fixture.h"

namespace test_support {
namespace {

using settings_manager::CreateSettingsManager;

class Lifecycle : public ManagerTest {};

TEST_F(Lifecycle, StartUpRecordsNameTheFileAndCountTheNodes) {
  auto const expect = [&](char sign, std::vector<std::string> expected) {
    EXPECT_TRUE(std::regex_match(prefix, std::regex(R"(\[SM\] [+-][0-9A-F]{4} )"))) << prefix;
    EXPECT_EQ(prefix[5], sign);
    std::vector<std::string> seen;
    for (auto& text : expected) text = prefix + " " + text;  // the id ends with a blank itself
    for (auto const& r : startup)
      seen.push_back(r.message + (r.level == LogLevel::Info && r.file == kManagerSource
                                      ? ""
                                      : " (not an info record from the manager)"));
    EXPECT_EQ(seen, expected);
  };
  auto const opening = "Init: db path = '" + dbPath + "'...";
  expect('+', {opening, "Create db...", "Read db...", "Empty db output", "OK: 1 node(s)"});
  EXPECT_TRUE(Rows().empty());  // nothing is written for the empty root
  ASSERT_EQ(creator->CreateSetting(P("a/b"), Int(1)), 0);
  ASSERT_EQ(creator->CreateSetting(P("c"), ListOf({Setting(true), Setting(false)})), 0);
  Reopen();
  expect('+', {opening, "Create db...", "Read db...", "Deserialize db data...", "OK: 6 node(s)"});

  // Without a file: a minus before the id, and an empty root map.
  Open("");
  expect('-', {"Init: db path = ''...", "OK: 1 node(s)"});
  ASSERT_EQ(creator->CreateSetting(P("a/b"), Int(1)), 0);
  EXPECT_RC(deleter->DeleteSetting(P("a")), 0);  // nothing to disagree with: the tree answers
}

TEST_F(Lifecycle, DamagedFilesAreRefusedWithTheReasonAndTheCallersPointerKept) {
  std::pair<std::string, std::uint32_t> const cases[] = {
      // The store's "wrong head node" comes before the manager's own head check.
      {"DELETE FROM data WHERE path = ''", 0x80000071u},
      {"DELETE FROM data WHERE path <> ''; UPDATE data SET value = x'" + Hex(Int32Record(9)) +
           "' WHERE path = ''",
       0x80000075u}};
  for (auto const& [damage, code] : cases) {
    Open(dir.File(std::to_string(code) + ".db"));
    ASSERT_EQ(creator->CreateSetting(P("a"), Int(5)), 0);
    Sql(damage);
    auto out = manager;
    log.Clear();
    EXPECT_RC(CreateSettingsManager({dbPath}, out), code);
    EXPECT_EQ(out, manager);
    auto const fatal = log.ByFunction("CreateSettingsManager");
    ASSERT_EQ(fatal.size(), 1u);
    EXPECT_EQ(std::tie(fatal[0].level, fatal[0].file, fatal[0].message),
              std::make_tuple(LogLevel::Fatal, std::string(kManagerSource),
                              "Could not create settings manager: " + fdn::ResultCodeText(code)));
  }
}

TEST_F(Lifecycle, EveryRoleKeepsTheManagerAliveAndTheLastOneEndsIt) {
  settings_manager::SettingsManager local(settings_manager::SettingsManagerConfig{});
  log.Clear();
  EXPECT_RC(local.GetSettingsCreator(creator), 0x80000001u);  // no shared ownership to hand out
  EXPECT_EQ(log.Records().at(0).message.substr(11), " Could not get interface: bad_weak_ptr");
  // The roles keep the manager alive: one control block for all.
  EXPECT_EQ(manager.use_count(), 7);
  std::weak_ptr<settings_manager::ISettingsManager> const weak = manager;
  manager.reset();
  EXPECT_EQ(creator->CreateSetting(P("a/x"), Int(1)), 0);
  Reset();
  EXPECT_TRUE(weak.expired());
}

}  // namespace
}  // namespace test_support
