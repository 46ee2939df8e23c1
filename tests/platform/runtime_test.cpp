// The result code texts, the logger and the runtime pieces: timestamps, the semaphore and
// the random source.

#include <gtest/gtest.h>

#include <array>
#include <thread>

#include "fdn/result_codes.h"
#include "tern/logger/tern_logger.h"
#include "tern/rtl/random.h"
#include "tern/rtl/semaphore.h"
#include "tern/rtl/timestamp.h"

namespace {

using tern::logger::LogLevel;

TEST(ResultCodeText, NamesKnownCodesAndCallsTheRestUnknown) {
  std::pair<std::uint32_t, char const*> const texts[] = {
      {0, "No error = 0x0"},
      {1, "False = 0x1"},
      {0x8000004Cu, "Not found = 0x8000004c"},
      {0x80000313u, "DateTime syntax error = 0x80000313"},
      {0x80000314u, "Unknown result code = 0x80000314"},
      {0x8001010Au, "Unknown result code = 0x8001010a"},  // entries without text of their own
      {0x80010117u, "System image bad format = 0x80010117"},
      {0xA1110813u, "Unknown result code = 0xa1110813"}};
  for (auto const& [code, text] : texts) EXPECT_EQ(fdn::ResultCodeText(fdn::MakeCode(code)), text);
  int known = 0;  // a sweep finds every entry: one out of order would be missed
  for (std::uint32_t code = 0x80000000u; code < 0x80000400u; ++code)
    known += fdn::GeneralCodeText(fdn::MakeCode(code)) ? 1 : 0;
  EXPECT_EQ(known, 62);
}

TEST(Logger, FiltersByThresholdAndHandsFormattedRecordsToItsSink) {
  tern::logger::TernLogger logger;  // the process-wide one stays untouched
  EXPECT_FALSE(logger.IsLevelEnabled(LogLevel::Warning));
  EXPECT_TRUE(logger.IsLevelEnabled(LogLevel::Error));
  std::vector<std::string> seen;
  EXPECT_FALSE(logger.SetSink([&seen](tern::logger::LogRecord const& r) {
    seen.push_back(std::string(tern::logger::LevelName(r.level)) + " " + std::string(r.file) + ":" +
                   std::to_string(r.line) + " " + std::string(r.function) + ": " +
                   std::string(r.message));
  }));
  logger.Log(LogLevel::Warning, "store.cpp", 42, "Save", "key {} has {:#x} bytes", "a/b", 255);
  EXPECT_EQ(seen, std::vector<std::string>{"WARN store.cpp:42 Save: key a/b has 0xff bytes"});
  EXPECT_TRUE(logger.SetSink({}));  // back to standard error
  ::testing::internal::CaptureStderr();
  logger.Log(LogLevel::Error, "store.cpp", 7, "Load", "failed with {}", -3);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "ERROR store.cpp:7 Load: failed with -3\n");
}

TEST(Runtime, TimestampsSemaphoreAndRandomBytes) {
  tern::rtl::Timestamp const t(-1234567890123456);
  EXPECT_EQ(t.Microseconds(), -1234567890123456);
  EXPECT_TRUE(t < tern::rtl::Timestamp(5) && t != tern::rtl::Timestamp(5) && !(t < t));
  auto const now = tern::rtl::Timestamp::Now().Microseconds();
  EXPECT_GT(now, 1577836800LL * 1000000);  // after 2020 and before 2200 in microseconds
  EXPECT_LT(now, 7258118400LL * 1000000);
  tern::rtl::Semaphore semaphore(1);  // a lost count would hang until CTest's timeout
  semaphore.Post();
  std::thread([&semaphore] { semaphore.Wait(); }).join();
  semaphore.Wait();
  std::array<std::uint8_t, 32> first{}, second{};
  EXPECT_EQ(tern::rtl::TernRandomGenerate(first.data(), first.size()), 0);
  EXPECT_EQ(tern::rtl::TernRandomGenerate(second.data(), second.size()), 0);
  EXPECT_NE(first, second);
}

}  // namespace
