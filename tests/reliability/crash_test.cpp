// A change that returned must survive the death of its program. A writer process makes
// the changes of a seeded stream and is killed with SIGKILL at random moments; a new
// manager must then load exactly the changes the writer was told had returned, or those
// plus the one in flight. The next writer goes on from there on the same file.

#include <signal.h>
#include <sys/wait.h>

#include <thread>

#include "reliability.h"
#include "support/child_process.h"
#include "support/temp_dir.h"

namespace reliability {
namespace {

TEST(ProcessCrash, EveryAcknowledgedChangeSurvivesSigkillAndNothingHalfDoneAppears) {
  auto const seed = TestSeed("ProcessCrash");
  std::mt19937_64 random(seed);
  test_support::TempDir dir;
  std::string const db = dir.File("settings.db");
  std::size_t const kills = Scaled(50, 8);
  auto const timeUp = Within(Scaled(45000, 15000));
  Stream const stream(seed);
  Client oracle;  // the tree in memory only, kept at the file's state before each writer
  ASSERT_EQ(oracle.Open(""), 0);
  std::size_t first = 0, done = 0, landed = 0;
  for (; done < kills && !timeUp(); ++done) {
    test_support::ChildProcess writer(
        {SM_RELIABILITY_WRITER, db, std::to_string(seed), std::to_string(first), "400"});
    ASSERT_EQ(writer.Line(), "ready");
    // The kill falls after a random number of acknowledgements, at a random moment of the
    // change in progress: the wait only places the kill, it orders nothing. Each answer
    // is replayed on the oracle: the same change must give the same answer.
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
    writer.Kill();
    for (auto line = writer.Line(); line != "(end of output)"; line = writer.Line())
      ASSERT_NO_FATAL_FAILURE(record(line));
    int const status = writer.Wait();
    ASSERT_TRUE(finished || (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)) << status;
    Setting const before = TreeOf(oracle);
    Setting found;
    Apply(stream.Make(first, oracle), oracle);
    ASSERT_TRUE(Restart(db, found)) << "after kill " << done;
    if (found == before) {
      ASSERT_EQ(oracle.Open(""), 0);
      ASSERT_EQ(Seed(oracle, before), 0);
    } else {
      ASSERT_FALSE(finished) << "no change was in flight";
      ASSERT_EQ(found, TreeOf(oracle)) << "kill " << done << " in change " << first;
      ++first, ++landed;
    }
  }
  EXPECT_GE(done, std::min<std::size_t>(kills, 8));
  Report("crash", std::to_string(done) + " SIGKILLs survived, " + std::to_string(first) +
                      " changes, the one in flight landed " + std::to_string(landed) + " times");
}

}  // namespace
}  // namespace reliability
