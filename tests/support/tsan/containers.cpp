// Accesses to GLib's containers: a list that two threads change without a lock would look as if neither touched it.
// Each call is announced as a read or a write of a few bytes at the container's beginning.
#include <initializer_list>

#include "announce.h"

extern "C" {
// Of the sanitizer's runtime.
void __tsan_read8(void *address);
void __tsan_write8(void *address);
}

namespace {

void announce_read(std::initializer_list<gconstpointer> containers) {
  for (gconstpointer each : containers) {
    if (each != nullptr) __tsan_read8(const_cast<gpointer>(each));
  }
}

void announce_write(std::initializer_list<gconstpointer> containers) {
  for (gconstpointer each : containers) {
    if (each != nullptr) __tsan_write8(const_cast<gpointer>(each));
  }
}

}  // namespace

#define ANNOUNCED(access, touched, name, result, parameters, arguments) \
  INSTEAD_OF(name, result, parameters) {                                \
    REAL(name);                                                         \
    access touched;                                                     \
    return real arguments;                                              \
  }

#define READS(...) ANNOUNCED(announce_read, __VA_ARGS__)
#define WRITES(...) ANNOUNCED(announce_write, __VA_ARGS__)

extern "C" {

READS(({queue}), g_queue_is_empty, gboolean, (GQueue * queue), (queue))
READS(({queue}), g_queue_get_length, guint, (GQueue * queue), (queue))
WRITES(({queue}), g_queue_push_head, void, (GQueue * queue, gpointer item), (queue, item))
WRITES(({queue}), g_queue_push_tail, void, (GQueue * queue, gpointer item), (queue, item))
WRITES(({queue}), g_queue_pop_head, gpointer, (GQueue * queue), (queue))
WRITES(({queue}), g_queue_pop_tail, gpointer, (GQueue * queue), (queue))
WRITES(({queue}), g_queue_free, void, (GQueue * queue), (queue))

// A list is known by its first link, whichever of its links is changed.
READS(({list}), g_list_find, GList *, (GList * list, gconstpointer data), (list, data))
READS(({list}), g_list_length, guint, (GList * list), (list))
WRITES(({list}), g_list_append, GList *, (GList * list, gpointer data), (list, data))
WRITES(({list}), g_list_prepend, GList *, (GList * list, gpointer data), (list, data))
WRITES(({list, link}), g_list_delete_link, GList *, (GList * list, GList *link), (list, link))
WRITES(({list}), g_list_remove, GList *, (GList * list, gconstpointer data), (list, data))
WRITES(({list}), g_list_free, void, (GList * list), (list))

READS(({table}), g_hash_table_size, guint, (GHashTable * table), (table))
READS(({table}), g_hash_table_lookup, gpointer, (GHashTable * table, gconstpointer key), (table, key))
READS(({table}), g_hash_table_contains, gboolean, (GHashTable * table, gconstpointer key), (table, key))
READS(({table}), g_hash_table_iter_init, void, (GHashTableIter * iterator, GHashTable *table), (iterator, table))
WRITES(({table}), g_hash_table_insert, gboolean, (GHashTable * table, gpointer key, gpointer value),
       (table, key, value))
WRITES(({table}), g_hash_table_remove, gboolean, (GHashTable * table, gconstpointer key), (table, key))
WRITES(({table}), g_hash_table_steal_extended, gboolean,
       (GHashTable * table, gconstpointer key, gpointer *stolen_key, gpointer *stolen_value),
       (table, key, stolen_key, stolen_value))
WRITES(({table}), g_hash_table_steal_all, void, (GHashTable * table), (table))

}  // extern "C"
