#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "tern/logger/tern_logger.h"

namespace test_support {

struct CapturedRecord {
  tern::logger::LogLevel level;
  std::string file;
  std::string function;
  std::string message;
};

// Captures every log record (threshold 0) while it lives; restores the previous sink and
// threshold afterwards. Safe to read while other threads log.
class CapturedLog {
 public:
  CapturedLog() {
    previousSink_ = Root().SetSink([this](tern::logger::LogRecord const& r) {
      std::lock_guard<std::mutex> lock(lock_);
      records_.push_back(
          {r.level, std::string(r.file), std::string(r.function), std::string(r.message)});
    });
    Root().SetThreshold(tern::logger::LogLevel::Trace);
  }
  ~CapturedLog() {
    Root().SetThreshold(previousThreshold_);
    Root().SetSink(std::move(previousSink_));
  }
  CapturedLog(CapturedLog const&) = delete;
  CapturedLog& operator=(CapturedLog const&) = delete;

  std::vector<CapturedRecord> Records() const {
    std::lock_guard<std::mutex> lock(lock_);
    return records_;
  }
  std::vector<CapturedRecord> ByFunction(std::string const& function) const {
    std::vector<CapturedRecord> out;
    for (auto const& r : Records())
      if (r.function == function) out.push_back(r);
    return out;
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(lock_);
    records_.clear();
  }

 private:
  static tern::logger::TernLogger& Root() { return tern::logger::TernLogger::RootLogger(); }
  mutable std::mutex lock_;
  std::vector<CapturedRecord> records_;  // guarded by lock_
  tern::logger::LogSink previousSink_;
  tern::logger::LogLevel const previousThreshold_ = Root().Threshold();
};

}  // namespace test_support
