// kit/link/link_section.h - the lock of a link, and what happens when it is released.
#pragma once
#include "link/link_core.h"

namespace ptz_kit {

// Holds the lock. Callbacks of calls that ended meanwhile run when it has been released.
class LinkCore::Section {
 public:
  enum class Callbacks { at_once, later };  // at once: in the thread of the link's source, which is no program's call

  Section(LinkCore &core, Callbacks callbacks) : core_(core), callbacks_(callbacks) { g_mutex_lock(&core_.lock_); }
  Section(Section &&) = delete;
  ~Section() { release(); }
  void pause() { release(); }
  void resume() { g_mutex_lock(&core_.lock_); }

 private:
  // One call at a time: its callback may run a main loop of its own, in which the other calls end.
  void release() {
    while (Call *ended = core_.ended_.take_first()) {
      auto *call = static_cast<LaterCall *>(ended);
      g_mutex_unlock(&core_.lock_);
      callbacks_ == Callbacks::at_once ? call->complete() : call->complete_in_callback();
      g_mutex_lock(&core_.lock_);
    }
    g_mutex_unlock(&core_.lock_);
  }

  LinkCore &core_;
  const Callbacks callbacks_;
};

}  // namespace ptz_kit
