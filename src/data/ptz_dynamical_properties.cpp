#include "ptz_dynamical_properties.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "base/check.h"
#include "base/handles.h"
#include "ptz_gvalue_utils.h"

static_assert(std::is_standard_layout_v<PTZDynamicalProperties> &&
              std::is_standard_layout_v<PTZDynamicalPropertiesClass>);
static_assert(offsetof(PTZDynamicalProperties, properties) == sizeof(GObject));
static_assert(offsetof(PTZDynamicalPropertiesClass, set_from_string) == sizeof(GObjectClass));

struct PTZDynamicalPropertiesPrivate {
  std::vector<ptz::Text> cleared_names;  // of removed properties whose notifications wait; guarded by the queue lock
};

G_DEFINE_TYPE_WITH_PRIVATE(PTZDynamicalProperties, ptz_dynamical_properties, G_TYPE_OBJECT)

namespace {

// All of the whole process. The table lock comes before the queue lock; none is held while the emission lock is taken.
GMutex table_lock;     // guards the tables
GMutex queue_lock;     // guards the queues
GMutex emission_lock;  // held while a batch of notifications is emitted

// Names of changed properties, newest first. They are copies: the properties may be cleared before their turn comes.
using Batch = std::vector<std::string>;

PTZDynamicalPropertiesPrivate *private_of(PTZDynamicalProperties *self) {
  return static_cast<PTZDynamicalPropertiesPrivate *>(ptz_dynamical_properties_get_instance_private(self));
}

void free_value(GValue *value) {
  g_value_unset(value);
  g_free(value);
}
using Value = ptz::Handle<GValue, free_value>;

// Also read where the queue lock is not held.
std::atomic_ref<guint16> freeze_count_of(PTZDynamicalProperties *self) {
  return std::atomic_ref(self->nqueue.freeze_count);
}

// Zero when storing the value would be no change.
gint _ptz_dynamical_properties_cmp(const GValue *stored, const GValue *value) {
  if (stored == nullptr || G_VALUE_TYPE(stored) != G_VALUE_TYPE(value)) return 1;
  switch (G_VALUE_TYPE(stored)) {
    case G_TYPE_INT:
      return g_value_get_int(stored) != g_value_get_int(value) ? 1 : 0;
    case G_TYPE_BOOLEAN:
      return g_value_get_boolean(stored) != g_value_get_boolean(value) ? 1 : 0;
    case G_TYPE_DOUBLE:
      return g_value_get_double(stored) != g_value_get_double(value) ? 1 : 0;
    case G_TYPE_STRING: {
      const gchar *old_text = g_value_get_string(stored), *new_text = g_value_get_string(value);
      if (old_text == nullptr || new_text == nullptr) return g_strcmp0(old_text, new_text);
      return g_ascii_strcasecmp(old_text, new_text);
    }
    default:
      log_func(LOG_ERR, "Unknown type for dynamic property");
      return 0;
  }
}

const GValue *stored_value(PTZDynamicalProperties *self, const gchar *name) {
  return static_cast<const GValue *>(g_hash_table_lookup(self->properties, name));
}

// Queue lock held.
Batch take_pending(PTZDynamicalProperties *self) {
  Batch batch;
  GSList *pending = std::exchange(self->nqueue.pending, nullptr);
  for (const GSList *node = pending; node != nullptr; node = node->next) {
    batch.emplace_back(static_cast<const gchar *>(node->data));
  }
  g_slist_free(pending);
  private_of(self)->cleared_names.clear();
  return batch;
}

// Table lock held: the key stays until it is in the queue or copied.
Batch queue_change(PTZDynamicalProperties *self, gchar *key) {
  const ptz::MutexLock lock(&queue_lock);
  const bool is_frozen = freeze_count_of(self) > 0;
  if (!is_frozen && self->nqueue.pending == nullptr) return {key};
  self->nqueue.pending = g_slist_prepend(self->nqueue.pending, key);
  return is_frozen ? Batch() : take_pending(self);
}

// No lock held.
void emit(PTZDynamicalProperties *self, const Batch &batch) {
  // The finalize of a subclass may set properties. GLib has disconnected all handlers by then, and the object cannot be
  // referenced any more, as an emission would do.
  if (batch.empty() || g_atomic_int_get(&self->parent_instance.ref_count) == 0) return;
  // The first value's reference is let go of after the lock: it may be the last one.
  GValue parameters[] = {G_VALUE_INIT, G_VALUE_INIT};
  g_value_init(&parameters[0], G_TYPE_FROM_INSTANCE(self));
  g_value_set_instance(&parameters[0], self);
  g_value_init(&parameters[1], G_TYPE_STRING);
  const guint signal_id = PTZ_DYNAMICAL_PROPERTIES_GET_CLASS(self)->notify_change;
  {
    const ptz::MutexLock lock(&emission_lock);
    std::for_each(batch.rbegin(), batch.rend(), [&](const std::string &name) {
      g_value_set_static_string(&parameters[1], name.c_str());
      g_signal_emitv(parameters, signal_id, 0, nullptr);
    });
  }
  g_value_unset(&parameters[1]);
  g_value_unset(&parameters[0]);
}

// No lock held.
void store(PTZDynamicalProperties *self, const gchar *name, GValue *value) {
  if (!g_type_check_value(value)) {
    syslog(LOG_ERR, "GValue corrupt for %s\n", name);
    return;
  }
  Value old_value;
  Batch batch;
  {
    const ptz::MutexLock lock(&table_lock);
    gpointer stored_key = nullptr, stored = nullptr;
    // Out and in again under the same key: one copy and one look-up less than an insertion over it.
    g_hash_table_steal_extended(self->properties, name, &stored_key, &stored);
    old_value.reset(static_cast<GValue *>(stored));
    auto *key = static_cast<gchar *>(stored_key != nullptr ? stored_key : g_strdup(name));
    const bool changed = _ptz_dynamical_properties_cmp(old_value.get(), value) != 0;
    g_hash_table_insert(self->properties, key, value);
    if (old_value.get() == value) (void)old_value.release();
    if (changed) batch = queue_change(self, key);
  }
  old_value.reset();  // without the lock: it may hold the last reference to an object, whose end may call anything
  emit(self, batch);
}

gchar *_ptz_dynamical_properties_string_to_gvalue(PTZDynamicalProperties *, GValue **value, const gchar *string) {
  g_return_val_if_fail(string, NULL);
  g_return_val_if_fail(value, NULL);
  gchar *name = nullptr;
  ptz_gvalue_utils_formatted_string_to_gvalue(string, &name, value);
  return name;
}

gchar *_ptz_dynamical_properties_gvalue_to_string(PTZDynamicalProperties *, const gchar *name, const GValue *value) {
  g_return_val_if_fail(name, NULL);
  g_return_val_if_fail(value, NULL);
  return ptz_gvalue_utils_gvalue_to_formatted_string(name, value);
}

gchar *_ptz_dynamical_properties_set_from_string(PTZDynamicalProperties *self, const gchar *set) {
  g_return_val_if_fail(PTZ_IS_DYNAMICAL_PROPERTIES (self), NULL);
  g_return_val_if_fail(set, NULL);
  Value value;
  ptz::Text name(_ptz_dynamical_properties_string_to_gvalue(self, ptz::out(value), set));
  // A value without a name is one of a type that has no text form.
  if (name != nullptr && value != nullptr) store(self, name.get(), value.release());
  return name.release();
}

void _ptz_dynamical_properties_set(PTZDynamicalProperties *self, const gchar *name, GValue *value) {
  g_return_if_fail(PTZ_IS_DYNAMICAL_PROPERTIES (self));
  g_return_if_fail(name);
  g_return_if_fail(value);
  store(self, name, value);
}

GValue *_ptz_dynamical_properties_get(PTZDynamicalProperties *self, const gchar *name) {
  g_return_val_if_fail(PTZ_IS_DYNAMICAL_PROPERTIES (self), NULL);
  g_return_val_if_fail(name, NULL);
  const ptz::MutexLock lock(&table_lock);
  return const_cast<GValue *>(stored_value(self, name));
}

gint _ptz_dynamical_properties_compare(PTZDynamicalProperties *self, const gchar *name, const GValue *value) {
  g_return_val_if_fail(PTZ_IS_DYNAMICAL_PROPERTIES (self), 1);
  g_return_val_if_fail(name, 1);
  g_return_val_if_fail(value, 1);
  const ptz::MutexLock lock(&table_lock);
  return _ptz_dynamical_properties_cmp(stored_value(self, name), value);
}

void _ptz_dynamical_properties_clear(PTZDynamicalProperties *self) {
  g_return_if_fail(PTZ_IS_DYNAMICAL_PROPERTIES (self));
  std::vector<Value> values;  // released without the lock, as in store()
  std::vector<ptz::Text> names;
  const ptz::MutexLock lock(&table_lock);
  GHashTableIter iter;
  gpointer key = nullptr, value = nullptr;
  g_hash_table_iter_init(&iter, self->properties);
  while (g_hash_table_iter_next(&iter, &key, &value)) {
    names.emplace_back(static_cast<gchar *>(key));
    values.emplace_back(static_cast<GValue *>(value));
  }
  g_hash_table_steal_all(self->properties);
  const ptz::MutexLock nested_lock(&queue_lock);
  if (self->nqueue.pending != nullptr) std::ranges::move(names, std::back_inserter(private_of(self)->cleared_names));
}

// That of the base class where there is no object: its operations say so.
PTZDynamicalPropertiesClass *class_of(PTZDynamicalProperties *self) {
  static gpointer const base_class = g_type_class_ref(PTZ_TYPE_DYNAMICAL_PROPERTIES);
  return PTZ_IS_DYNAMICAL_PROPERTIES(self) ? PTZ_DYNAMICAL_PROPERTIES_GET_CLASS(self)
                                           : static_cast<PTZDynamicalPropertiesClass *>(base_class);
}

}  // namespace

