#include "reliability_util.h"

#include <cstdlib>
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
#else
  return false;
#endif
#else
  return false;
#endif
}

double Scale() {
  if (char const* text = std::getenv("SM_RELIABILITY_SCALE")) {
    double const value = std::atof(text);
    if (value > 0) return value;
  }
  return SanitizerBuild() ? 0.25 : 1.0;
}

std::size_t Scaled(std::size_t base, std::size_t least) {
  auto const scaled = static_cast<std::size_t>(static_cast<double>(base) * Scale());
  return scaled < least ? least : scaled;
}

std::uint64_t TestSeed(char const* suite) {
  std::uint64_t seed = 0;
  if (char const* text = std::getenv("SM_RELIABILITY_SEED")) {
    seed = std::strtoull(text, nullptr, 10);
  } else {
    std::random_device device;
    seed = (std::uint64_t{device()} << 32) ^ device();
  }
  std::cout << "[ seed     ] " << suite << ": SM_RELIABILITY_SEED=" << seed << " replays this run"
            << std::endl;
  ::testing::Test::RecordProperty("seed", std::to_string(seed));
  return seed;
}

void Report(char const* suite, std::string const& text) {
  std::cout << "RELIABILITY " << suite << ": " << text << std::endl;
}

QuietLog::QuietLog(tern::logger::LogLevel threshold)
    : counts_(std::make_shared<std::array<std::atomic<std::size_t>, 6>>()) {
  auto& logger = tern::logger::TernLogger::RootLogger();
  previousThreshold_ = logger.Threshold();
  auto counts = counts_;
  previousSink_ = logger.SetSink([counts](tern::logger::LogRecord const& record) {
    auto const level = static_cast<std::size_t>(record.level);
    if (level < counts->size()) ++(*counts)[level];
  });
  logger.SetThreshold(threshold);
}

QuietLog::~QuietLog() {
  auto& logger = tern::logger::TernLogger::RootLogger();
  logger.SetSink(previousSink_);
  logger.SetThreshold(previousThreshold_);
}

std::size_t QuietLog::Count(tern::logger::LogLevel level) const {
  return (*counts_)[static_cast<std::size_t>(level)];
}

bool LoadFile(std::string const& path, Setting& root, std::string& error) {
  try {
    std::vector<settings_manager::impl::RawItem> items;
    for (auto& row : test_support::SqliteFile(path).DataRows())
      items.emplace_back(std::move(row.attrib), std::move(row.value), std::move(row.path));
    if (items.empty()) {
      root = Setting();
      root.emplace<uvc::index::kMap>();
      return true;
    }
    uvc::Path head;
    auto const result = settings_manager::Deserialize(items, head, root);
    if (result.first < 0) {
      error = result.second;
      return false;
    }
    if (!head.empty() || root.index() != uvc::index::kMap) {
      error = "the first row is not the root map";
      return false;
    }
    return true;
  } catch (std::exception const& e) {
    error = e.what();
    return false;
  }
}

::testing::AssertionResult Restart(std::string const& path, Setting& root) {
  // The manager first: on a file that never got its schema it makes one.
  Client client;
  if (int rc = client.Open(path); rc != 0)
    return ::testing::AssertionFailure()
           << "a new manager refused " << path << ": " << std::hex << rc;
  std::string error;
  Setting rows;
  if (!LoadFile(path, rows, error))
    return ::testing::AssertionFailure() << "the rows of " << path << " make no tree: " << error;
  Setting shown = TreeOf(*client.getter);
  if (!Same(shown, rows))
    return ::testing::AssertionFailure()
           << "the manager shows " << Describe(shown) << "\nbut the rows hold " << Describe(rows);
  root = std::move(rows);
  return ::testing::AssertionSuccess();
}

void MakeRollbackFile(std::string const& path) {
  test_support::SqliteFile(path).Exec("PRAGMA journal_mode=DELETE; PRAGMA user_version=1;");
}

}  // namespace reliability
