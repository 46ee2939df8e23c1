#include "reliability_util.h"

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <random>

#include "raw_conversion.h"
#include "support/sqlite_file.h"

namespace reliability {

bool SanitizerBuild() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
  return true;
#endif
#endif
  return false;
}

std::size_t Scaled(std::size_t base, std::size_t least) {
  char const* text = std::getenv("SM_RELIABILITY_SCALE");
  double scale = text != nullptr ? std::atof(text) : 0;
  if (scale <= 0) scale = SanitizerBuild() ? 0.25 : 1.0;
  return std::max(least, static_cast<std::size_t>(static_cast<double>(base) * scale));
}

std::uint64_t TestSeed(char const* suite) {
  std::uint64_t seed = std::random_device()();
  if (char const* text = std::getenv("SM_RELIABILITY_SEED"))
    seed = std::strtoull(text, nullptr, 10);
  std::cout << "[ seed     ] " << suite << ": SM_RELIABILITY_SEED=" << seed << " replays this run"
            << std::endl;
  ::testing::Test::RecordProperty("seed", std::to_string(seed));
  return seed;
}

void Report(char const* suite, std::string const& text) {
  std::cout << "RELIABILITY " << suite << ": " << text << std::endl;
}

std::string ReadBytes(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

Deadline Within(std::size_t ms) {
  return {std::chrono::steady_clock::now() + std::chrono::milliseconds(ms)};
}

void MakeRollbackFile(std::string const& path) {
  test_support::SqliteFile(path).Exec("PRAGMA journal_mode=DELETE; PRAGMA user_version=1;");
}

QuietLog::QuietLog(tern::logger::LogLevel threshold) {
  auto& logger = tern::logger::TernLogger::RootLogger();
  previousThreshold_ = logger.Threshold();
  previousSink_ = logger.SetSink([](tern::logger::LogRecord const&) {});
  logger.SetThreshold(threshold);
}

QuietLog::~QuietLog() {
  auto& logger = tern::logger::TernLogger::RootLogger();
  logger.SetSink(previousSink_);
  logger.SetThreshold(previousThreshold_);
}

bool LoadFile(std::string const& path, Setting& root, std::string& error) {
  try {
    std::vector<settings_manager::impl::RawItem> items;
    for (auto& row : test_support::SqliteFile(path).DataRows())
      items.emplace_back(std::move(row.attrib), std::move(row.value), std::move(row.path));
    root = Setting();
    root.emplace<uvc::index::kMap>();
    if (items.empty()) return true;
    uvc::Path head;
    auto const result = settings_manager::Deserialize(items, head, root);
    error = result.first < 0 ? result.second : "the first row is not the root map";
    return result.first >= 0 && head.empty() && root.index() == uvc::index::kMap;
  } catch (std::exception const& e) {
    error = e.what();
    return false;
  }
}

::testing::AssertionResult Restart(std::string const& path, Setting& root) {
  // The manager first: on a file that never got its schema it makes one.
  Client client;
  if (int rc = client.Open(path); rc != 0)
    return ::testing::AssertionFailure() << "a new manager refused " << path << ": " << rc;
  std::string error;
  if (!LoadFile(path, root, error))
    return ::testing::AssertionFailure() << "the rows of " << path << " make no tree: " << error;
  if (TreeOf(*client.getter) != root)
    return ::testing::AssertionFailure() << "the manager shows other than the rows hold";
  return ::testing::AssertionSuccess();
}

}  // namespace reliability
