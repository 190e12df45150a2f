// src/transport/deferred_replies.h - replies of a command client that wait for the main loop to deliver them.
#pragma once
#include <glib.h>

#include "ptz_socket_client_command.h"

namespace ptz {

// Replies are queued by any thread and delivered one by one on the default main context, at idle priority. One source
// serves the client; it is made with the first reply, and is ready while the queue is not empty. A main loop inside a
// reply callback delivers the rest of the queue.
//
// Lock: `mutex_`, over the queue and the spare records; only GLib's locks are taken under it. add(): any thread, also
// with the locks of the stream and of the pending requests held. Delivery: default main context. end(): the finalizer.
class DeferredReplies {
  struct Record {
    Record *next;
    guint32 length;
    guint8 frame[PTZ_SOCKET_FRAME_MAX];
  };
  static constexpr int spares_max = 16;

  PTZSocketClientCommand *client_;
  GMutex mutex_;
  GSource *source_ = nullptr;
  Record *first_ = nullptr;
  Record **end_ = &first_;
  guint count_ = 0;
  Record *spares_ = nullptr;  // records that are used again: a busy client does not allocate one for each reply
  int spare_count_ = 0;

 public:
  explicit DeferredReplies(PTZSocketClientCommand *client) : client_(client) { g_mutex_init(&mutex_); }
  DeferredReplies(DeferredReplies &&) = delete;
  ~DeferredReplies() { g_mutex_clear(&mutex_); }

  // Copies the frame.
  void add(const guint8 *frame, guint32 length);
  // Drops what was not delivered; those requests are still pending.
  void end();

 private:
  static gboolean dispatch(GSource *source, GSourceFunc callback, gpointer user_data);
  static GSourceFuncs source_functions;

  void deliver();
  [[nodiscard]] Record *take();
  void recycle(Record *record);
};

}  // namespace ptz
