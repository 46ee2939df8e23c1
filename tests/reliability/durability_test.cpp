// A change that returned survives the death of its program and a power cut.

#include <signal.h>
#include <sys/wait.h>

#include <thread>

#include "reliability.h"
#include "support/child_process.h"
#include "support/fault_vfs.h"
#include "support/sqlite_file.h"
#include "support/temp_dir.h"

namespace reliability {
namespace {

// A change that returned must survive the death of its program. A writer process makes the
// changes of a seeded stream and is killed with SIGKILL at random moments; a new manager
// must then load exactly the changes the writer was told had returned, or those plus the
// one in flight. The next writer goes on from there on the same file.
TEST(ProcessCrash, EveryAcknowledgedChangeSurvivesSigkillAndNothingHalfDoneAppears) {
  auto const seed = TestSeed("ProcessCrash");
  std::mt19937_64 random(seed);
  test_support::TempDir dir;
  std::string const db = dir.File("settings.db");
  std::size_t const kills = Scaled(50, 8);
  Stream const stream{seed};
  Client oracle;  // the tree in memory only, kept at the file's state before
                  // each writer
  ASSERT_EQ(oracle.Open(""), 0);
  std::size_t first = 0, done = 0, landed = 0;
  for (; done < kills; ++done) {
    test_support::ChildProcess writer(
        {SM_RELIABILITY_WRITER, db, std::to_string(seed), std::to_string(first), "400"});
    ASSERT_EQ(writer.Line(), "ready");
    // The kill falls after a random number of acknowledgements, at a random moment of the
    // change in progress: the wait only places the kill, it orders nothing. Each answer is
    // replayed on the oracle: the same change must give the same answer.
    bool finished = false;
    auto const record = [&](std::string const& line) {
      finished = finished || line == "done";
      if (finished) return;
      ASSERT_EQ(line.rfind("ack " + std::to_string(first) + " ", 0), 0u) << line;
      ASSERT_EQ(std::to_string(Apply(stream.Make(first++, oracle), oracle)),
                line.substr(line.rfind(' ') + 1));
    };
    for (auto wanted = first + random() % 13; first < wanted && !finished;)
      ASSERT_NO_FATAL_FAILURE(record(writer.Line()));
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 4000));
    int const status = writer.Kill();  // what it said before it died can still be read
    for (auto line = writer.Line(); line != "(end of output)"; line = writer.Line())
      ASSERT_NO_FATAL_FAILURE(record(line));
    ASSERT_TRUE(finished || (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)) << status;
    Setting const before = TreeOf(oracle), found = Restarted(db);
    Apply(stream.Make(first, oracle), oracle);
    if (found == before) {
      ASSERT_EQ(oracle.Open(""), 0);
      ASSERT_EQ(Seed(oracle, before), 0);
    } else {
      ASSERT_FALSE(finished) << "no change was in flight";
      ASSERT_EQ(found, TreeOf(oracle)) << "kill " << done << " in change " << first;
      ++first, ++landed;
    }
  }
  Report("crash", done, " SIGKILLs survived, ", first, " changes, ", landed, " in flight landed");
}

// A change that returned must survive a power cut. The same seeded stream of changes runs
// again and again on a new file through the fault VFS, which cuts the power at a different
// change of a file each time: that write, truncate, sync or delete and all later ones
// never happen, and what was written but not synced before it is dropped, partly kept, or
// torn at a sector boundary. A restart must then load exactly the changes that returned,
// or those plus the one in flight.
using test_support::FaultVfs;

class PowerCut : public ::testing::TestWithParam<bool> {};  // rollback journal, or WAL

TEST_P(PowerCut, EveryAcknowledgedChangeSurvivesACutAtAnyWriteOrSync) {
  auto const seed = TestSeed("PowerCut");
  std::mt19937_64 random(seed);
  FaultVfs vfs;
  bool const rollback = GetParam();
  // The script: each change, its answer, and trees[i], the tree after the first i changes.
  std::vector<Op> ops;
  std::vector<int> results;
  Client oracle;
  ASSERT_EQ(oracle.Open(""), 0);
  std::vector<Setting> trees = {TreeOf(oracle)};
  for (Stream const stream{seed, 250}; ops.size() < Scaled(60, 20);) {
    ops.push_back(stream.Make(ops.size(), oracle));
    results.push_back(Apply(ops.back(), oracle));
    trees.push_back(TreeOf(oracle));
  }
  // Runs the script on a new file, reopening the manager every 12 changes (a close
  // checkpoints the log), until a change fails; then restarts on the file, which must hold
  // the changes that returned, or those and the one in flight.
  std::size_t cuts = 0, landed = 0;
  std::uint64_t moments = 0;  // a run without a cut counts the moments a cut can fall on
  auto const run = [&](std::uint64_t cut, FaultVfs::Loss loss) {
    test_support::TempDir dir;
    auto const db = dir.File("settings.db");
    if (rollback)
      test_support::SqliteFile(db).Exec("PRAGMA journal_mode=DELETE; PRAGMA user_version=1");
    vfs.SyncAll();
    auto const start = vfs.Changes();
    if (cut > 0) vfs.CutAfter(cut - 1);
    std::size_t done = 0;
    Client client;
    while (done < ops.size() && (done % 12 != 0 || client.Open(db) == 0) &&
           Apply(ops[done], client) == results[done])
      ++done;
    client.Close();
    if (cut == 0) moments = vfs.Changes() - start;
    ASSERT_EQ(vfs.ApplyPowerLoss(loss, random), cut > 0) << "cut at " << cut;
    SCOPED_TRACE(::testing::Message() << "cut at change " << cut << " of the files, loss "
                                      << static_cast<int>(loss) << ", " << done << " returned");
    Setting const found = Restarted(db);
    if (found == trees[done]) return;
    ASSERT_LT(done, ops.size()) << "the file holds more than every change";
    ASSERT_EQ(found, trees[done + 1]);
    ++landed;
  };
  ASSERT_NO_FATAL_FAILURE(run(0, FaultVfs::Loss::kKeepAll));
  // Every moment when they are few, else an even spread with a random start.
  auto const step = std::max<std::uint64_t>(1, moments / Scaled(rollback ? 60 : 400, 24));
  for (auto cut = 1 + random() % step; cut <= moments; cut += step, ++cuts)
    ASSERT_NO_FATAL_FAILURE(
        run(cut, static_cast<FaultVfs::Loss>(cuts % 4)));  // drop, reorder, tear, keep
  Report("power-cut", cuts, " cuts of ", moments, " moments, ", landed, " in flight landed");
}

INSTANTIATE_TEST_SUITE_P(Journals, PowerCut, ::testing::Values(false, true),
                         [](auto const& p) { return p.param ? "RollbackJournal" : "Wal"; });

}  // namespace
}  // namespace reliability