static void ptz_dynamical_properties_init(PTZDynamicalProperties *self) {
  std::construct_at(private_of(self));
  self->properties = g_hash_table_new_full(g_str_hash, g_str_equal, g_free,
                                           [](gpointer value) { free_value(static_cast<GValue *>(value)); });
}

void ptz_dynamical_properties_finalize(GObject *object) {
  auto *self = PTZ_DYNAMICAL_PROPERTIES(object);
  g_slist_free(self->nqueue.pending);
  g_hash_table_unref(self->properties);
  std::destroy_at(private_of(self));
  G_OBJECT_CLASS(ptz_dynamical_properties_parent_class)->finalize(object);
}

static void ptz_dynamical_properties_class_init(PTZDynamicalPropertiesClass *klass) {
  G_OBJECT_CLASS(klass)->finalize = ptz_dynamical_properties_finalize;
  klass->set_from_string = _ptz_dynamical_properties_set_from_string;
  klass->string_to_gvalue = _ptz_dynamical_properties_string_to_gvalue;
  klass->gvalue_to_string = _ptz_dynamical_properties_gvalue_to_string;
  klass->set = _ptz_dynamical_properties_set;
  klass->get = _ptz_dynamical_properties_get;
  klass->compare = _ptz_dynamical_properties_compare;
  klass->clear = _ptz_dynamical_properties_clear;
  constexpr auto flags = static_cast<GSignalFlags>(G_SIGNAL_RUN_LAST | G_SIGNAL_NO_RECURSE | G_SIGNAL_NO_HOOKS);
  klass->notify_change = g_signal_new("notify_change", G_TYPE_FROM_CLASS(klass), flags, 0, nullptr, nullptr,
                                      g_cclosure_marshal_VOID__STRING, G_TYPE_NONE, 1, G_TYPE_STRING);
}

