// Whatever a random sequence of calls (the changes of the stream, now and then at a path
// the id rules refuse or with a valueless setting, and reads) answers, after every call
// the tree in memory is the tree a fresh manager loads from the file, and a manager
// without a file, given the same calls, answers and looks the same.

#include "reliability.h"
#include "support/fault_vfs.h"
#include "support/settings.h"
#include "support/temp_dir.h"

namespace reliability {
namespace {

using test_support::I;
using test_support::K;

TEST(Property, AfterEveryCallTheTreeInMemoryIsTheTreeAFreshManagerLoads) {
  auto const seed = TestSeed("Property");
  std::mt19937_64 random(seed);
  Values values(random);
  test_support::FaultVfs vfs;  // syncs skipped: durability is the power-cut suite's business
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");
  std::size_t const steps = Scaled(2000, 150);
  auto const timeUp = Within(Scaled(30000, 15000));
  // The last is valid after all: NUL is no special character.
  std::vector<uvc::Path> const invalid = {
      {}, {I(0), K("a")}, {K("net"), K("a b")}, {K("net"), I(65536)}, {K(std::string("a\0b", 3))}};
  Client file, memory;
  ASSERT_EQ(file.Open(db), 0);
  ASSERT_EQ(memory.Open(""), 0);
  Stream const stream(seed, 300);
  std::size_t step = 0, failures = 0;
  for (; step < steps && !timeUp(); ++step) {
    Op op = stream.Make(step, file);
    if (values.Chance(10)) op.path = invalid[values.Below(invalid.size())];
    if (values.Chance(3)) test_support::MakeValueless(op.setting);
    SCOPED_TRACE("step " + std::to_string(step) + " " + Text(op.path));
    int const rc = Apply(op, file);
    ASSERT_EQ(rc, Apply(op, memory));
    failures += rc < 0;
    Setting x, y;
    Attributes a{true}, b{true};
    ASSERT_EQ(file.getter->GetSetting(op.path, x), memory.getter->GetSetting(op.path, y));
    ASSERT_EQ(file.getter->GetAttribute(op.path, a), memory.getter->GetAttribute(op.path, b));
    ASSERT_EQ(std::tie(x, a), std::tie(y, b));
    Setting const now = TreeOf(file);
    ASSERT_EQ(now, TreeOf(memory));
    Client fresh;
    ASSERT_EQ(fresh.Open(db), 0);
    ASSERT_EQ(now, TreeOf(fresh));
    std::string error;
    Setting rows;
    ASSERT_TRUE(LoadFile(db, rows, error)) << error;
    ASSERT_EQ(now, rows) << "the file holds rows of no top-level key";
  }
  EXPECT_GE(step, std::min<std::size_t>(steps, 150));
  Report("property", std::to_string(step) + " random calls (" + std::to_string(failures) +
                         " refused), each followed by a fresh manager on the file: always equal");
}

}  // namespace
}  // namespace reliability
