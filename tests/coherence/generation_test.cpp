// The generation a manager last saw tells it whether the file moved on, whatever was done
// to the change log by hand and however the manager had to open the file.

#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>

#include "coherence.h"
#include "support/settings.h"
#include "support/sqlite_file.h"
#include "support/temp_dir.h"

namespace coherence {
namespace {

using test_support::Int;
using test_support::P;

// Counts the events it hears; Wait is true once one came (within a minute).
class Recorder : public settings_manager::ISettingsUpdateObserver {
 public:
  void Update(uvc::Path const&, unsigned char) override {
    std::lock_guard<std::mutex> hold(lock_);
    ++heard_;
    arrived_.notify_all();
  }
  bool Wait() {
    std::unique_lock<std::mutex> hold(lock_);
    return arrived_.wait_for(hold, std::chrono::minutes(1), [this] { return heard_ > 0; });
  }

 private:
  std::mutex lock_;
  std::condition_variable arrived_;
  int heard_ = 0;
};

std::string Schema(std::string const& db) {
  return test_support::SqliteFile(db).QueryText(
      "SELECT group_concat(name || ': ' || ifnull(sql, ''), '; ') FROM"
      " (SELECT name, sql FROM sqlite_master ORDER BY name)");
}

// A log emptied or dropped with the sqlite3 shell must not give again the generation a
// lagging manager holds: after as many changes it would look caught up and miss them.
TEST(Generation, ALogEmptiedOrDroppedByHandHidesNoChangeFromALaggingManager) {
  constexpr int kChanges = 3;  // before and after the edit: the counts that collided
  for (char const* edit : {"DELETE FROM changes;", "DROP TABLE changes;"}) {
    SCOPED_TRACE(edit);
    test_support::TempDir dir;
    auto const db = dir.File("settings.db");
    Client a, b;
    ASSERT_EQ(a.Open(db), 0);
    ASSERT_EQ(b.Open(db), 0);
    ASSERT_EQ(a.creator->CreateSetting(P("x"), Int(0)), 0);
    for (int i = 1; i < kChanges; ++i) ASSERT_EQ(a.valueSetter->SetValue(P("x"), i), 0);
    Sync(b);  // b has seen every change so far, then lags
    auto const schema = Schema(db);
    test_support::SqliteFile(db).Exec(edit);
    for (int i = 1; i <= kChanges; ++i) EXPECT_EQ(a.valueSetter->SetValue(P("x"), 100 + i), 0);
    Sync(b);
    Setting out;
    EXPECT_EQ(b.getter->GetSetting(P("x"), out), 0);
    EXPECT_EQ(out, Setting(100 + kChanges));
    EXPECT_EQ(Schema(db), schema);  // data, meta and changes as they were made
  }
}

// In a process that may not write the file: the reader the library then makes reads the
// file without its log (SQLite's immutable=1). Asks for `a` after another process changed
// it: 0 when it reads 2, as the observer of `a` heard.
int ReadAfterAnotherProcessWrote(std::string const& db, int ready) {
  constexpr uid_t kNobody = 65534;
  if (::geteuid() == 0 &&
      (::setgroups(0, nullptr) != 0 || ::setgid(kNobody) != 0 || ::setuid(kNobody) != 0))
    return 10;
  Client reader;
  auto recorder = std::make_shared<Recorder>();
  settings_manager::SubscriptionId id{};
  Setting out;
  if (reader.Open(db) != 0 || reader.subscriber->Subscribe(P("a"), recorder, id) != 0) return 11;
  if (std::filesystem::exists(db + "-wal") || reader.getter->GetSetting(P("a"), out) != 0 ||
      out != Setting(1))
    return 12;
  char const byte = 0;
  if (::write(ready, &byte, 1) != 1) return 13;
  if (!recorder->Wait()) return 14;
  return reader.getter->GetSetting(P("a"), out) == 0 && out == Setting(2) ? 0 : 15;
}

TEST(Generation, AReaderThatMayNotWriteTheFileSeesLaterChangesOfOtherProcesses) {
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");
  ::chmod(dir.Path().c_str(), 0755);
  {
    Client owner;
    ASSERT_EQ(owner.Open(db), 0);
    ASSERT_EQ(owner.creator->CreateSetting(P("a"), Int(1)), 0);
  }
  ASSERT_FALSE(std::filesystem::exists(db + "-wal"));  // the last one to close removed it
  ::chmod(db.c_str(), 0444);                           // a reader that is not root may not write it
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  pid_t const child = ::fork();
  if (child == 0) ::_exit(ReadAfterAnotherProcessWrote(db, ready[1]));
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  ::chmod(db.c_str(), 0644);
  Client writer;
  ASSERT_EQ(writer.Open(db), 0);
  EXPECT_EQ(writer.valueSetter->SetValue(P("a"), 2), 0);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "reader's status " << status;
}

}  // namespace
}  // namespace coherence
