#pragma once

#include "settings_manager/setting.h"
#include "uvc/tree.h"

namespace settings_manager {

// Undoes a creation unless disarmed: erases the created name from `parent`, or blanks a
// created list element in place (later positions stay valid). Never throws.
class AutoDel {
 public:
  AutoDel(Setting& parent, uvc::Id child) : parent_(parent), child_(std::move(child)) {}
  ~AutoDel() {
    if (armed_) uvc::DelItem(parent_, child_, false);
  }
  AutoDel(AutoDel const&) = delete;
  AutoDel& operator=(AutoDel const&) = delete;

  void Disarm() noexcept { armed_ = false; }

 private:
  bool armed_ = true;
  Setting& parent_;
  uvc::Id child_;
};

}  // namespace settings_manager