PTZDynamicalProperties *ptz_dynamical_properties_new(void) {
  return PTZ_DYNAMICAL_PROPERTIES(g_object_new(PTZ_TYPE_DYNAMICAL_PROPERTIES, nullptr));
}

GValue *ptz_dynamical_properties_get(PTZDynamicalProperties *self, const gchar *name) {
  return class_of(self)->get(self, name);
}

void ptz_dynamical_properties_set(PTZDynamicalProperties *self, const gchar *name, GValue *value) {
  class_of(self)->set(self, name, value);
}

gchar *ptz_dynamical_properties_set_from_string(PTZDynamicalProperties *self, const gchar *set) {
  return class_of(self)->set_from_string(self, set);
}

gchar *ptz_dynamical_properties_string_to_gvalue(PTZDynamicalProperties *self, GValue **value, const gchar *string) {
  return class_of(self)->string_to_gvalue(self, value, string);
}

gchar *ptz_dynamical_properties_gvalue_to_string(PTZDynamicalProperties *self, const gchar *name, const GValue *value) {
  return class_of(self)->gvalue_to_string(self, name, value);
}

gint ptz_dynamical_properties_compare(PTZDynamicalProperties *self, const gchar *name, const GValue *value) {
  return class_of(self)->compare(self, name, value);
}

void ptz_dynamical_properties_clear(PTZDynamicalProperties *self) { class_of(self)->clear(self); }

void ptz_dynamical_properties_freeze_notify(PTZDynamicalProperties *self) {
  g_return_if_fail(PTZ_IS_DYNAMICAL_PROPERTIES (self));
  {
    const ptz::MutexLock lock(&queue_lock);
    if (freeze_count_of(self) < G_MAXUINT16) {
      ++freeze_count_of(self);
      return;
    }
  }
  g_critical(
      "Free queue for %s (%p) is larger than 65535, called g_object_freeze_notify() too often. Forgot to call "
      "ptz_dynamical_properties_notify_queue_thaw() or infinite loop",
      G_OBJECT_TYPE_NAME(self), static_cast<void *>(self));
}

void ptz_dynamical_properties_thaw_notify(PTZDynamicalProperties *self) {
  g_return_if_fail(PTZ_IS_DYNAMICAL_PROPERTIES (self));
  return_if_fail_stated(freeze_count_of(self) > 0, "self->nqueue.freeze_count > 0");
  Batch batch;
  ptz::MutexLock lock(&queue_lock);
  if (freeze_count_of(self) == 0) {  // another thread was faster
    lock.unlock();
    g_warning("%s: property-changed notification for %s(%p) is not frozen", __func__, G_OBJECT_TYPE_NAME(self),
              static_cast<void *>(self));
    return;
  }
  if (--freeze_count_of(self) == 0) batch = take_pending(self);
  lock.unlock();
  emit(self, batch);
}
