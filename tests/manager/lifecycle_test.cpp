// Making and releasing managers: the start-up records, damaged files, the role interfaces'
// shared ownership, and the logging API a device program uses.

#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>

#include "log_environment.h"
#include "settings_manager.h"  // the class itself, for a manager without shared ownership
#include "settings_manager/logging.h"
#include "support/manager_fixture.h"

namespace test_support {
namespace {

using settings_manager::CreateSettingsManager;
namespace logging = settings_manager::logging;

class Lifecycle : public ManagerTest {};

TEST_F(Lifecycle, StartUpRecordsNameTheFileAndCountTheNodes) {
  auto const expect = [&](std::string const& read, int nodes) {
    EXPECT_EQ(startup, (std::vector<std::string>{
                           prefix + " Init: db path = '" + dbPath + "'...",
                           prefix + " Create db...", prefix + " Read db...", prefix + read,
                           prefix + " OK: " + std::to_string(nodes) + " node(s)"}));
    for (auto const& r : startupRecords) EXPECT_EQ(r.level, LogLevel::Info) << r.message;
    for (auto const& r : startupRecords) EXPECT_EQ(r.file, kManagerSource);
  };
  EXPECT_TRUE(std::regex_match(prefix, std::regex(R"(\[SM\] \+[0-9A-F]{4} )"))) << prefix;
  expect(" Empty db output", 1);
  EXPECT_TRUE(Rows().empty());  // nothing is written for the empty root
  ASSERT_EQ(creator->CreateSetting(P("a/b"), Int(1)), 0);
  ASSERT_EQ(creator->CreateSetting(P("c"), ListOf({Setting(true), Setting(false)})), 0);
  Reopen();
  expect(" Deserialize db data...", 6);

  // Without a file: a minus before the id, which never reaches FFFF, and an empty root map.
  Open("");
  EXPECT_TRUE(std::regex_match(prefix, std::regex(R"(\[SM\] -[0-9A-F]{4} )"))) << prefix;
  EXPECT_NE(prefix, "[SM] -FFFF ");
  EXPECT_EQ(startup, (std::vector<std::string>{prefix + " Init: db path = ''...",
                                               prefix + " OK: 1 node(s)"}));
  EXPECT_RC(GetCode("a"), 0x8000004Cu);
  ASSERT_EQ(creator->CreateSetting(P("a/b"), Int(1)), 0);
  EXPECT_EQ(Get("a"), MapOf({{"b", Int(1)}}));
  // Nothing to disagree with: deletes answer from the tree alone.
  EXPECT_RC(deleter->DeleteSetting(P("a/b")), 0);
  EXPECT_RC(deleter->DeleteSetting(P("a/b")), 1);
  EXPECT_RC(deleter->DeleteSetting(P("a")), 0);
  EXPECT_RC(deleter->DeleteSetting(P("a/b")), 0x8000004Au);
}

TEST_F(Lifecycle, DamagedFilesAreRefusedWithTheReasonAndTheCallersPointerKept) {
  std::pair<std::string, std::uint32_t> const cases[] = {
      // The store's "wrong head node" comes before the manager's own head check.
      {"DELETE FROM data WHERE path = ''", 0x80000071u},
      {"DELETE FROM data WHERE path <> ''; UPDATE data SET value = x'" + Hex(Int32Record(9)) +
           "' WHERE path = ''",
       0x80000075u},
      {"UPDATE data SET value = x'06000000' WHERE path = 'a/'", 0x8000005Cu},
      {"", 0x80000059u}};  // a folder that does not exist
  for (auto const& [damage, code] : cases) {
    Open(dir.File(std::to_string(code) + ".db"));
    ASSERT_EQ(creator->CreateSetting(P("a"), Int(5)), 0);
    Close();
    if (!damage.empty()) Sql(damage);
    std::shared_ptr<settings_manager::ISettingsManager> kept, out;
    ASSERT_EQ(CreateSettingsManager({}, kept), 0);
    out = kept;
    log.Clear();
    EXPECT_RC(CreateSettingsManager({damage.empty() ? dir.File("no/a.db") : dbPath}, out), code);
    EXPECT_EQ(out, kept);
    auto const fatal = log.ByFunction("CreateSettingsManager");
    ASSERT_EQ(fatal.size(), 1u);
    EXPECT_EQ(fatal[0].level, LogLevel::Fatal);
    EXPECT_EQ(fatal[0].file, kManagerSource);
    EXPECT_EQ(fatal[0].message, "Could not create settings manager: " + fdn::ResultCodeText(code));
  }
}

TEST_F(Lifecycle, EveryRoleKeepsTheManagerAliveAndTheLastOneEndsIt) {
  EXPECT_EQ(manager.use_count(), 7);  // one control block for the manager and every role
  std::weak_ptr<settings_manager::ISettingsManager> const weak = manager;
  manager.reset();
  EXPECT_EQ(creator->CreateSetting(P("a/x"), Int(1)), 0);
  EXPECT_EQ(valueSetter->SetValue(P("a/x"), std::int32_t{2}), 0);
  EXPECT_EQ(Get("a"), MapOf({{"x", Int(2)}}));
  Reset();
  EXPECT_TRUE(weak.expired());
}

TEST_F(Lifecycle, AccessorsOfAManagerWithoutSharedOwnershipRefuse) {
  Roles const before = *this;
  settings_manager::SettingsManager local(settings_manager::SettingsManagerConfig{});
  auto const id = log.ByFunction("SettingsManager").at(0).message.substr(0, 11);
  log.Clear();
  EXPECT_RC(local.GetSettingsCreator(creator), 0x80000001u);
  EXPECT_RC(local.GetSettingsGetter(getter), 0x80000001u);
  EXPECT_RC(local.GetSettingsValueSetter(valueSetter), 0x80000001u);
  EXPECT_RC(local.GetSettingsSetter(setter), 0x80000001u);
  EXPECT_RC(local.GetSettingsDeleter(deleter), 0x80000001u);
  EXPECT_RC(local.GetSettingsUpdateSubscriber(subscriber), 0x80000001u);
  EXPECT_TRUE(Tie() == before.Tie());
  std::vector<std::string> seen;
  for (auto const& r : log.Records())
    seen.push_back(std::to_string(static_cast<int>(r.level)) + " " + r.function + " " + r.message);
  EXPECT_EQ(seen, std::vector<std::string>(
                      6, "4 GetInterface " + id + " Could not get interface: bad_weak_ptr"));
}

TEST_F(Lifecycle, ASinkReceivesTheRecordsTheThresholdLetsThrough) {
  auto const before = logging::Threshold();
  std::vector<std::string> seen;  // the calls below log from this thread alone
  logging::SetSink([&](logging::Record const& r) {
    seen.push_back(std::to_string(static_cast<int>(r.level)) + " " + std::string(r.source) + " " +
                   std::string(r.function) + " " + std::string(r.message));
  });
  logging::SetThreshold(logging::Level::Off);
  EXPECT_RC(GetCode("missing"), 0x8000004Cu);
  logging::SetThreshold(logging::Level::Warning);
  EXPECT_RC(GetCode("missing"), 0x8000004Cu);
  logging::SetSink({});
  EXPECT_RC(GetCode("gone"), 0x8000004Cu);  // to standard error
  logging::SetThreshold(before);
  EXPECT_EQ(seen,
            std::vector<std::string>{"3 " + std::string(kManagerSource) + " GetSetting " + prefix +
                                     " GetSetting(missing/): Not found = 0x8000004c"});
}

TEST(LoggingApi, LevelsAreNamedByNumberOrName) {
  using settings_manager::log::ParseLogLevel;
  EXPECT_EQ(ParseLogLevel("0"), logging::Level::Trace);
  EXPECT_EQ(ParseLogLevel("WARNING"), logging::Level::Warning);
  EXPECT_EQ(ParseLogLevel("off"), logging::Level::Off);
  EXPECT_EQ(ParseLogLevel("6"), logging::Level::Off);
  for (char const* bad : {"", "7", "-1", "warn ", "verbose"})
    EXPECT_FALSE(ParseLogLevel(bad)) << bad;
}

// In a process of its own, so that the variable is read fresh; a call overrides it.
TEST(LoggingApiDeathTest, TheVariableSetsTheStartingThreshold) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  setenv(logging::kLevelVariable, "off", 1);
  EXPECT_EXIT(
      {
        std::shared_ptr<settings_manager::ISettingsManager> manager;
        CreateSettingsManager({}, manager);
        int const fromVariable = static_cast<int>(logging::Threshold());
        logging::SetThreshold(logging::Level::Debug);
        std::exit(10 * fromVariable + static_cast<int>(logging::Threshold()));
      },
      ::testing::ExitedWithCode(61), "");
  unsetenv(logging::kLevelVariable);
}

}  // namespace
}  // namespace test_support
