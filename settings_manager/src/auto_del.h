#pragma once

#include <utility>
#include <variant>

#include "settings_manager/setting.h"
#include "uvc/id.h"

namespace settings_manager {

// Undoes a creation unless disarmed: erases the created name from the map `parent`, or
// resets a created element of the list `parent` to a default (None, writable) node. The
// list keeps its length, so that the positions of later elements stay valid. Anything
// else (the id no longer there, a parent of another kind) is left alone. Never throws.
class AutoDel {
 public:
  AutoDel(Setting& parent, uvc::Id child) noexcept : parent_(parent), child_(std::move(child)) {}
  ~AutoDel() {
    if (!armed_) return;
    if (auto const* key = std::get_if<1>(&child_)) {
      if (auto* map = std::get_if<uvc::index::kMap>(&parent_)) {
        auto const it = map->find(*key);
        if (it != map->end()) map->erase(it);
      }
    } else if (auto const* number = std::get_if<0>(&child_)) {
      auto* list = std::get_if<uvc::index::kList>(&parent_);
      // The attributes go too: a failed creation must not leave a read-only mark behind.
      if (list != nullptr && *number < list->size())
        (*list)[static_cast<std::size_t>(*number)] = Setting();
    }
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
