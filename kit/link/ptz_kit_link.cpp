#include <ptz_kit_link.h>

#include "link/link_calls.h"
#include "link/link_source.h"

using namespace ptz_kit;

namespace {

enum {
  prop_0,
  prop_socket_path,
  prop_max_pending,
  prop_handshake_deadline,
  prop_state,
  prop_driver_name,
  prop_move_capabilities,
  prop_extra_capabilities,
  prop_protocol_version,
  prop_count
};
GParamSpec *properties[prop_count];

constexpr guint default_max_pending = 16;
constexpr guint default_handshake_ms = 2000;

struct LinkState {
  Text path;
  guint max_pending = default_max_pending;
  guint handshake_ms = default_handshake_ms;
  Shared<LinkCore> core;
};

}  // namespace

struct _PTZKitLink {
  GObject parent_instance;
  LinkState own;
};
struct _PTZKitLinkClass {
  GObjectClass parent_class;
};

// clang-format off
G_DEFINE_QUARK(ptz-kit-refusal-quark, ptz_kit_refusal)
// clang-format on
G_DEFINE_FINAL_TYPE(PTZKitLink, ptz_kit_link, G_TYPE_OBJECT)

GType ptz_kit_link_state_get_type(void) {
  static gsize type;
  static constexpr GEnumValue values[] = {
      {PTZ_KIT_LINK_STATE_DISCONNECTED, "PTZ_KIT_LINK_STATE_DISCONNECTED", "disconnected"},
      {PTZ_KIT_LINK_STATE_CONNECTING, "PTZ_KIT_LINK_STATE_CONNECTING", "connecting"},
      {PTZ_KIT_LINK_STATE_READY, "PTZ_KIT_LINK_STATE_READY", "ready"},
      {PTZ_KIT_LINK_STATE_FAILED, "PTZ_KIT_LINK_STATE_FAILED", "failed"},
      {0, nullptr, nullptr}};
  if (g_once_init_enter(&type)) g_once_init_leave(&type, g_enum_register_static("PTZKitLinkState", values));
  return type;
}

static void ptz_kit_link_init(PTZKitLink *self) { std::construct_at(&self->own); }

static void ptz_kit_link_constructed(GObject *object) {
  LinkState &own = PTZ_KIT_LINK(object)->own;
  own.core = Shared(new LinkCore(own.path != nullptr ? own.path.get() : "", own.max_pending, own.handshake_ms));
  G_OBJECT_CLASS(ptz_kit_link_parent_class)->constructed(object);
}

static void ptz_kit_link_finalize(GObject *object) {
  LinkState &own = PTZ_KIT_LINK(object)->own;
  own.core->close();
  std::destroy_at(&own);
  G_OBJECT_CLASS(ptz_kit_link_parent_class)->finalize(object);
}

static void ptz_kit_link_set_property(GObject *object, guint id, const GValue *value, GParamSpec *spec) {
  LinkState &own = PTZ_KIT_LINK(object)->own;
  switch (id) {
    case prop_socket_path:
      own.path.reset(g_value_dup_string(value));
      break;
    case prop_max_pending:
      own.max_pending = g_value_get_uint(value);
      break;
    case prop_handshake_deadline:
      own.handshake_ms = g_value_get_uint(value);
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
  }
}

static void ptz_kit_link_get_property(GObject *object, guint id, GValue *value, GParamSpec *spec) {
  PTZKitLink *self = PTZ_KIT_LINK(object);
  switch (id) {
    case prop_socket_path:
      return g_value_set_string(value, self->own.path.get());
    case prop_max_pending:
      return g_value_set_uint(value, self->own.max_pending);
    case prop_handshake_deadline:
      return g_value_set_uint(value, self->own.handshake_ms);
    case prop_state:
      return g_value_set_enum(value, ptz_kit_link_get_state(self));
    case prop_driver_name:
      return g_value_take_string(value, ptz_kit_link_dup_driver_name(self));
    case prop_move_capabilities:
      return g_value_set_uint(value, ptz_kit_link_get_move_capabilities(self));
    case prop_extra_capabilities:
      return g_value_set_uint(value, ptz_kit_link_get_extra_capabilities(self));
    case prop_protocol_version:
      return g_value_set_uint(value, ptz_kit_link_get_protocol_version(self));
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
  }
}

