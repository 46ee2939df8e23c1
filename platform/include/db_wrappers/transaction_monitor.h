#pragma once

#include <memory>

namespace db_wrappers {

// Scope guard of one transaction: rolls back when it ends with the transaction begun and
// not committed. A failure of that roll-back is swallowed: a destructor reports nothing.
template <typename Database>
class TransactionMonitor {
 public:
  explicit TransactionMonitor(std::unique_ptr<Database> const& db) noexcept : db_(db) {}
  TransactionMonitor(TransactionMonitor const&) = delete;
  TransactionMonitor& operator=(TransactionMonitor const&) = delete;

  ~TransactionMonitor() {
    if (begun_ && !committed_) {
      try {
        db_->Rollback();
      } catch (...) {
      }
    }
  }

  // True when the transaction has begun.
  bool Begin() {
    begun_ = db_->Begin().Statement() != nullptr;
    return begun_;
  }

  // True when the transaction is committed; otherwise it is rolled back at scope end.
  bool Commit() {
    committed_ = db_->Commit().Statement() != nullptr;
    return committed_;
  }

 private:
  std::unique_ptr<Database> const& db_;
  bool begun_ = false;
  bool committed_ = false;
};

}  // namespace db_wrappers
