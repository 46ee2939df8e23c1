// Making and releasing managers: the factory, the start-up records, damaged files, and
// the role interfaces' shared ownership.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

#include "fdn/result_codes.h"
#include "manager_test_util.h"
#include "settings_manager.h"  // the class itself, for a manager without shared ownership

namespace manager_test {
namespace {

using settings_manager::CreateSettingsManager;
using settings_manager::ISettingsManager;
using settings_manager::SettingsManagerConfig;
using ::testing::ElementsAre;

std::vector<std::string> StartupMessages(test_support::CapturedLog const& log) {
  std::vector<std::string> messages;
  for (auto const& r : log.ByFunction("SettingsManager")) {
    EXPECT_EQ(r.level, LogLevel::Info) << r.message;
    EXPECT_EQ(r.file, kSource);
    messages.push_back(r.message);
  }
  return messages;
}

TEST(ManagerLifecycle, InMemoryManagerStartsWithEmptyRootAndMinusPrefix) {
  test_support::CapturedLog log;
  std::shared_ptr<ISettingsManager> manager;
  ASSERT_EQ(CreateSettingsManager(SettingsManagerConfig{}, manager), 0);
  ASSERT_NE(manager, nullptr);

  auto const messages = StartupMessages(log);
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_TRUE(
      std::regex_match(messages[0], std::regex(R"(\[SM\] -[0-9A-F]{4}  Init: db path = ''\.\.\.)")))
      << messages[0];
  auto const prefix = messages[0].substr(0, 11);
  EXPECT_NE(prefix, "[SM] -FFFF ");  // the modulus never yields FFFF
  EXPECT_EQ(messages[1], prefix + " OK: 1 node(s)");

  // The root is an empty map: a key is simply missing (an index would not fit it).
  std::shared_ptr<settings_manager::ISettingsGetter> getter;
  ASSERT_EQ(manager->GetSettingsGetter(getter), 0);
  Setting out;
  EXPECT_EQ(getter->GetSetting(P("a"), out), fdn::rc::kNotFound);
  std::shared_ptr<settings_manager::ISettingsCreator> creator;
  ASSERT_EQ(manager->GetSettingsCreator(creator), 0);
  EXPECT_EQ(creator->CreateSetting(P("a/b"), Setting(std::int32_t{1})), 0);
  EXPECT_EQ(getter->GetSetting(P("a"), out), 0);
  EXPECT_EQ(out, Map({{"b", Setting(std::int32_t{1})}}));
}

TEST(ManagerLifecycle, FileManagerLogsStartupAndCountsNodesOnReload) {
  test_support::CapturedLog log;
  test_support::TempDir dir;
  auto const path = dir.File("settings.db");
  {
    std::shared_ptr<ISettingsManager> manager;
    ASSERT_EQ(CreateSettingsManager(SettingsManagerConfig{path}, manager), 0);
    auto const messages = StartupMessages(log);
    ASSERT_EQ(messages.size(), 5u);
    ASSERT_TRUE(std::regex_match(messages[0],
                                 std::regex(R"(\[SM\] \+[0-9A-F]{4}  Init: db path = '.*'\.\.\.)")))
        << messages[0];
    auto const prefix = messages[0].substr(0, 11);
    EXPECT_THAT(messages, ElementsAre(prefix + " Init: db path = '" + path + "'...",
                                      prefix + " Create db...", prefix + " Read db...",
                                      prefix + " Empty db output", prefix + " OK: 1 node(s)"));
    // A fresh database starts as an empty root; nothing is written back for it.
    EXPECT_TRUE(test_support::SqliteFile(path).DataRows().empty());

    std::shared_ptr<settings_manager::ISettingsCreator> creator;
    ASSERT_EQ(manager->GetSettingsCreator(creator), 0);
    ASSERT_EQ(creator->CreateSetting(P("a/b"), Setting(std::int32_t{1})), 0);
    ASSERT_EQ(creator->CreateSetting(P("c"), List({Setting(true), Setting(false)})), 0);
  }
  auto const rows = test_support::SqliteFile(path).DataRows();
  ASSERT_EQ(rows.size(), 6u);  // root, a, a/b, c, c/0, c/1
  log.Clear();

  std::shared_ptr<ISettingsManager> manager;
  ASSERT_EQ(CreateSettingsManager(SettingsManagerConfig{path}, manager), 0);
  auto const messages = StartupMessages(log);
  ASSERT_EQ(messages.size(), 5u);
  auto const prefix = messages[0].substr(0, 11);
  EXPECT_THAT(messages, ElementsAre(prefix + " Init: db path = '" + path + "'...",
                                    prefix + " Create db...", prefix + " Read db...",
                                    prefix + " Deserialize db data...", prefix + " OK: 6 node(s)"));
}

// A file with the given damage done to it after a manager has stored a few settings.
class DamagedFile : public ::testing::Test {
 protected:
  void SetUp() override {
    std::shared_ptr<ISettingsManager> manager;
    ASSERT_EQ(CreateSettingsManager(SettingsManagerConfig{path}, manager), 0);
    std::shared_ptr<settings_manager::ISettingsCreator> creator;
    ASSERT_EQ(manager->GetSettingsCreator(creator), 0);
    ASSERT_EQ(creator->CreateSetting(P("a"), Setting(std::int32_t{5})), 0);
    ASSERT_EQ(creator->CreateSetting(P("b"), Str("text")), 0);
  }

