#include "transport/endpoint_use.h"

#include <utility>

#include "base/handles.h"
#include "ptz_file_g_source.h"
#include "transport/socket_private.h"

namespace ptz {

namespace {

GMutex lifetime_mutex;

// lifetime_mutex held, the endpoint's memory valid. A new reference, or null.
PTZSocket *reference_if_alive(PTZSocket *endpoint) {
  return static_cast<PTZSocket *>(g_weak_ref_get(&lifetime_of(endpoint).self));
}

}  // namespace

void EndpointLifetime::begin(PTZSocket *endpoint) { g_weak_ref_init(&self, endpoint); }

void EndpointLifetime::revive(PTZSocket *endpoint) {
  const bool is_in_use = g_atomic_int_get(&endpoint->parent_instance.ref_count) > 1;
  if (is_in_use) g_weak_ref_set(&self, endpoint);
}

void EndpointLifetime::end() {
  const MutexLock lock(&lifetime_mutex);
  g_weak_ref_clear(&self);
}

EndpointUse::EndpointUse(GSource *source, gpointer endpoint) : endpoint_(nullptr) {
  if (endpoint == nullptr) return;
  const MutexLock lock(&lifetime_mutex);
  if (source != nullptr && g_source_is_destroyed(source)) return;
  endpoint_ = reference_if_alive(static_cast<PTZSocket *>(endpoint));
}

EndpointUse::~EndpointUse() {
  if (endpoint_ != nullptr) g_object_unref(endpoint_);
}

void destroy_source(GSource *source) {
  const MutexLock lock(&lifetime_mutex);
  g_source_destroy(source);
}

// Under the source's mutex too: whether the source is destroyed does not change while a watch is being added.
void destroy_descriptor_source(GSource *source) {
  const MutexLock lock(&lifetime_mutex);
  const MutexLock source_lock(&reinterpret_cast<PTZFileGSource *>(source)->mutex);
  g_source_destroy(source);
}

void remove_source(guint32 &id) {
  if (id == 0) return;
  const MutexLock lock(&lifetime_mutex);
  g_source_remove(std::exchange(id, 0));
}

}  // namespace ptz
