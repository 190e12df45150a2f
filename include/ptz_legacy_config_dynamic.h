/* ptz_legacy_config_dynamic.h - the D-Bus interface "com.velk.Configuration.Legacy": proxy, skeleton and their company.
 *
 * Configuration that a service keeps in numbered sets, each with named entries:
 *
 *   method                  in                          out                      skeleton signal
 *   Sync                                                                         "handle-sync"
 *   AddConfiguration        i dynamic_index             i dynamic_index          "handle-add-configuration"
 *   RemoveConfiguration     i dynamic_index                                      "handle-remove-configuration"
 *   GetConfigurationEntry   i dynamic_index,            v entry_value            "handle-get-configuration-entry"
 *                           s entry_name
 *   SetConfigurationEntry   i dynamic_index,                                     "handle-set-configuration-entry"
 *                           s entry_name, v entry_value
 *   GetConfigurations                                   a{ia{sv}} configurations "handle-get-configurations"
 *
 * The declarations are made by gdbus-codegen; every name below begins with "ptz_legacy_config_dynamic_".
 *
 * Callers make a proxy with configuration_legacy_proxy_new() or one of its variants, and use the three forms of each
 * method: configuration_legacy_call_METHOD() with configuration_legacy_call_METHOD_finish() on the main context, or
 * configuration_legacy_call_METHOD_sync(), which blocks, so keep it off the main loop. In arguments follow the proxy and
 * are borrowed; out arguments are new, and only set where the call returns `TRUE`; else @error is set. A call waits for
 * its answer as long as g_dbus_proxy_set_default_timeout() says, 25 seconds by default.
 *
 * Services make a skeleton with configuration_legacy_skeleton_new(), connect handlers to its signals, and export it, as
 * ptz_legacy_config_setup() or ptz_g_dbus_server_dbus_register() does. A handler gets the skeleton, the
 * #GDBusMethodInvocation, the in arguments and its user data. The first that returns `TRUE` owns the invocation: it
 * finishes it, at once or later, with configuration_legacy_complete_METHOD() or an error. A call that no handler takes is
 * answered with the error UnknownMethod. object_skeleton_new() takes a valid object path; with another it is a failed
 * check and returns `NULL`. object_get_configuration_legacy() returns a new reference, object_peek_configuration_legacy()
 * a borrowed one, both `NULL` where the object lacks the interface.
 *
 * Thread: any; answers and signals arrive on the thread-default main context of the thread that made the call, made the
 * proxy or exported the skeleton.
 */
#pragma once

#include "ptz_legacy_config_dynamic_generated_dbus.h"