static void ptz_kit_link_class_init(PTZKitLinkClass *klass) {
  GObjectClass *object_class = G_OBJECT_CLASS(klass);
  object_class->constructed = ptz_kit_link_constructed;
  object_class->finalize = ptz_kit_link_finalize;
  object_class->set_property = ptz_kit_link_set_property;
  object_class->get_property = ptz_kit_link_get_property;

  constexpr auto construct =
      static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_CONSTRUCT_ONLY | G_PARAM_STATIC_STRINGS);
  constexpr auto read = static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);
  const auto number = [](const char *name, guint least, guint preset, GParamFlags flags) {
    return g_param_spec_uint(name, nullptr, nullptr, least, G_MAXUINT, preset, flags);
  };
  properties[prop_socket_path] = g_param_spec_string("socket-path", nullptr, nullptr, nullptr, construct);
  properties[prop_max_pending] = number("max-pending", 1, default_max_pending, construct);
  properties[prop_handshake_deadline] = number("handshake-deadline", 1, default_handshake_ms, construct);
  properties[prop_state] =
      g_param_spec_enum("state", nullptr, nullptr, PTZ_KIT_TYPE_LINK_STATE, PTZ_KIT_LINK_STATE_DISCONNECTED, read);
  properties[prop_driver_name] = g_param_spec_string("driver-name", nullptr, nullptr, nullptr, read);
  properties[prop_move_capabilities] = number("move-capabilities", 0, 0, read);
  properties[prop_extra_capabilities] = number("extra-capabilities", 0, 0, read);
  properties[prop_protocol_version] = number("protocol-version", 0, 0, read);
  g_object_class_install_properties(object_class, prop_count, properties);
}

LinkCore &ptz_kit::core_of(PTZKitLink *link) { return *link->own.core; }

void ptz_kit::notify_change(PTZKitLink *link, LinkCore &core) {
  if (!core.take_change()) return;
  GObject *object = G_OBJECT(link);
  g_object_freeze_notify(object);
  if (core.state() == PTZ_KIT_LINK_STATE_READY) {
    for (guint id = prop_driver_name; id < prop_count; ++id) g_object_notify_by_pspec(object, properties[id]);
  }
  g_object_notify_by_pspec(object, properties[prop_state]);
  g_object_thaw_notify(object);
}

PTZKitLink *ptz_kit_link_new(const gchar *socket_path) {
  g_return_val_if_fail(socket_path != NULL, NULL);
  return PTZ_KIT_LINK(g_object_new(PTZ_KIT_TYPE_LINK, "socket-path", socket_path, nullptr));
}

void ptz_kit_link_open(PTZKitLink *link) {
  g_return_if_fail(PTZ_KIT_IS_LINK(link));
  const Context context(g_main_context_ref_thread_default());
  GSource *source = new_link_source(link, link->own.core);
  link->own.core->open(source, context.get());
  g_source_unref(source);
}

void ptz_kit_link_close(PTZKitLink *link) {
  g_return_if_fail(PTZ_KIT_IS_LINK(link));
  const Object<PTZKitLink> kept(static_cast<PTZKitLink *>(g_object_ref(link)));
  link->own.core->close();
  notify_change(link, *link->own.core);
}

PTZKitLinkState ptz_kit_link_get_state(PTZKitLink *link) {
  g_return_val_if_fail(PTZ_KIT_IS_LINK(link), PTZ_KIT_LINK_STATE_DISCONNECTED);
  return link->own.core->state();
}

const gchar *ptz_kit_link_get_socket_path(PTZKitLink *link) {
  g_return_val_if_fail(PTZ_KIT_IS_LINK(link), NULL);
  return link->own.path.get();
}

gchar *ptz_kit_link_dup_driver_name(PTZKitLink *link) {
  g_return_val_if_fail(PTZ_KIT_IS_LINK(link), NULL);
  return link->own.core->facts().name.release();
}

guint ptz_kit_link_get_move_capabilities(PTZKitLink *link) {
  g_return_val_if_fail(PTZ_KIT_IS_LINK(link), 0);
  return link->own.core->facts().move;
}

guint ptz_kit_link_get_extra_capabilities(PTZKitLink *link) {
  g_return_val_if_fail(PTZ_KIT_IS_LINK(link), 0);
  return link->own.core->facts().extra;
}

guint ptz_kit_link_get_protocol_version(PTZKitLink *link) {
  g_return_val_if_fail(PTZ_KIT_IS_LINK(link), 0);
  return link->own.core->facts().protocol_version;
}
