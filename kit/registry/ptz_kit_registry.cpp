#include <gio/gio.h>

#include <cstring>
#include <memory>

#include "registry/entry_folder.h"
#include "registry/registry_watch.h"

using namespace ptz_kit;

namespace {

enum { prop_0, prop_directory, prop_count };

struct RegistryState {
  std::string directory;
  std::unique_ptr<RegistryWatch> watch;
};

using EntryList = Handle<GPtrArray, g_ptr_array_unref>;

const PTZKitRegistryEntry &entry_at(const EntryList &list, guint index) {
  return *static_cast<const PTZKitRegistryEntry *>(list->pdata[index]);
}

gint compare(gconstpointer left, gconstpointer right) {
  const auto &a = **static_cast<const PTZKitRegistryEntry *const *>(left);
  const auto &b = **static_cast<const PTZKitRegistryEntry *const *>(right);
  if (const int by_name = std::strcmp(a.name, b.name); by_name != 0) return by_name;
  if (a.instance != b.instance) return a.instance < b.instance ? -1 : 1;
  return std::strcmp(a.socket_path, b.socket_path);
}

void set_file_error(GError **error, const char *path) {
  const int number = errno;
  g_set_error(error, G_FILE_ERROR, g_file_error_from_errno(number), "'%s': %s", path, g_strerror(number));
}

bool has_number(const PTZKitRegistryEntry &entry, const char *text) {
  guint64 number = 0;
  return g_ascii_string_to_unsigned(text, 10, 1, G_MAXUINT32, &number, nullptr) != FALSE && number == entry.instance;
}

bool is_named(const PTZKitRegistryEntry &entry, const char *name) { return std::strcmp(entry.name, name) == 0; }

bool is_named_with_instance(const PTZKitRegistryEntry &entry, const char *name) {
  const Text full(g_strdup_printf("%s:%u", entry.name, entry.instance));
  return std::strcmp(full.get(), name) == 0;
}

using Fits = bool (*)(const PTZKitRegistryEntry &entry, const char *name);

// The drivers that run, of which `fits` is true.
EntryList running(const EntryList &all, Fits fits, const char *name) {
  EntryList chosen(g_ptr_array_new());
  for (guint i = 0; i < all->len; ++i) {
    const PTZKitRegistryEntry &entry = entry_at(all, i);
    if (entry.liveness != PTZ_KIT_DRIVER_DEAD && fits(entry, name)) g_ptr_array_add(chosen.get(), all->pdata[i]);
  }
  return chosen;
}

std::string names_of(const EntryList &list) {
  std::string text;
  for (guint i = 0; i < list->len; ++i) {
    const PTZKitRegistryEntry &entry = entry_at(list, i);
    const Text name(g_strdup_printf("%s:%u", entry.name, entry.instance));
    text += (i == 0 ? "" : ", ") + std::string(name.get());
  }
  return text;
}

void set_not_found(GError **error, const EntryList &all, const char *name) {
  const EntryList live = running(
      all, [](const PTZKitRegistryEntry &, const char *) { return true; }, name);
  if (live->len == 0) {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_NOT_FOUND, "there is no driver '%s'; none runs", name);
  } else {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_NOT_FOUND, "there is no driver '%s'; these run: %s", name,
                names_of(live).c_str());
  }
}

}  // namespace

struct _PTZKitRegistry {
  GObject parent_instance;
  RegistryState *own;
};
struct _PTZKitRegistryClass {
  GObjectClass parent_class;
};

G_DEFINE_FINAL_TYPE(PTZKitRegistry, ptz_kit_registry, G_TYPE_OBJECT)

static void ptz_kit_registry_init(PTZKitRegistry *self) { self->own = new RegistryState; }

// The sources end in the thread that drops the object.
static void ptz_kit_registry_dispose(GObject *object) {
  PTZ_KIT_REGISTRY(object)->own->watch.reset();
  G_OBJECT_CLASS(ptz_kit_registry_parent_class)->dispose(object);
}