  // Opening fails with `code`: the caller's pointer keeps what it held and the one
  // record at level 5 tells why.
  void ExpectCreationFails(int code) {
    std::shared_ptr<ISettingsManager> kept;
    ASSERT_EQ(CreateSettingsManager(SettingsManagerConfig{}, kept), 0);
    auto out = kept;
    log.Clear();
    EXPECT_EQ(CreateSettingsManager(SettingsManagerConfig{path}, out), code);
    EXPECT_EQ(out, kept);
    auto const fatal = log.ByFunction("CreateSettingsManager");
    ASSERT_EQ(fatal.size(), 1u);
    EXPECT_EQ(fatal[0].level, LogLevel::Fatal);
    EXPECT_EQ(fatal[0].file, kSource);
    EXPECT_EQ(fatal[0].message, "Could not create settings manager: " + fdn::ResultCodeText(code));
  }

  test_support::CapturedLog log;
  test_support::TempDir dir;
  std::string path = dir.File("settings.db");
};

TEST_F(DamagedFile, HeadRowThatIsNotTheRootIsRefusedByTheStoreFirst) {
  test_support::SqliteFile(path).Exec("DELETE FROM data WHERE path = ''");
  // The store already insists that the first row of a subtree read is the node asked
  // for, so its "[SMDB] Get: wrong head node" (0x80000071) comes before the manager's
  // own head-path check could answer 0x80000073.
  ExpectCreationFails(fdn::MakeCode(0x80000071u));
  // Reading stopped at "Read db...": nothing was decoded.
  for (auto const& message : StartupMessages(log))
    EXPECT_THAT(message, ::testing::Not(::testing::HasSubstr("Deserialize")));
}

TEST_F(DamagedFile, RootRowThatIsNotAMapIsRefused) {
  test_support::SqliteFile file(path);
  file.Exec("DELETE FROM data WHERE path <> ''");
  file.Exec("UPDATE data SET value = x'" + test_support::Hex(Int32Record(9)) + "' WHERE path = ''");
  ExpectCreationFails(fdn::MakeCode(0x80000075u));
}

TEST_F(DamagedFile, UndecodableRecordGivesTheDecodersCode) {
  test_support::SqliteFile(path).Exec("UPDATE data SET value = x'06000000' WHERE path = 'a/'");
  ExpectCreationFails(fdn::rc::kInvalidSize);  // "[RawSetting] Insufficient raw data size"
}

TEST_F(DamagedFile, UnopenableFileGivesTheStoresCode) {
  path = dir.File("no-such-folder/settings.db");
  ExpectCreationFails(fdn::rc::kMediaError);  // "[SMDB] Could not create settings database"
}

TEST(ManagerLifecycle, RoleInterfacesKeepTheManagerAlive) {
  test_support::TempDir dir;
  auto const path = dir.File("settings.db");
  Roles roles;
  {
    std::shared_ptr<ISettingsManager> manager;
    ASSERT_EQ(CreateSettingsManager(SettingsManagerConfig{path}, manager), 0);
    ASSERT_TRUE(roles.From(*manager));
    EXPECT_EQ(manager.use_count(), 7);  // one control block for the root and every role
  }
  EXPECT_EQ(roles.creator->CreateSetting(P("a/x"), Setting(std::int32_t{1})), 0);
  EXPECT_EQ(roles.valueSetter->SetValue(P("a/x"), std::int32_t{2}), 0);
  EXPECT_EQ(roles.setter->SetAttribute(P("a/x"), Attributes{true}), 0);
  EXPECT_EQ(roles.creator->CreateSetting(P("a/y"), Setting(std::int32_t{3})), 0);
  EXPECT_EQ(roles.deleter->DeleteSetting(P("a/y")), 0);
  struct Quiet : settings_manager::ISettingsUpdateObserver {
    void Update(uvc::Path const&, unsigned char) override {}
  };
  settings_manager::SubscriptionId id{};
  EXPECT_EQ(roles.subscriber->Subscribe(P("a"), std::make_shared<Quiet>(), id), 0);
  EXPECT_EQ(roles.subscriber->Unsubscribe(id), 0);
  Setting out;
  EXPECT_EQ(roles.getter->GetSetting(P("a"), out), 0);
  EXPECT_EQ(out, Map({{"x", ReadOnly(Setting(std::int32_t{2}))}}));

  // The last role pointer ends the manager and closes the file; a new one sees the work.
  roles.Reset();
  std::shared_ptr<ISettingsManager> again;
  ASSERT_EQ(CreateSettingsManager(SettingsManagerConfig{path}, again), 0);
  ASSERT_TRUE(roles.From(*again));
  EXPECT_EQ(roles.getter->GetSetting(P("a"), out), 0);
  EXPECT_EQ(out, Map({{"x", ReadOnly(Setting(std::int32_t{2}))}}));
}

TEST(ManagerLifecycle, AccessorsOfAManagerWithoutSharedOwnershipRefuse) {
  test_support::CapturedLog log;
  std::shared_ptr<ISettingsManager> other;
  ASSERT_EQ(CreateSettingsManager(SettingsManagerConfig{}, other), 0);
  Roles roles;
  ASSERT_TRUE(roles.From(*other));
  Roles const before = roles;
  log.Clear();

  settings_manager::SettingsManager local(SettingsManagerConfig{});
  auto const prefix = log.ByFunction("SettingsManager").at(0).message.substr(0, 11);
  constexpr int kRefused = fdn::rc::kInterfaceNotSupported;
  EXPECT_EQ(local.GetSettingsCreator(roles.creator), kRefused);
  EXPECT_EQ(local.GetSettingsGetter(roles.getter), kRefused);
  EXPECT_EQ(local.GetSettingsValueSetter(roles.valueSetter), kRefused);
  EXPECT_EQ(local.GetSettingsSetter(roles.setter), kRefused);
  EXPECT_EQ(local.GetSettingsDeleter(roles.deleter), kRefused);
  EXPECT_EQ(local.GetSettingsUpdateSubscriber(roles.subscriber), kRefused);
  EXPECT_TRUE(roles.Tie() == before.Tie());

  auto const refusals = log.ByFunction("GetInterface");
  ASSERT_EQ(refusals.size(), 6u);
  for (auto const& r : refusals) {
    EXPECT_EQ(r.level, LogLevel::Error);
    EXPECT_EQ(r.file, kSource);
    EXPECT_EQ(r.message, prefix + " Could not get interface: bad_weak_ptr");
  }
}

}  // namespace
}  // namespace manager_test
