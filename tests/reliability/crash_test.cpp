// A change that returned must survive the death of its program. A writer process makes
// the changes of a seeded stream on a database file and is killed with SIGKILL at random
// moments; after every kill a new manager must load exactly the changes the writer was
// told had returned, or those plus the one in flight, never anything in between. The
// next writer goes on from there on the same file.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <optional>
#include <sstream>
#include <thread>

#include "reliability_util.h"
#include "support/child_process.h"
#include "support/temp_dir.h"

namespace reliability {
namespace {

using Child = test_support::ChildProcess;

TEST(ProcessCrash, EveryAcknowledgedChangeSurvivesSigkillAndNothingHalfDoneAppears) {
  QuietLog quiet;
  auto const seed = TestSeed("ProcessCrash");
  std::mt19937_64 random(seed);
  test_support::TempDir dir;
  std::string const db = dir.File("settings.db");
  std::size_t const kills = Scaled(50, 8);
  Deadline const deadline(std::chrono::milliseconds(Scaled(45000, 15000)));
  Stream const stream(seed);

  Client oracle;  // the tree in memory only, kept at the file's state before each writer
  ASSERT_EQ(oracle.Open(""), 0);
  std::uint64_t first = 0;
  std::size_t done = 0, acknowledged = 0, changed = 0, landed = 0, beforeAny = 0;
  std::map<std::string, std::size_t> kinds;

  for (; done < kills && !deadline.Passed(); ++done) {
    Child writer({SM_RELIABILITY_WRITER, db, std::to_string(seed), std::to_string(first), "400"});
    bool timedOut = false;
    auto line = writer.Line(std::chrono::seconds(30), timedOut);
    ASSERT_TRUE(line && *line == "ready") << "writer: " << line.value_or("(no output)");

    // The kill falls after a random number of acknowledgements, at a random moment of the
    // change in progress: the wait only places the kill, it waits for nothing.
    std::map<std::uint64_t, int> acks;
    bool finished = false;
    auto const wanted = random() % 13;
    while (acks.size() < wanted) {
      line = writer.Line(std::chrono::seconds(30), timedOut);
      ASSERT_TRUE(line) << (timedOut ? "writer silent for 30 s" : "writer ended early");
      std::istringstream in(*line);
      std::string word;
      std::uint64_t index = 0;
      int rc = 0;
      in >> word >> index >> rc;
      ASSERT_EQ(word, "ack") << *line;
      acks[index] = rc;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 4000));
    writer.Kill();
    while ((line = writer.Line(std::chrono::seconds(30), timedOut))) {
      if (*line == "done") {
        finished = true;
        continue;
      }
      std::istringstream in(*line);
      std::string word;
      std::uint64_t index = 0;
      int rc = 0;
      in >> word >> index >> rc;
      ASSERT_EQ(word, "ack") << *line;
      acks[index] = rc;
    }
    ASSERT_FALSE(timedOut);
    int const status = writer.Wait();
    ASSERT_TRUE(finished || (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)) << status;

    // Replay what the writer was told on the oracle: the same changes, the same answers.
    std::uint64_t next = first;
    for (auto const& [index, rc] : acks) {
      ASSERT_EQ(index, next) << "acknowledgements out of order";
      auto const op = stream.Make(index, *oracle.getter);
      ASSERT_EQ(Apply(op, oracle), rc) << "change " << index << ": " << Describe(op);
      if (rc == 0) {
        ++acknowledged;
        ++kinds[KindName(op.kind)];
      }
      ++next;
    }
    Setting const before = TreeOf(*oracle.getter);
    auto const inFlight = stream.Make(next, *oracle.getter);
    Apply(inFlight, oracle);
    Setting const after = TreeOf(*oracle.getter);

    Setting found;
    ASSERT_TRUE(Restart(db, found)) << "after kill " << done;
    if (Same(found, before)) {
      ASSERT_EQ(oracle.Open(""), 0);
      ASSERT_EQ(Seed(oracle, before), 0);
      first = next;
      beforeAny += acks.empty() ? 1 : 0;
    } else {
      ASSERT_FALSE(finished) << "no change was in flight";
      ASSERT_TRUE(Same(found, after))
          << "kill " << done << " (seed " << seed << ") after change " << next - 1
          << ", in flight: " << Describe(inFlight) << "\nfile:   " << Describe(found)
          << "\nacked:  " << Describe(before) << "\n+ next: " << Describe(after);
      first = next + 1;
      ++landed;
    }
    changed = CountNodes(found);
  }
  EXPECT_GE(done, std::min<std::size_t>(kills, 8));
  std::ostringstream figures;
  figures << done << " SIGKILLs survived, " << acknowledged << " acknowledged changes (";
  char const* separator = "";
  for (auto const& [kind, n] : kinds) {
    figures << separator << kind << " " << n;
    separator = ", ";
  }
  figures << "), the change in flight landed " << landed << " times, killed before any reply "
          << beforeAny << " times, nothing lost; last tree " << changed << " nodes";
  Report("crash", figures.str());
}

}  // namespace
}  // namespace reliability
