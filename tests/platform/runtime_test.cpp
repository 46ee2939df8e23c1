// The result code texts, the logger's standard-error sink and the runtime pieces:
// the random source.

#include <gtest/gtest.h>

#include <array>

#include "fdn/result_codes.h"
#include "tern/logger/tern_logger.h"
#include "tern/rtl/random.h"

namespace {

TEST(Runtime, CodeTextsLoggerTimestampsSemaphoreAndRandomBytes) {
  std::pair<std::uint32_t, char const*> const texts[] = {
      {1, "False = 0x1"},
      {0x80000313u, "DateTime syntax error = 0x80000313"},
      {0x80000314u, "Unknown result code = 0x80000314"},
      {0x8001010Au, "Unknown result code = 0x8001010a"},  // entries without text of their own
      {0x80010117u, "System image bad format = 0x80010117"}};
  for (auto const& [code, text] : texts) EXPECT_EQ(fdn::ResultCodeText(fdn::MakeCode(code)), text);
  int known = 0;  // a sweep finds every entry: one out of order would be missed
  for (std::uint32_t code = 0x80000000u; code < 0x80000400u; ++code)
    known += fdn::GeneralCodeText(fdn::MakeCode(code)) ? 1 : 0;
  EXPECT_EQ(known, 62);

  tern::logger::TernLogger logger;  // the process-wide one stays untouched
  ::testing::internal::CaptureStderr();
  logger.Log(tern::logger::LogLevel::Error, "store.cpp", 7, "Load", "failed with {:#x}", 255);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "ERROR store.cpp:7 Load: failed with 0xff\n");
  EXPECT_FALSE(logger.IsLevelEnabled(tern::logger::LogLevel::Warning));

  std::array<std::uint8_t, 32> first{}, second{};
  EXPECT_EQ(tern::rtl::TernRandomGenerate(first.data(), first.size()), 0);
  EXPECT_EQ(tern::rtl::TernRandomGenerate(second.data(), second.size()), 0);
  EXPECT_NE(first, second);
}

}  // namespace
