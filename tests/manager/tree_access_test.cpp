// Whole-tree access beyond the role interfaces: refused edits change nothing in tree or
// file, children are listed by kind, and restore and the one-shot read work on files they
// never create or change.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "settings_manager/last_result.h"
#include "support/manager_fixture.h"

namespace test_support {
namespace {

namespace sm = settings_manager;

class TreeAccess : public ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    auto const net = MapOf({{"port", Setting(std::uint16_t{80})}, {"dns", ListOf({Str("a")})}});
    ASSERT_EQ(sm::ReplaceTree(*manager, MapOf({{"net", net}, {"name", Str("dev", true)}})), 0);
  }
};

TEST_F(TreeAccess, RefusedEditsChangeNeitherTreeNorFile) {
  auto const tree = Tree();
  auto const rows = Rows();
  std::pair<sm::TreeEdit, int> const cases[] = {
      {[](Setting& t) { return std::get<uvc::index::kMap>(t).clear(), Code(0x80000066u); },
       Code(0x80000066u)},                                                // the edit's own refusal
      {[](Setting& t) { return t = ListOf({}), 0; }, Code(0x8000006Au)},  // root not a map
      {[](Setting&) -> int { throw std::runtime_error("no"); }, -1},      // some failure code
      {[](Setting&) { return 0; }, 1}};                                   // no difference
  for (auto const& [edit, code] : cases) {
    int const rc = sm::EditTree(*manager, edit);
    EXPECT_TRUE(code == -1 ? rc < 0 : rc == code) << fdn::ResultCodeText(rc);
    EXPECT_EQ(Tree(), tree);
    EXPECT_EQ(Rows(), rows);
  }
}

TEST_F(TreeAccess, ChildrenByKind) {
  using Child = std::tuple<uvc::Id, std::size_t, bool>;
  std::tuple<uvc::Path, int, std::vector<Child>> const cases[] = {
      {{}, 0, {{K("name"), uvc::index::kString, true}, {K("net"), uvc::index::kMap, false}}},
      {P("net/dns"), 0, {{I(0), uvc::index::kString, false}}},
      {P("net/port"), Code(0x8000004Au), {{I(0), 0, false}}},  // a refusal leaves the output
      {{I(0)}, Code(0x80000046u), {{I(0), 0, false}}}};
  for (auto const& [path, code, expected] : cases) {
    std::vector<sm::ChildInfo> children{sm::ChildInfo{}};
    ASSERT_RC(sm::ListChildren(*manager, path, children), code);
    std::vector<Child> listed;
    for (auto const& c : children) listed.emplace_back(c.id, c.type, c.attributes.readOnly);
    EXPECT_EQ(listed, expected) << Text(path);
  }
}

TEST_F(TreeAccess, RestoreTakesAWholeCheckedBackupAndTheOneShotReadOnlyTheRowsAskedFor) {
  EXPECT_LT(sm::BackupDatabase(dbPath, dir.File("no/backup.db")), 0);
  ASSERT_EQ(sm::BackupDatabase(dbPath, dir.File("backup.db")), 0);
  auto const saved = Tree();
  ASSERT_EQ(deleter->DeleteSetting(P("net")), 0);
  std::ofstream(dir.File("junk.db")) << std::string(4096, 'x');
  for (auto const& bad : {dir.File("junk.db"), dir.File("missing.db")}) {
    EXPECT_LT(sm::RestoreDatabase(*manager, bad), 0) << bad;
    EXPECT_EQ(Tree(), MapOf({{"name", Str("dev", true)}}));
  }
  EXPECT_FALSE(std::filesystem::exists(dir.File("missing.db")));
  EXPECT_EQ(std::filesystem::file_size(dir.File("junk.db")), 4096u);
  ASSERT_EQ(sm::RestoreDatabase(*manager, dir.File("backup.db")), 0);
  EXPECT_EQ(sm::RestoreDatabase(*manager, dir.File("backup.db")), 1);
  Reopen();
  EXPECT_EQ(Tree(), saved);

  Setting out;
  Sql("UPDATE data SET value = x'00' WHERE path = 'name/'");  // another subtree's row
  EXPECT_EQ(sm::ReadSettingFromFile(dbPath, P("net/dns"), out), 0);
  EXPECT_EQ(out, ListOf({Str("a")}));
  EXPECT_LT(sm::ReadSettingFromFile(dbPath, P("name"), out), 0);
  EXPECT_RC(sm::ReadSettingFromFile(dbPath, P("net/nope"), out), 0x8000004Cu);
  EXPECT_EQ(out, ListOf({Str("a")}));
  int const code = sm::ReadSettingFromFile(dir.File("missing.db"), {}, out);
  EXPECT_TRUE(code < 0 && sm::LastResult().first == code) << code;
  EXPECT_THAT(sm::LastResult().second,
              ::testing::HasSubstr("no such file: " + dir.File("missing.db")));
  EXPECT_FALSE(std::filesystem::exists(dir.File("missing.db")));
}

}  // namespace
}  // namespace test_support
