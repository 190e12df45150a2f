#include <gio/gio.h>
#include <ptz_g_dbus_error.h>
#include <ptz_legacy_config_dynamic.h>

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"

namespace ptzctl {

namespace {

using Legacy = ptzlegacyconfigdynamicConfigurationLegacy;
using Connection = ptz::Object<GDBusConnection>;
using Proxy = ptz::Object<Legacy>;
using Variant = ptz::Handle<GVariant, g_variant_unref>;

constexpr char legacy_interface[] = "com.velk.Configuration.Legacy";
constexpr char events_interface[] = "com.velk.PTZ.ConfigEvent";

// --- the service
// ------------------------------------------------------------------------------------------------------

std::string bus_name_of(const std::string &service) { return "com.velk.PTZ." + service; }

// Where the library exports it.
std::string object_path_of(const std::string &service) {
  std::string path = "/com/velk/PTZ/" + service;
  for (char &character : path) {
    if (character == '.') character = '/';
  }
  return path;
}

bool is_service(const std::string &service) {
  if (g_dbus_is_name(bus_name_of(service).c_str()) && g_variant_is_object_path(object_path_of(service).c_str())) {
    return true;
  }
  complain("'%s' is no name of a service, such as 'sim' for com.velk.PTZ.sim", service.c_str());
  return false;
}

void complain_of(const std::string &service, const ptz::Error &error) {
  const gint code = ptz_g_dbus_error_get_remote_error_code(error.get());
  g_dbus_error_strip_remote_error(error.get());
  if (code < 0) {
    complain("%s: %s", service.c_str(), error->message);
  } else {
    complain("%s: %s (code %d)", service.c_str(), error->message, code);
  }
}

Connection connect() {
  ptz::Error error;
  Connection connection(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, ptz::out(error)));
  if (connection == nullptr) {
    complain("there is no system bus: %s", error->message);
  } else {
    g_dbus_connection_set_exit_on_close(connection.get(), FALSE);  // GLib would end this program without a word
  }
  return connection;
}

// None where the user was told why.
Proxy connect_to(const std::string &service) {
  if (!is_service(service)) return nullptr;
  const Connection connection = connect();
  if (connection == nullptr) return nullptr;
  constexpr auto only_calls = static_cast<GDBusProxyFlags>(G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES |
                                                           G_DBUS_PROXY_FLAGS_DO_NOT_CONNECT_SIGNALS);
  ptz::Error error;
  Proxy proxy(ptz_legacy_config_dynamic_configuration_legacy_proxy_new_sync(
      connection.get(), only_calls, bus_name_of(service).c_str(), object_path_of(service).c_str(), nullptr,
      ptz::out(error)));
  if (proxy == nullptr) complain_of(service, error);
  return proxy;
}

// --- values
// -----------------------------------------------------------------------------------------------------------

// A text, or the bytes that a service announces one as.
const char *text_in(GVariant *value) {
  if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) return g_variant_get_string(value, nullptr);
  if (!g_variant_is_of_type(value, G_VARIANT_TYPE_BYTESTRING)) return nullptr;
  const char *text = g_variant_get_bytestring(value);
  return g_utf8_validate(text, -1, nullptr) ? text : nullptr;
}

std::string printed(GVariant *value) {
  const char *text = text_in(value);
  return text != nullptr ? text : ptz::Text(g_variant_print(value, FALSE)).get();
}

void add_json(const JsonLine &json, const char *name, GVariant *value) {
  if (const char *text = text_in(value)) {
    json.member(name, text);
  } else {
    json_builder_set_member_name(json.get(), name);
    json_builder_add_value(json.get(), json_gvariant_serialize(value));
  }
}

// In the type that the entry has: a text as it stands, anything else as GVariant writes it.
Variant parse_value(const std::string &text, GVariant *current) {
  if (text_in(current) != nullptr) return Variant(g_variant_ref_sink(g_variant_new_string(text.c_str())));
  ptz::Error error;
  Variant value(g_variant_parse(g_variant_get_type(current), text.c_str(), nullptr, nullptr, ptz::out(error)));
  if (value == nullptr) {
    complain("'%s' is no value of the type '%s', as '%s' is: %s", text.c_str(), g_variant_get_type_string(current),
             printed(current).c_str(), error->message);
  }
  return value;
}

// --- calls
// ------------------------------------------------------------------------------------------------------------

constexpr GOptionEntry no_options[] = {{}};

