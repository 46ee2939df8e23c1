// Whole-tree access beyond the role interfaces: refused edits change nothing in tree or
// file, children are listed by kind, and restore and the one-shot read work on files
// they never create or change.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "manager_test_util.h"
#include "settings_manager/last_result.h"
#include "settings_manager/tree_access.h"

namespace manager_test {
namespace {

namespace sm = settings_manager;
using settings_manager::ChildInfo;
using ::testing::HasSubstr;

constexpr int kInterfaceNotSupported = static_cast<int>(0x80000001u);
constexpr int kInvalidArgument = static_cast<int>(0x80000046u);
constexpr int kNotMatched = static_cast<int>(0x8000004Au);
constexpr int kNotFound = static_cast<int>(0x8000004Cu);
constexpr int kProhibited = static_cast<int>(0x80000066u);
constexpr int kInvalidState = static_cast<int>(0x8000006Au);

// A manager of someone else's making.
class ForeignManager : public sm::ISettingsManager {
  int GetSettingsCreator(std::shared_ptr<sm::ISettingsCreator>&) override { return 0; }
  int GetSettingsGetter(std::shared_ptr<sm::ISettingsGetter>&) override { return 0; }
  int GetSettingsValueSetter(std::shared_ptr<sm::ISettingsValueSetter>&) override { return 0; }
  int GetSettingsSetter(std::shared_ptr<sm::ISettingsSetter>&) override { return 0; }
  int GetSettingsDeleter(std::shared_ptr<sm::ISettingsDeleter>&) override { return 0; }
  int GetSettingsUpdateSubscriber(std::shared_ptr<sm::ISettingsUpdateSubscriber>&) override {
    return 0;
  }
};

class TreeAccessTest : public ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    ASSERT_EQ(creator->CreateSetting(P("net"), Map({{"port", Setting(std::uint16_t{80})},
                                                    {"dns", List({Str("a"), Str("b")})}})),
              0);
    ASSERT_EQ(creator->CreateSetting(P("name"), ReadOnly(Str("dev"))), 0);
  }
  Setting Tree() {
    Setting tree;
    EXPECT_EQ(sm::GetTree(*manager, tree), 0);
    return tree;
  }
};

TEST_F(TreeAccessTest, RefusedEditsChangeNeitherTreeNorFile) {
  auto const tree = Tree();
  auto const rows = Rows();
  struct Case {
    char const* what;
    sm::TreeEdit edit;
    int code;
  };
  Case const cases[] = {
      {"the edit's own refusal",
       [](Setting& t) {
         std::get<2>(t).clear();
         return kProhibited;
       },
       kProhibited},
      {"root not a map",
       [](Setting& t) {
         t = List({});
         return 0;
       },
       kInvalidState},
      {"key breaking the id rules",
       [](Setting& t) {
         std::get<2>(t)["bad key"] = Str("x");
         return 0;
       },
       kInvalidArgument},
      {"an exception", [](Setting&) -> int { throw std::runtime_error("no"); }, 0},
      {"no difference", [](Setting&) { return 0; }, 1},
  };
  for (auto const& c : cases) {
    int const code = sm::EditTree(*manager, c.edit);
    if (c.code != 0)
      EXPECT_EQ(code, c.code) << c.what;
    else
      EXPECT_LT(code, 0) << c.what;
    EXPECT_EQ(Tree(), tree) << c.what;
    EXPECT_EQ(Rows(), rows) << c.what;
  }
  ForeignManager foreign;
  Setting out;
  std::vector<ChildInfo> children;
  EXPECT_EQ(sm::ReplaceTree(foreign, Map({})), kInterfaceNotSupported);
  EXPECT_EQ(sm::GetTree(foreign, out), kInterfaceNotSupported);
  EXPECT_EQ(sm::ListChildren(foreign, {}, children), kInterfaceNotSupported);
  EXPECT_EQ(sm::RestoreDatabase(foreign, dbPath), kInterfaceNotSupported);
}

TEST_F(TreeAccessTest, ReplacedTreeIsWhatTheFileHolds) {
  auto const replacement = Map({{"only", ReadOnly(List({Setting(true)}))}});
  ASSERT_EQ(sm::ReplaceTree(*manager, replacement), 0);
  EXPECT_EQ(Keys(), (std::vector<std::string>{"", "only/", "only/0/"}));
  Reopen();
  EXPECT_EQ(Tree(), replacement);
}

