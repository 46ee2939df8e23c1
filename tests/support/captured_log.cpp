#include "support/captured_log.h"

namespace test_support {

using tern::logger::TernLogger;

CapturedLog::CapturedLog() : previousThreshold_(TernLogger::RootLogger().Threshold()) {
  previousSink_ = TernLogger::RootLogger().SetSink([this](tern::logger::LogRecord const& r) {
    std::lock_guard<std::mutex> lock(lock_);
    records_.push_back({r.level, std::string(r.file), r.line, std::string(r.function),
                        std::string(r.message)});
  });
  TernLogger::RootLogger().SetThreshold(tern::logger::LogLevel::Trace);
}

CapturedLog::~CapturedLog() {
  TernLogger::RootLogger().SetThreshold(previousThreshold_);
  TernLogger::RootLogger().SetSink(std::move(previousSink_));
}

std::vector<CapturedRecord> CapturedLog::Records() const {
  std::lock_guard<std::mutex> lock(lock_);
  return records_;
}

std::vector<std::string> CapturedLog::Messages() const {
  std::lock_guard<std::mutex> lock(lock_);
  std::vector<std::string> out;
  out.reserve(records_.size());
  for (auto const& r : records_) out.push_back(r.message);
  return out;
}

std::vector<CapturedRecord> CapturedLog::ByFunction(std::string const& function) const {
  std::lock_guard<std::mutex> lock(lock_);
  std::vector<CapturedRecord> out;
  for (auto const& r : records_)
    if (r.function == function) out.push_back(r);
  return out;
}

void CapturedLog::Clear() {
  std::lock_guard<std::mutex> lock(lock_);
  records_.clear();
}

}  // namespace test_support
