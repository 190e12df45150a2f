// kit/link/link_calls.h - the calls of a link as its public functions make them.
#pragma once
#include <ptz_kit_link.h>

#include "link/link_core.h"
#include "protocol/message_codec.h"

namespace ptz_kit {

[[nodiscard]] LinkCore &core_of(PTZKitLink *link);

constexpr guint default_deadline_ms = 10'000;
[[nodiscard]] gint64 deadline_after(guint deadline_ms);

// The typed functions, which are made by generate_calls.py: the command is an index into Tables::commands. The
// arguments are those of the public functions, and are checked here. A request without fields is NULL. The result is
// the reply, which the caller owns, or for a command without fields in its reply any pointer that is not NULL, owned by
// no caller.
[[nodiscard]] gpointer call(PTZKitLink *link, guint command, gconstpointer request, guint deadline_ms,
                            GCancellable *cancellable, GError **error);
void call_async(PTZKitLink *link, guint command, gconstpointer request, guint deadline_ms, GCancellable *cancellable,
                GAsyncReadyCallback callback, gpointer user_data);
[[nodiscard]] gpointer call_finish(PTZKitLink *link, guint command, GAsyncResult *result, GError **error);

}  // namespace ptz_kit