TEST_F(TreeAccessTest, ChildrenByKind) {
  struct Case {
    char const* path;
    int code;
    std::vector<std::pair<std::string, std::size_t>> children;  // key or index, type
  };
  Case const cases[] = {
      {"", 0, {{"name", uvc::index::kString}, {"net", uvc::index::kMap}}},
      {"net", 0, {{"dns", uvc::index::kList}, {"port", uvc::index::kUint16}}},
      {"net/dns", 0, {{"0", uvc::index::kString}, {"1", uvc::index::kString}}},
      {"net/port", kNotMatched, {}},
      {"nope", kNotFound, {}},
      {"0", kInvalidArgument, {}},
  };
  for (auto const& c : cases) {
    std::vector<ChildInfo> children{ChildInfo{}};
    auto const path = c.path[0] == '0' ? uvc::Path{uvc::Id(std::in_place_index<0>, 0)} : P(c.path);
    ASSERT_EQ(sm::ListChildren(*manager, path, children), c.code) << c.path;
    if (c.code != 0) {
      EXPECT_EQ(children.size(), 1u) << c.path;  // untouched
      continue;
    }
    std::vector<std::pair<std::string, std::size_t>> listed;
    for (auto const& child : children)
      listed.emplace_back(
          child.id.index() == 1 ? std::get<1>(child.id) : std::to_string(std::get<0>(child.id)),
          child.type);
    EXPECT_EQ(listed, c.children) << c.path;
  }
  std::vector<ChildInfo> top;
  ASSERT_EQ(sm::ListChildren(*manager, {}, top), 0);
  EXPECT_TRUE(top[0].attributes.readOnly);
}

TEST_F(TreeAccessTest, RestoreTakesAWholeCheckedBackup) {
  auto const backup = dir.File("backup.db");
  EXPECT_LT(sm::BackupDatabase(dbPath, dir.File("no/backup.db")), 0);
  EXPECT_THAT(sm::LastResult().second,
              HasSubstr("cannot create the copy '" + dir.File("no/backup.db.partial") +
                        "': No such file or directory"));
  ASSERT_EQ(sm::BackupDatabase(dbPath, backup), 0);
  auto const saved = Tree();
  ASSERT_EQ(deleter->DeleteSetting(P("net")), 0);

  std::ofstream(dir.File("junk.db")) << std::string(4096, 'x');
  for (auto const& bad : {dir.File("junk.db"), dir.File("missing.db")}) {
    EXPECT_LT(sm::RestoreDatabase(*manager, bad), 0) << bad;
    EXPECT_EQ(GetCode("net"), kNotFound) << bad;
  }
  EXPECT_FALSE(std::filesystem::exists(dir.File("missing.db")));
  EXPECT_EQ(std::filesystem::file_size(dir.File("junk.db")), 4096u);

  ASSERT_EQ(sm::RestoreDatabase(*manager, backup), 0);
  EXPECT_EQ(Tree(), saved);
  EXPECT_EQ(sm::RestoreDatabase(*manager, backup), 1);
  Reopen();
  EXPECT_EQ(Tree(), saved);
}

TEST_F(TreeAccessTest, OneShotReadTakesOnlyTheRowsAskedFor) {
  Setting out;
  ASSERT_EQ(sm::ReadSettingFromFile(dbPath, P("net/dns"), out), 0);
  EXPECT_EQ(out, List({Str("a"), Str("b")}));
  ASSERT_EQ(sm::ReadSettingFromFile(dbPath, {}, out), 0);
  EXPECT_EQ(out, Tree());
  // Rows of another subtree are never read: damage them and read on.
  Sql("UPDATE data SET value = x'00' WHERE path = 'name/'");
  EXPECT_EQ(sm::ReadSettingFromFile(dbPath, P("net/port"), out), 0);
  EXPECT_EQ(out, Setting(std::uint16_t{80}));
  EXPECT_LT(sm::ReadSettingFromFile(dbPath, P("name"), out), 0);
  EXPECT_EQ(sm::ReadSettingFromFile(dbPath, P("net/nope"), out), kNotFound);
  EXPECT_EQ(out, Setting(std::uint16_t{80}));

  auto const missing = dir.File("missing.db");
  int const code = sm::ReadSettingFromFile(missing, {}, out);
  EXPECT_LT(code, 0);
  EXPECT_EQ(sm::LastResult().first, code);
  EXPECT_THAT(sm::LastResult().second, HasSubstr("no such file: " + missing));
  EXPECT_FALSE(std::filesystem::exists(missing));
  // A database without the schema is refused, not given one.
  auto const bare = dir.File("bare.db");
  test_support::SqliteFile(bare).Exec("CREATE TABLE other (x)");
  EXPECT_LT(sm::ReadSettingFromFile(bare, {}, out), 0);
  EXPECT_EQ(test_support::SqliteFile(bare).QueryInt("SELECT count(*) FROM sqlite_master"), 1);
}

}  // namespace
}  // namespace manager_test
