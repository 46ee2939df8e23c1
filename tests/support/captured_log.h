#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "tern/logger/tern_logger.h"

namespace test_support {

struct CapturedRecord {
  tern::logger::LogLevel level;
  std::string file;
  int line;
  std::string function;
  std::string message;
};

// Captures every log record (threshold 0) while it lives; restores the previous sink and
// threshold afterwards. Safe to read while other threads log.
class CapturedLog {
 public:
  CapturedLog();
  ~CapturedLog();
  CapturedLog(CapturedLog const&) = delete;
  CapturedLog& operator=(CapturedLog const&) = delete;

  std::vector<CapturedRecord> Records() const;
  std::vector<std::string> Messages() const;
  // Records whose function name is `function`.
  std::vector<CapturedRecord> ByFunction(std::string const& function) const;
  void Clear();

 private:
  mutable std::mutex lock_;
  std::vector<CapturedRecord> records_;  // guarded by lock_
  tern::logger::LogSink previousSink_;
  tern::logger::LogLevel previousThreshold_;
};

}  // namespace test_support
