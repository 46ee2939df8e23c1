// A change that returned must survive a power cut. The same seeded stream of changes runs
// again and again on a new file through the fault VFS, which cuts the power at a
// different change of a file each time: that write, truncate, sync or delete and all
// later ones never happen, and what was written but not synced before it is dropped,
// partly kept, or torn at a sector boundary. A restart must then load exactly the changes
// that returned, or those plus the one in flight.

#include <sstream>

#include "reliability_util.h"
#include "support/fault_vfs.h"
#include "support/temp_dir.h"

namespace reliability {
namespace {

using test_support::FaultVfs;

enum class Journal { kWal, kRollback };

struct Script {
  std::vector<Op> ops;
  std::vector<int> results;    // what each change returns
  std::vector<Setting> trees;  // trees[i]: the tree after the first i changes
};

Script MakeScript(std::uint64_t seed, std::size_t length) {
  Script script;
  Client oracle;
  EXPECT_EQ(oracle.Open(""), 0);
  Stream const stream(seed, 250);
  script.trees.push_back(TreeOf(*oracle.getter));
  for (std::size_t i = 0; i < length; ++i) {
    script.ops.push_back(stream.Make(i, *oracle.getter));
    script.results.push_back(Apply(script.ops.back(), oracle));
    script.trees.push_back(TreeOf(*oracle.getter));
  }
  return script;
}

struct Outcome {
  std::size_t done = 0;          // changes that returned what they should
  bool inFlight = false;         // the next one failed: it may or may not have landed
  bool failedWithPower = false;  // ... while the power was still on: a fault of its own
};

// Runs the script on `path`, closing and reopening the manager every `reopenEvery`
// changes (a close checkpoints the log into the database file), until a change fails.
Outcome RunScript(Script const& script, std::string const& path, std::size_t reopenEvery,
                  FaultVfs const& vfs) {
  Outcome outcome;
  Client client;
  if (client.Open(path) != 0) return outcome;
  for (std::size_t i = 0; i < script.ops.size(); ++i) {
    if (i > 0 && i % reopenEvery == 0) {
      client.Close();
      if (client.Open(path) != 0) return outcome;
    }
    if (Apply(script.ops[i], client) != script.results[i]) {
      outcome.inFlight = true;
      outcome.failedWithPower = !vfs.PowerIsOff();
      return outcome;
    }
    outcome.done = i + 1;
  }
  return outcome;
}

class PowerCut : public ::testing::TestWithParam<Journal> {};

TEST_P(PowerCut, EveryAcknowledgedChangeSurvivesACutAtAnyWriteOrSync) {
  QuietLog quiet;
  auto const seed = TestSeed("PowerCut");
  std::mt19937_64 random(seed);
  FaultVfs vfs;
  auto const script = MakeScript(seed, Scaled(60, 20));
  std::size_t const reopenEvery = 12;
  bool const rollback = GetParam() == Journal::kRollback;

  // A run without a cut counts the moments a cut can fall on.
  std::uint64_t moments = 0;
  {
    test_support::TempDir dir;
    auto const db = dir.File("settings.db");
    if (rollback) MakeRollbackFile(db);
    vfs.ResetCalls();
    auto const outcome = RunScript(script, db, reopenEvery, vfs);
    ASSERT_EQ(outcome.done, script.ops.size());
    moments = vfs.Changes();
    vfs.SyncAll();
    Setting found;
    ASSERT_TRUE(Restart(db, found));
    ASSERT_TRUE(Same(found, script.trees.back()));
  }

  // Every moment when they are few, else an even spread with a random start.
  std::size_t const budget = Scaled(rollback ? 60 : 400, 24);
  std::vector<std::uint64_t> cuts;
  if (moments <= budget) {
    for (std::uint64_t c = 1; c <= moments; ++c) cuts.push_back(c);
  } else {
    double const step = static_cast<double>(moments) / static_cast<double>(budget);
    double at = 1 + static_cast<double>(random() % 1000) / 1000.0 * step;
    for (; at <= static_cast<double>(moments); at += step)
      cuts.push_back(static_cast<std::uint64_t>(at));
  }

  FaultVfs::Loss const losses[] = {FaultVfs::Loss::kDropUnsynced, FaultVfs::Loss::kKeepSome,
                                   FaultVfs::Loss::kTornPrefix, FaultVfs::Loss::kKeepAll};
  std::size_t landed = 0, acknowledged = 0;
  for (std::size_t n = 0; n < cuts.size(); ++n) {
    auto const loss = losses[n % 4];
    test_support::TempDir dir;
    auto const db = dir.File("settings.db");
    if (rollback) MakeRollbackFile(db);
    vfs.SyncAll();
    vfs.ResetCalls();
    vfs.CutAfter(cuts[n] - 1);
    auto const outcome = RunScript(script, db, reopenEvery, vfs);
    ASSERT_TRUE(vfs.PowerIsOff()) << "cut " << cuts[n] << " of " << moments << " never came";
    ASSERT_FALSE(outcome.failedWithPower)
        << "change " << outcome.done
        << " failed before the cut: " << Describe(script.ops[outcome.done]);
    vfs.ApplyPowerLoss(loss, random);

    Setting found;
    ASSERT_TRUE(Restart(db, found)) << "cut at change " << cuts[n] << " of the files";
    acknowledged += outcome.done;
    if (Same(found, script.trees[outcome.done])) continue;
    ASSERT_TRUE(outcome.inFlight && Same(found, script.trees[outcome.done + 1]))
        << "cut at change " << cuts[n] << " of the files (loss model " << static_cast<int>(loss)
        << ", seed " << seed << "), " << outcome.done << " changes had returned"
        << (outcome.inFlight ? ", in flight: " + Describe(script.ops[outcome.done]) : "")
        << "\nfile:  " << Describe(found) << "\nacked: " << Describe(script.trees[outcome.done]);
    ++landed;
    vfs.SyncAll();
  }
  std::ostringstream figures;
  figures << cuts.size() << " power cuts simulated (" << (rollback ? "rollback journal" : "WAL")
          << ", at " << cuts.size() << " of the " << moments << " writes/syncs of a "
          << script.ops.size()
          << "-change stream, unsynced writes dropped, reordered, torn or kept), " << acknowledged
          << " acknowledged changes checked, the change in flight landed " << landed
          << " times, nothing lost";
  Report("power-cut", figures.str());
}

INSTANTIATE_TEST_SUITE_P(Journals, PowerCut, ::testing::Values(Journal::kWal, Journal::kRollback),
                         [](::testing::TestParamInfo<Journal> const& param) {
                           return param.param == Journal::kWal ? std::string("Wal")
                                                               : std::string("RollbackJournal");
                         });

}  // namespace
}  // namespace reliability
