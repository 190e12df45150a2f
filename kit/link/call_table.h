// kit/link/call_table.h - which requests are at the driver, and which wait for their turn.
//
// At most `limit` requests are at the driver. The others wait in the order in which they came, so that no call is
// passed by another; callers are not told apart. A request that its caller has given up stays in its place until the
// driver answers it, so that a driver that has stopped is not sent more and more requests; after ten seconds the place
// is free again, because there are drivers that do not answer at all what they do not know.
#pragma once
#include "link/call.h"

namespace ptz_kit {

class CallTable {
 public:
  static constexpr guint most_waiting = 1024;
  static constexpr gint64 given_up_us = 10 * G_USEC_PER_SEC;

  explicit CallTable(guint limit) : limit_(limit), sent_(g_array_new(FALSE, FALSE, sizeof(Sent))) {}

  // The id for the frame.
  [[nodiscard]] guint32 add_sent(Call &call);
  // False if too many calls are waiting.
  [[nodiscard]] bool add_waiting(Call &call);
  [[nodiscard]] bool may_send_at_once(gint64 now_us) { return waiting_count_ == 0 && has_room(now_us); }
  // Takes the next call from those that wait; null if there is none or no room for it.
  [[nodiscard]] Call *take_next(gint64 now_us);
  // Takes the call with this id; null if it was given up or there is none.
  [[nodiscard]] Call *take_answered(guint32 id);
  void give_up(Call &call, gint64 now_us);
  // When a waiting call can have the place of a request that was given up; G_MAXINT64 if there is none.
  [[nodiscard]] gint64 next_place_us() const;
  // A call whose deadline has come; if there is none, null and the next deadline.
  [[nodiscard]] Call *find_due(gint64 now_us, gint64 &next_deadline_us) const;
  // For the end of the connection: any call that is at the driver, any one that waits; null if there is none.
  [[nodiscard]] Call *take_sent();
  [[nodiscard]] Call *take_waiting();

 private:
  struct Sent {
    guint32 id;
    Call *call;             // null if it was given up
    gint64 given_up_at_us;  // 0 if it was not
  };
  [[nodiscard]] Sent &sent(guint index) const { return g_array_index(sent_.get(), Sent, index); }
  [[nodiscard]] bool has_room(gint64 now_us);

  const guint limit_;
  guint32 next_id_ = 0;
  const Array sent_;
  CallList waiting_;
  guint waiting_count_ = 0;
};

}  // namespace ptz_kit
