// tests/dbus/legacy_service.h - serves the legacy configuration interface from a thread and a connection of its own.
#pragma once
#include <ptz_legacy_config_dynamic.h>

#include <string>

#include "bus.h"

namespace ptz_test {

using LegacyInterface = ptzlegacyconfigdynamicConfigurationLegacy;

// The types of the interface's handlers.
using PlainHandler = gboolean (*)(LegacyInterface *, GDBusMethodInvocation *, gpointer);
using IndexHandler = gboolean (*)(LegacyInterface *, GDBusMethodInvocation *, gint, gpointer);
using GetHandler = gboolean (*)(LegacyInterface *, GDBusMethodInvocation *, gint, const gchar *, gpointer);
using SetHandler = gboolean (*)(LegacyInterface *, GDBusMethodInvocation *, gint, const gchar *, GVariant *, gpointer);

class LegacyService {
  LoopThread thread_;
  Connection connection_;
  Object<LegacyInterface> skeleton_;

 public:
  static constexpr char path[] = "/com/velk/PTZ/ptz";
  static constexpr char interface[] = "com.velk.Configuration.Legacy";

  explicit LegacyService(const Bus &bus) {
    thread_.run([&] {
      connection_ = connect_to(bus);
      skeleton_.reset(ptz_legacy_config_dynamic_configuration_legacy_skeleton_new());
      g_dbus_interface_skeleton_export(G_DBUS_INTERFACE_SKELETON(skeleton_.get()), connection_.get(), path, nullptr);
    });
  }
  LegacyService(const LegacyService &) = delete;
  ~LegacyService() {
    thread_.run([&] { skeleton_.reset(); });
    g_dbus_connection_close_sync(connection_.get(), nullptr, nullptr);
  }
  [[nodiscard]] std::string name() const { return unique_name(connection_.get()); }
  [[nodiscard]] GDBusConnection *connection() const { return connection_.get(); }
  // The handler runs on the service's thread.
  template <typename Handler>
  void handle(const char *method, Handler handler, gpointer user_data = nullptr) const {
    g_signal_connect(skeleton_.get(), (std::string("handle-") + method).c_str(), G_CALLBACK(handler), user_data);
  }
};

}  // namespace ptz_test
