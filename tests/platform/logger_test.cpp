#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tern/logger/tern_logger.h"

namespace {

using tern::logger::LevelName;
using tern::logger::LogLevel;
using tern::logger::LogRecord;
using tern::logger::TernLogger;

struct Copied {
  LogLevel level;
  std::string file;
  int line;
  std::string function;
  std::string message;
};

// A logger of the test's own, so that the process-wide one stays untouched.
class LoggerTest : public ::testing::Test {
 protected:
  // A sink appending to `into`.
  static tern::logger::LogSink Into(std::vector<Copied>& into) {
    return [&into](LogRecord const& r) {
      into.push_back({r.level, std::string(r.file), r.line, std::string(r.function),
                      std::string(r.message)});
    };
  }

  TernLogger logger_;
  std::vector<Copied> records_;
};

TEST_F(LoggerTest, ThresholdDecidesWhichLevelsAreWanted) {
  EXPECT_EQ(logger_.Threshold(), LogLevel::Error);
  EXPECT_FALSE(logger_.IsLevelEnabled(LogLevel::Warning));
  EXPECT_TRUE(logger_.IsLevelEnabled(LogLevel::Error));
  EXPECT_TRUE(logger_.IsLevelEnabled(LogLevel::Fatal));
  logger_.SetThreshold(LogLevel::Debug);
  EXPECT_EQ(logger_.Threshold(), LogLevel::Debug);
  EXPECT_FALSE(logger_.IsLevelEnabled(LogLevel::Trace));
  EXPECT_TRUE(logger_.IsLevelEnabled(LogLevel::Debug));
  logger_.SetThreshold(LogLevel::Trace);
  EXPECT_TRUE(logger_.IsLevelEnabled(LogLevel::Trace));
}

TEST_F(LoggerTest, SinkReceivesTheFormattedRecord) {
  logger_.SetSink(Into(records_));
  logger_.Log(LogLevel::Warning, "store.cpp", 42, "Save", "key {} has {:#x} bytes", "a/b", 255);
  ASSERT_EQ(records_.size(), 1u);
  EXPECT_EQ(records_[0].level, LogLevel::Warning);
  EXPECT_EQ(records_[0].file, "store.cpp");
  EXPECT_EQ(records_[0].line, 42);
  EXPECT_EQ(records_[0].function, "Save");
  EXPECT_EQ(records_[0].message, "key a/b has 0xff bytes");
}

// Filtering is the caller's business: Log emits whatever it is given.
TEST_F(LoggerTest, LogEmitsBelowTheThresholdToo) {
  logger_.SetSink(Into(records_));
  std::string message = "quiet";
  logger_.LogImpl(LogLevel::Trace, nullptr, 0, nullptr, message);
  ASSERT_EQ(records_.size(), 1u);
  EXPECT_EQ(records_[0].level, LogLevel::Trace);
  EXPECT_EQ(records_[0].file, "");
  EXPECT_EQ(records_[0].function, "");
  EXPECT_EQ(records_[0].message, "quiet");
}

TEST_F(LoggerTest, SetSinkReturnsTheSinkItReplaces) {
  std::vector<Copied> first;
  EXPECT_FALSE(logger_.SetSink(Into(first)));
  auto const previous = logger_.SetSink(Into(records_));
  ASSERT_TRUE(previous);
  logger_.Log(LogLevel::Error, "f", 1, "g", "to the second");
  previous(LogRecord{LogLevel::Info, "f", 2, "g", "to the first"});
  ASSERT_EQ(first.size(), 1u);
  EXPECT_EQ(first[0].message, "to the first");
  ASSERT_EQ(records_.size(), 1u);
  EXPECT_EQ(records_[0].message, "to the second");
}

TEST_F(LoggerTest, EmptySinkRestoresStandardError) {
  logger_.SetSink(Into(records_));
  EXPECT_TRUE(logger_.SetSink({}));
  ::testing::internal::CaptureStderr();
  logger_.Log(LogLevel::Error, "store.cpp", 7, "Load", "failed with {}", -3);
  logger_.Log(LogLevel::Warning, "a.cpp", 1, "F", "second");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "ERROR store.cpp:7 Load: failed with -3\nWARN a.cpp:1 F: second\n");
  EXPECT_TRUE(records_.empty());
}

TEST(LevelName, NamesEveryLevel) {
  EXPECT_EQ(LevelName(LogLevel::Trace), "TRACE");
  EXPECT_EQ(LevelName(LogLevel::Debug), "DEBUG");
  EXPECT_EQ(LevelName(LogLevel::Info), "INFO");
  EXPECT_EQ(LevelName(LogLevel::Warning), "WARN");
  EXPECT_EQ(LevelName(LogLevel::Error), "ERROR");
  EXPECT_EQ(LevelName(LogLevel::Fatal), "FATAL");
}

TEST(RootLogger, IsOneInstance) { EXPECT_EQ(&TernLogger::RootLogger(), &TernLogger::RootLogger()); }

}  // namespace
