#include "transport/endpoint_use.h"

#include <utility>

#include "base/handles.h"
#include "ptz_file_g_source.h"
#include "transport/socket_private.h"

namespace ptz {

namespace {

constexpr gulong pin_wait_us = 50;

GMutex lifetime_mutex;

bool is_last_reference(PTZSocket *endpoint) { return g_atomic_int_get(&endpoint->parent_instance.ref_count) <= 1; }

// lifetime_mutex held. Returns the endpoint, pinned.
PTZSocket *pin(PTZSocket *endpoint) {
  auto &lifetime = lifetime_of(endpoint);
  if (lifetime.ending) return nullptr;
  ++lifetime.pins;
  return endpoint;
}

}  // namespace

void EndpointReference::set(PTZSocket *to) {
  const MutexLock lock(&lifetime_mutex);
  auto &lifetime = lifetime_of(to);
  endpoint = to;
  previous = nullptr;
  next = lifetime.references;
  if (next != nullptr) next->previous = this;
  lifetime.references = this;
}

void EndpointReference::clear() {
  const MutexLock lock(&lifetime_mutex);
  if (endpoint == nullptr) return;
  (previous != nullptr ? previous->next : lifetime_of(endpoint).references) = next;
  if (next != nullptr) next->previous = previous;
  endpoint = nullptr;
}

EndpointUse::EndpointUse(GSource *source, gpointer endpoint) {
  if (endpoint == nullptr) return;
  PTZSocket *pinned = nullptr;
  {
    const MutexLock lock(&lifetime_mutex);
    if (source == nullptr || !g_source_is_destroyed(source)) pinned = pin(static_cast<PTZSocket *>(endpoint));
  }
  take_reference(pinned);
}

EndpointUse::EndpointUse(const EndpointReference &reference) {
  PTZSocket *pinned = nullptr;
  {
    const MutexLock lock(&lifetime_mutex);
    if (reference.endpoint != nullptr) pinned = pin(reference.endpoint);
  }
  take_reference(pinned);
}

void EndpointUse::take_reference(PTZSocket *endpoint) {
  if (endpoint == nullptr) return;
  g_object_ref(endpoint);
  endpoint_ = endpoint;
  const MutexLock lock(&lifetime_mutex);
  --lifetime_of(endpoint).pins;
}

EndpointUse::~EndpointUse() {
  if (endpoint_ != nullptr) g_object_unref(endpoint_);
}

void last_reference_may_be_going(PTZSocket *endpoint) {
  auto &lifetime = lifetime_of(endpoint);
  while (true) {
    {
      const MutexLock lock(&lifetime_mutex);
      if (!is_last_reference(endpoint)) return;
      if (lifetime.pins == 0) {
        lifetime.ending = true;
        for (auto *reference = lifetime.references; reference != nullptr; reference = reference->next) {
          reference->endpoint = nullptr;
        }
        lifetime.references = nullptr;
        return;
      }
    }
    g_usleep(pin_wait_us);
  }
}

void survived_dispose(PTZSocket *endpoint) {
  const MutexLock lock(&lifetime_mutex);
  if (!is_last_reference(endpoint)) lifetime_of(endpoint).ending = false;
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