// The words behind the options, as many as are needed at least; nothing where the user was told what is wrong.
std::optional<std::vector<std::string>> parse_words(Options &options, const std::string &words, int argc, char **argv,
                                                    std::size_t least, std::size_t most) {
  auto given = options.parse(argc, argv, most);
  if (given && given->size() < least) {
    complain("something is missing; see %s --help", words.c_str());
    return std::nullopt;
  }
  return given;
}

std::optional<gint> parse_index(const std::string &text) {
  const auto index = parse_number(text, "index of a set", G_MININT32, G_MAXINT32);
  return index ? std::optional(static_cast<gint>(*index)) : std::nullopt;
}

int answered(bool success, const std::string &service, const ptz::Error &error) {
  if (!success) complain_of(service, error);
  return success ? EXIT_SUCCESS : EXIT_FAILURE;
}

void print_set(gint index, GVariant *entries, bool as_json) {
  GVariantIter iterator;
  const char *name = nullptr;
  GVariant *value = nullptr;
  const JsonLine json;
  json_builder_begin_object(json.get());
  json.member("index", gint64{index});
  json.begin_object("entries");
  g_variant_iter_init(&iterator, entries);
  while (g_variant_iter_next(&iterator, "{&sv}", &name, &value)) {
    const Variant owned(value);
    if (as_json) {
      add_json(json, name, value);
    } else {
      std::printf("%6d  %-20s %s\n", index, name, printed(value).c_str());
    }
  }
  json_builder_end_object(json.get());
  json_builder_end_object(json.get());
  if (as_json) json.print();
}

int run_list(const std::string &words, int argc, char **argv) {
  gboolean as_json = FALSE;
  const GOptionEntry entries[] = {
      {"json", 'j', G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &as_json, "One object a line", nullptr}, {}};
  Options options(words, "SERVICE", "Shows every entry of every set.", entries);
  const auto given = parse_words(options, words, argc, argv, 1, 1);
  if (!given) return exit_usage;
  const Proxy proxy = connect_to(given->front());
  if (proxy == nullptr) return EXIT_FAILURE;
  Variant sets;
  ptz::Error error;
  const bool success = ptz_legacy_config_dynamic_configuration_legacy_call_get_configurations_sync(
      proxy.get(), ptz::out(sets), nullptr, ptz::out(error));
  if (!success) return answered(success, given->front(), error);
  GVariantIter iterator;
  gint index = 0;
  GVariant *set = nullptr;
  g_variant_iter_init(&iterator, sets.get());
  while (g_variant_iter_next(&iterator, "{i@a{sv}}", &index, &set)) print_set(index, Variant(set).get(), as_json);
  return EXIT_SUCCESS;
}

// The entry's value; none where the user was told why.
Variant get_entry(Legacy *proxy, const std::string &service, gint index, const std::string &entry) {
  Variant boxed;
  ptz::Error error;
  if (!ptz_legacy_config_dynamic_configuration_legacy_call_get_configuration_entry_sync(
          proxy, index, entry.c_str(), ptz::out(boxed), nullptr, ptz::out(error))) {
    complain_of(service, error);
    return nullptr;
  }
  return Variant(g_variant_get_variant(boxed.get()));
}

int run_get(const std::string &words, int argc, char **argv) {
  Options options(words, "SERVICE INDEX ENTRY", "Shows the value of an entry.", no_options);
  const auto given = parse_words(options, words, argc, argv, 3, 3);
  const auto index = given ? parse_index((*given)[1]) : std::nullopt;
  if (!index) return exit_usage;
  const Proxy proxy = connect_to((*given)[0]);
  const Variant value = proxy != nullptr ? get_entry(proxy.get(), (*given)[0], *index, (*given)[2]) : nullptr;
  if (value == nullptr) return EXIT_FAILURE;
  std::printf("%s\n", printed(value.get()).c_str());
  return EXIT_SUCCESS;
}

int run_set(const std::string &words, int argc, char **argv) {
  Options options(words, "SERVICE INDEX ENTRY VALUE",
                  "Sets an entry, in the type that it has: a text as it stands, a number, true or false, or what else\n"
                  "GVariant writes.",
                  no_options);
  options.take_dashes_as_words();  // -300 is a value
  const auto given = parse_words(options, words, argc, argv, 4, 4);
  const auto index = given ? parse_index((*given)[1]) : std::nullopt;
  if (!index) return exit_usage;
  const std::string &service = (*given)[0], &entry = (*given)[2];
  const Proxy proxy = connect_to(service);
  const Variant current = proxy != nullptr ? get_entry(proxy.get(), service, *index, entry) : nullptr;
  const Variant value = current != nullptr ? parse_value((*given)[3], current.get()) : nullptr;
  if (value == nullptr) return EXIT_FAILURE;
  ptz::Error error;
  const bool success = ptz_legacy_config_dynamic_configuration_legacy_call_set_configuration_entry_sync(
      proxy.get(), *index, entry.c_str(), g_variant_new_variant(value.get()), nullptr, ptz::out(error));
  return answered(success, service, error);
}

