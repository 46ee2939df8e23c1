// A change that returned must survive a power cut. The same seeded stream of changes runs
// again and again on a new file through the fault VFS, which cuts the power at a
// different change of a file each time: that write, truncate, sync or delete and all
// later ones never happen, and what was written but not synced before it is dropped,
// partly kept, or torn at a sector boundary. A restart must then load exactly the changes
// that returned, or those plus the one in flight.

#include "reliability_util.h"
#include "support/fault_vfs.h"
#include "support/temp_dir.h"

namespace reliability {
namespace {

using test_support::FaultVfs;

class PowerCut : public ::testing::TestWithParam<bool> {};  // rollback journal, or WAL

TEST_P(PowerCut, EveryAcknowledgedChangeSurvivesACutAtAnyWriteOrSync) {
  QuietLog quiet;
  auto const seed = TestSeed("PowerCut");
  std::mt19937_64 random(seed);
  FaultVfs vfs;
  bool const rollback = GetParam();
  // The script: each change, its answer, and trees[i], the tree after the first i changes.
  std::vector<Op> ops;
  std::vector<int> results;
  std::vector<Setting> trees;
  Client oracle;
  ASSERT_EQ(oracle.Open(""), 0);
  Stream const stream(seed, 250);
  for (trees.push_back(TreeOf(*oracle.getter)); ops.size() < Scaled(60, 20);) {
    ops.push_back(stream.Make(ops.size(), *oracle.getter));
    results.push_back(Apply(ops.back(), oracle));
    trees.push_back(TreeOf(*oracle.getter));
  }
  // Runs the script on a new file, reopening the manager every 12 changes (a close
  // checkpoints the log), until a change fails: the changes that returned.
  auto const run = [&](std::string const& db, std::uint64_t cut) {
    if (rollback) MakeRollbackFile(db);
    vfs.SyncAll();
    vfs.ResetCalls();
    if (cut > 0) vfs.CutAfter(cut - 1);
    Client client;
    for (std::size_t i = 0; i < ops.size(); ++i) {
      if (i % 12 == 0 && client.Open(db) != 0) return i;
      if (Apply(ops[i], client) != results[i]) return i;
    }
    return ops.size();
  };
  std::uint64_t moments = 0;  // a run without a cut counts the moments a cut can fall on
  {
    test_support::TempDir dir;
    ASSERT_EQ(run(dir.File("settings.db"), 0), ops.size());
    moments = vfs.Changes();
    vfs.SyncAll();
    Setting found;
    ASSERT_TRUE(Restart(dir.File("settings.db"), found));
    ASSERT_EQ(found, trees.back());
  }
  // Every moment when they are few, else an even spread with a random start.
  std::size_t const budget = Scaled(rollback ? 60 : 400, 24);
  double const step = std::max(1.0, static_cast<double>(moments) / static_cast<double>(budget));
  std::size_t cuts = 0, landed = 0, acknowledged = 0;
  for (double at = 1 + static_cast<double>(random() % 1000) / 1000.0 * (step - 1);
       at <= static_cast<double>(moments); at += step, ++cuts) {
    auto const loss = static_cast<FaultVfs::Loss>(cuts % 4);  // drop, reorder, tear, keep
    test_support::TempDir dir;
    auto const db = dir.File("settings.db");
    auto const done = run(db, static_cast<std::uint64_t>(at));
    ASSERT_TRUE(vfs.PowerIsOff()) << "cut " << at << " of " << moments << " never came";
    vfs.ApplyPowerLoss(loss, random);
    Setting found;
    ASSERT_TRUE(Restart(db, found)) << "cut at change " << at << " of the files";
    acknowledged += done;
    if (found == trees[done]) continue;
    ASSERT_LT(done, ops.size()) << "the file holds more than every change";
    ASSERT_EQ(found, trees[done + 1]) << "cut at change " << at << " of the files (loss model "
                                      << static_cast<int>(loss) << "), " << done << " returned";
    ++landed;
  }
  Report("power-cut", std::to_string(cuts) + " power cuts (" + (rollback ? "rollback" : "WAL") +
                          ", of " + std::to_string(moments) + " writes/syncs), " +
                          std::to_string(acknowledged) + " acknowledged changes checked, the " +
                          "change in flight landed " + std::to_string(landed) + " times");
}

INSTANTIATE_TEST_SUITE_P(Journals, PowerCut, ::testing::Values(false, true),
                         [](auto const& p) { return p.param ? "RollbackJournal" : "Wal"; });

}  // namespace
}  // namespace reliability
