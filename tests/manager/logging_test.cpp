// The logging API a device program uses: a sink receives the library's records, the
// threshold filters them, and SETTINGS_MANAGER_LOG_LEVEL sets the threshold a process
// starts with.

#include "settings_manager/logging.h"

#include <cstdlib>
#include <mutex>

#include "fdn/result_codes.h"
#include "log_environment.h"
#include "manager_test_util.h"

namespace manager_test {
namespace {

namespace logging = settings_manager::logging;
using logging::Level;

TEST(LoggingApi, ASinkReceivesTheRecordsTheThresholdLetsThrough) {
  auto const before = logging::Threshold();
  std::mutex lock;
  std::vector<std::string> seen;
  logging::SetSink([&](logging::Record const& r) {
    std::lock_guard<std::mutex> guard(lock);
    seen.push_back(std::to_string(static_cast<int>(r.level)) + " " + std::string(r.source) + " " +
                   std::string(r.function) + " " + std::string(r.message).substr(12));
  });
  std::shared_ptr<settings_manager::ISettingsManager> manager;
  ASSERT_EQ(settings_manager::CreateSettingsManager({}, manager), 0);
  std::shared_ptr<settings_manager::ISettingsGetter> getter;
  manager->GetSettingsGetter(getter);
  Setting out;
  logging::SetThreshold(Level::Off);
  EXPECT_EQ(getter->GetSetting(P("missing"), out), fdn::rc::kNotFound);
  logging::SetThreshold(Level::Warning);
  EXPECT_EQ(getter->GetSetting(P("missing"), out), fdn::rc::kNotFound);
  logging::SetSink({});
  EXPECT_EQ(getter->GetSetting(P("gone"), out), fdn::rc::kNotFound);  // to standard error
  logging::SetThreshold(before);
  EXPECT_EQ(seen,
            std::vector<std::string>{std::string("3 ") + kSource +
                                     " GetSetting GetSetting(missing/): Not found = 0x8000004c"});
}

TEST(LoggingApi, LevelsAreNamedByNumberOrName) {
  using settings_manager::log::ParseLogLevel;
  EXPECT_EQ(ParseLogLevel("0"), Level::Trace);
  EXPECT_EQ(ParseLogLevel("WARNING"), Level::Warning);
  EXPECT_EQ(ParseLogLevel("off"), Level::Off);
  EXPECT_EQ(ParseLogLevel("6"), Level::Off);
  for (char const* bad : {"", "7", "-1", "warn ", "verbose"})
    EXPECT_FALSE(ParseLogLevel(bad)) << bad;
}

// In a process of its own, so that the variable is read fresh.
TEST(LoggingApiDeathTest, TheVariableSetsTheStartingThresholdAndACallOverridesIt) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  setenv(logging::kLevelVariable, "off", 1);
  EXPECT_EXIT(
      {
        std::shared_ptr<settings_manager::ISettingsManager> manager;
        settings_manager::CreateSettingsManager({}, manager);
        int const fromVariable = static_cast<int>(logging::Threshold());
        logging::SetThreshold(Level::Debug);
        std::exit(10 * fromVariable + static_cast<int>(logging::Threshold()));
      },
      ::testing::ExitedWithCode(61), "");
  unsetenv(logging::kLevelVariable);
}

}  // namespace
}  // namespace manager_test