static void ptz_kit_registry_finalize(GObject *object) {
  delete PTZ_KIT_REGISTRY(object)->own;
  G_OBJECT_CLASS(ptz_kit_registry_parent_class)->finalize(object);
}

static void ptz_kit_registry_set_property(GObject *object, guint, const GValue *value, GParamSpec *) {
  const gchar *directory = g_value_get_string(value);
  PTZ_KIT_REGISTRY(object)->own->directory = directory != nullptr ? directory : registry_directory();
}

static void ptz_kit_registry_get_property(GObject *object, guint, GValue *value, GParamSpec *) {
  g_value_set_string(value, PTZ_KIT_REGISTRY(object)->own->directory.c_str());
}

static void ptz_kit_registry_class_init(PTZKitRegistryClass *klass) {
  GObjectClass *object_class = G_OBJECT_CLASS(klass);
  object_class->dispose = ptz_kit_registry_dispose;
  object_class->finalize = ptz_kit_registry_finalize;
  object_class->set_property = ptz_kit_registry_set_property;
  object_class->get_property = ptz_kit_registry_get_property;
  constexpr auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_CONSTRUCT_ONLY | G_PARAM_STATIC_STRINGS);
  g_object_class_install_property(object_class, prop_directory,
                                  g_param_spec_string("directory", nullptr, nullptr, nullptr, flags));
  for (const char *signal : {"driver-appeared", "driver-gone"}) {
    g_signal_new(signal, PTZ_KIT_TYPE_REGISTRY, G_SIGNAL_RUN_LAST, 0, nullptr, nullptr, nullptr, G_TYPE_NONE, 1,
                 PTZ_KIT_TYPE_REGISTRY_ENTRY);
  }
}

PTZKitRegistry *ptz_kit_registry_new(const gchar *directory) {
  return PTZ_KIT_REGISTRY(g_object_new(PTZ_KIT_TYPE_REGISTRY, "directory", directory, nullptr));
}

GPtrArray *ptz_kit_registry_list(PTZKitRegistry *self, GError **error) {
  g_return_val_if_fail(PTZ_KIT_IS_REGISTRY(self), NULL);
  EntryList list(g_ptr_array_new_with_free_func(
      [](gpointer entry) { ptz_kit_registry_entry_free(static_cast<PTZKitRegistryEntry *>(entry)); }));
  const char *directory = self->own->directory.c_str();
  const UniqueFd folder = open_folder(directory);
  if (!folder && errno == ENOENT) return list.release();
  const auto add = [&](const char *, Entry entry, const EntryFile &opened) {
    if (opened.listens) g_ptr_array_add(list.get(), entry.release());
  };
  if (!folder || !for_each_entry(folder.get(), add)) {
    set_file_error(error, directory);
    return nullptr;
  }
  g_ptr_array_sort(list.get(), compare);
  return list.release();
}

PTZKitRegistryEntry *ptz_kit_registry_find(PTZKitRegistry *self, const gchar *name, GError **error) {
  g_return_val_if_fail(PTZ_KIT_IS_REGISTRY(self), NULL);
  g_return_val_if_fail(name != NULL, NULL);
  const EntryList all(ptz_kit_registry_list(self, error));
  if (!all) return nullptr;
  for (const Fits fits : {is_named, is_named_with_instance, has_number}) {
    const EntryList chosen = running(all, fits, name);
    if (chosen->len == 1) return ptz_kit_registry_entry_copy(&entry_at(chosen, 0));
    if (chosen->len == 0) continue;
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT, "several drivers are '%s': %s", name,
                names_of(chosen).c_str());
    return nullptr;
  }
  set_not_found(error, all, name);
  return nullptr;
}

gboolean ptz_kit_registry_watch(PTZKitRegistry *self, GError **error) {
  g_return_val_if_fail(PTZ_KIT_IS_REGISTRY(self), FALSE);
  RegistryState &own = *self->own;
  if (own.watch) return TRUE;
  own.watch = std::make_unique<RegistryWatch>(self, own.directory);
  if (own.watch->begin()) return TRUE;
  set_file_error(error, own.directory.c_str());
  own.watch.reset();
  return FALSE;
}
