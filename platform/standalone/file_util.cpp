#include "platform/file_util.h"

#include <glib/gstdio.h>

namespace {
constexpr int owner_writes_everybody_reads = 0644;
}

gboolean file_util_set_contents_synced(const gchar *path, const gchar *data, gsize length, GError **error) {
  constexpr auto whole_or_not_at_all =
      static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE);
  return g_file_set_contents_full(path, data, static_cast<gssize>(length), whole_or_not_at_all,
                                  owner_writes_everybody_reads, error);
}
