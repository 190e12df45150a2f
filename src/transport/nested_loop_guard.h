// src/transport/nested_loop_guard.h - keeps a source from being dispatched again from inside its own callback.
#pragma once
#include <utility>

namespace ptz {

// A callback may run a main loop of its own. GLib guarantees that a source is not re-entered from there by removing
// and re-adding each of its descriptors around every dispatch, which is slow. Our sources allow recursion
// (g_source_set_can_recurse) and use this guard instead: only prepare(), if it runs inside the callback, takes the
// descriptors off the context, and the dispatch puts them back afterwards.
//
// States: idle -> in callback -> paused -> idle. The source calls
//   prepare()    if (guard.must_pause()) { take the descriptors off; guard.pause(); }
//   dispatch()   guard.enter(); callback(); if (guard.leave()) put the descriptors back;
//   cancel()     if something else has decided meanwhile what is watched
// A source whose watch other code may switch on inside the callback tests in_callback() in prepare() instead, and
// pauses again. The source's owner says which lock or thread protects the guard.
class NestedLoopGuard {
  bool in_callback_ = false;
  bool paused_ = false;

 public:
  [[nodiscard]] bool in_callback() const { return in_callback_; }
  [[nodiscard]] bool must_pause() const { return in_callback_ && !paused_; }
  void pause() { paused_ = true; }
  void cancel() { paused_ = false; }

  void enter() { in_callback_ = true; }
  // Whether descriptors were taken off the context meanwhile.
  [[nodiscard]] bool leave() {
    in_callback_ = false;
    return std::exchange(paused_, false);
  }
};

}  // namespace ptz
