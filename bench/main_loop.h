// main_loop.h - the default main context, run by another thread as long as this lives.
#pragma once
#include <glib.h>

#include <memory>

#include "handles.h"

namespace bench {

using MainLoop = std::unique_ptr<GMainLoop, ptz_test::FreeWith<g_main_loop_unref>>;

class RunningMainLoop {
  MainLoop loop_{g_main_loop_new(nullptr, FALSE)};
  GThread *thread_;

  static gpointer run(gpointer loop) {
    g_main_loop_run(static_cast<GMainLoop *>(loop));
    return nullptr;
  }
  static gboolean quit(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop *>(loop));
    return G_SOURCE_REMOVE;
  }

 public:
  RunningMainLoop() : thread_(g_thread_new("main loop", run, loop_.get())) {}
  RunningMainLoop(RunningMainLoop &&) = delete;
  ~RunningMainLoop() {
    g_idle_add(quit, loop_.get());  // from within: a loop that does not run yet could not be told to end
    g_thread_join(thread_);
  }
};

}  // namespace bench
