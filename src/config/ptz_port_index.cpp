#include "ptz_port_index.h"

#include "base/check.h"
#include "base/handles.h"
#include "config/whole_key_file.h"

namespace {

constexpr char mapping_path[] = "/usr/share/ptz/port_mapping.conf";
constexpr char identity_key[] = "NoManagers";
constexpr gint32 no_mapping = -1;

GKeyFile *mappings = nullptr;  // loaded by the first call, kept until the process ends

bool ptz_port_index_load_mapping_file() {
  if (mappings != nullptr) return true;
  ptz::KeyFile loaded(g_key_file_new());
  ptz::Error error;
  if (!ptz::load_key_file(loaded.get(), mapping_path, ptz::out(error))) {
    log_func(LOG_ERR, "Failed to load mappings file %s: %s", mapping_path, error->message);
    return false;
  }
  mappings = loaded.release();
  return true;
}

gint32 mapped(const char *group, gint32 number) {
  if (!ptz_port_index_load_mapping_file()) return no_mapping;
  if (g_key_file_has_key(mappings, group, identity_key, nullptr)) return number;
  const ptz::Text key(g_strdup_printf("%d", number));
  ptz::Error error;
  const gint target = g_key_file_get_integer(mappings, group, key.get(), ptz::out(error));
  return error == nullptr ? target : no_mapping;
}

}  // namespace

gint32 ptz_port_index_comport2portmanager(gint32 number) { return mapped("Comport2Portmanager", number); }

gint32 ptz_port_index_portmanager2comport(gint32 number) { return mapped("Portmanager2Comport", number); }

gint32 ptz_port_index_comport2serialport(gint32 number) { return mapped("Comport2Serialport", number); }

gint32 ptz_port_index_serialport2comport(gint32 number) { return mapped("Serialport2Comport", number); }