int run_add(const std::string &words, int argc, char **argv) {
  Options options(words, "SERVICE [INDEX]",
                  "Makes a set and shows its index. Without one, the service is asked for any (-1).", no_options);
  options.take_dashes_as_words();
  const auto given = parse_words(options, words, argc, argv, 1, 2);
  const auto index = given ? parse_index(given->size() > 1 ? (*given)[1] : "-1") : std::nullopt;
  if (!index) return exit_usage;
  const Proxy proxy = connect_to(given->front());
  if (proxy == nullptr) return EXIT_FAILURE;
  gint made = 0;
  ptz::Error error;
  const bool success = ptz_legacy_config_dynamic_configuration_legacy_call_add_configuration_sync(
      proxy.get(), *index, &made, nullptr, ptz::out(error));
  if (success) std::printf("%d\n", made);
  return answered(success, given->front(), error);
}

int run_remove(const std::string &words, int argc, char **argv) {
  Options options(words, "SERVICE INDEX", "Removes a set.", no_options);
  options.take_dashes_as_words();
  const auto given = parse_words(options, words, argc, argv, 2, 2);
  const auto index = given ? parse_index((*given)[1]) : std::nullopt;
  if (!index) return exit_usage;
  const Proxy proxy = connect_to(given->front());
  if (proxy == nullptr) return EXIT_FAILURE;
  ptz::Error error;
  const bool success = ptz_legacy_config_dynamic_configuration_legacy_call_remove_configuration_sync(
      proxy.get(), *index, nullptr, ptz::out(error));
  return answered(success, given->front(), error);
}

int run_sync(const std::string &words, int argc, char **argv) {
  Options options(words, "SERVICE", "Makes earlier changes lasting.", no_options);
  const auto given = parse_words(options, words, argc, argv, 1, 1);
  if (!given) return exit_usage;
  const Proxy proxy = connect_to(given->front());
  if (proxy == nullptr) return EXIT_FAILURE;
  ptz::Error error;
  const bool success =
      ptz_legacy_config_dynamic_configuration_legacy_call_sync_sync(proxy.get(), nullptr, ptz::out(error));
  return answered(success, given->front(), error);
}

// --- watching
// ---------------------------------------------------------------------------------------------------------

struct Watch {
  bool as_json = false;
  gint left = 0;  // lines to print until the end; 0 for no end
  bool done = false;
  bool lost_bus = false;
  ptz::Handle<GMainLoop, g_main_loop_unref> loop{g_main_loop_new(nullptr, FALSE)};

  void printed_line() {
    std::fflush(stdout);
    if (left == 0 || --left > 0) return;
    done = true;
    g_main_loop_quit(loop.get());
  }
};

void on_properties(GDBusConnection *, const gchar *, const gchar *path, const gchar *, const gchar *, GVariant *body,
                   gpointer user_data) {
  auto *watch = static_cast<Watch *>(user_data);
  if (!g_variant_is_of_type(body, G_VARIANT_TYPE("(sa{sv}as)"))) return;
  const Variant changed(g_variant_get_child_value(body, 1));
  GVariantIter iterator;
  const char *name = nullptr;
  GVariant *value = nullptr;
  g_variant_iter_init(&iterator, changed.get());
  while (g_variant_iter_next(&iterator, "{&sv}", &name, &value)) {
    const Variant owned(value);
    if (watch->done) continue;
    if (watch->as_json) {
      const JsonLine json;
      json_builder_begin_object(json.get());
      json.member("signal", "PropertiesChanged");
      json.member("path", path);
      json.member("entry", name);
      add_json(json, "value", value);
      json_builder_end_object(json.get());
      json.print();
    } else {
      std::printf("%s  %s = %s\n", path, name, printed(value).c_str());
    }
    watch->printed_line();
  }
}

std::string unescaped(const char *text) {
  const ptz::Text plain(g_uri_unescape_string(text, nullptr));
  return plain != nullptr && g_utf8_validate(plain.get(), -1, nullptr) ? plain.get() : text;
}

struct Pair {
  std::string key, value;
};

std::vector<Pair> pairs_in(const char *changes) {
  std::vector<Pair> pairs;
  const ptz::TextList parts(g_strsplit(changes, "&", -1));
  for (char **part = parts.get(); *part != nullptr; ++part) {
    const ptz::TextList halves(g_strsplit(*part, "=", 2));
    if (halves.get()[0] == nullptr) continue;
    pairs.push_back({unescaped(halves.get()[0]), halves.get()[1] != nullptr ? unescaped(halves.get()[1]) : ""});
  }
  return pairs;
}

void on_event(GDBusConnection *, const gchar *, const gchar *path, const gchar *, const gchar *signal, GVariant *body,
              gpointer user_data) {
  auto *watch = static_cast<Watch *>(user_data);
  const char *event = nullptr, *owner = nullptr, *interface = nullptr, *key = nullptr, *changes = "";
  gint kind = 0;
  const bool is_change = g_variant_is_of_type(body, G_VARIANT_TYPE("(ssssis)"));
  if (is_change) {
    g_variant_get(body, "(&s&s&s&si&s)", &event, &owner, &interface, &key, &kind, &changes);
  } else if (g_variant_is_of_type(body, G_VARIANT_TYPE("(sss)"))) {
    g_variant_get(body, "(&s&s&s)", &event, &owner, &interface);
  } else {
    return;
  }
  if (watch->done) return;
  if (watch->as_json) {
    const JsonLine json;
    json_builder_begin_object(json.get());
    json.member("signal", signal);
    json.member("path", path);
    json.member("event", event);
    json.member("owner", owner);
    json.member("interface", interface);
    if (is_change) {
      json.member("key", key);
      json.member("kind", gint64{kind});
      json.begin_object("changes");
      for (const Pair &pair : pairs_in(changes)) json.member(pair.key.c_str(), pair.value.c_str());
      json_builder_end_object(json.get());
    }
    json_builder_end_object(json.get());
    json.print();
  } else {
    std::printf("%s  %s %s by %s", path, signal, event, owner);
    if (is_change) {
      std::printf(": %s, kind %d", key, kind);
      for (const Pair &pair : pairs_in(changes)) std::printf(", %s = %s", pair.key.c_str(), pair.value.c_str());
    }
    std::printf("\n");
  }
  watch->printed_line();
}

void on_closed(GDBusConnection *, gboolean, GError *, gpointer user_data) {
  auto *watch = static_cast<Watch *>(user_data);
  watch->lost_bus = true;
  g_main_loop_quit(watch->loop.get());
}

int run_watch(const std::string &words, int argc, char **argv) {
  gboolean as_json = FALSE;
  Watch watch;
  const GOptionEntry entries[] = {
      {"json", 'j', G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &as_json, "One object a line", nullptr},
      {"count", 'n', G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &watch.left, "End after so many lines", "N"},
      {}};
  Options options(words, "[SERVICE]", "Shows changes as they come: of one service, or of all.", entries);
  const auto given = options.parse(argc, argv, 1);
  if (!given) return exit_usage;
  if (watch.left < 0) {
    complain("there is no count of %d lines", watch.left);
    return exit_usage;
  }
  watch.as_json = as_json != FALSE;
  const std::string service = given->empty() ? "" : given->front();
  if (!service.empty() && !is_service(service)) return exit_usage;
  const Connection connection = connect();
  if (connection == nullptr) return EXIT_FAILURE;

  const std::string sender = bus_name_of(service), path = object_path_of(service);
  const char *only_sender = service.empty() ? nullptr : sender.c_str();
  const char *only_path = service.empty() ? nullptr : path.c_str();
  g_dbus_connection_signal_subscribe(connection.get(), only_sender, "org.freedesktop.DBus.Properties",
                                     "PropertiesChanged", only_path, legacy_interface, G_DBUS_SIGNAL_FLAGS_NONE,
                                     on_properties, &watch, nullptr);
  g_dbus_connection_signal_subscribe(connection.get(), only_sender, events_interface, nullptr, only_path, nullptr,
                                     G_DBUS_SIGNAL_FLAGS_NONE, on_event, &watch, nullptr);
  g_signal_connect(connection.get(), "closed", G_CALLBACK(on_closed), &watch);
  g_main_loop_run(watch.loop.get());
  if (!watch.lost_bus) return EXIT_SUCCESS;
  complain("the system bus has gone");
  return EXIT_FAILURE;
}

}  // namespace

int run_config(const std::string &words, int argc, char **argv) {
  static constexpr Subcommand subcommands[] = {
      {"add", "make a set", run_add},
      {"get", "show an entry", run_get},
      {"list", "show every set", run_list},
      {"remove", "remove a set", run_remove},
      {"set", "set an entry", run_set},
      {"sync", "make changes lasting", run_sync},
      {"watch", "changes, as they come", run_watch},
  };
  return run_one_of(subcommands, words, argc, argv);
}

}  // namespace ptzctl
