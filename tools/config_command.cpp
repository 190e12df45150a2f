#include <gio/gio.h>
#include <ptz_g_dbus_error.h>
#include <ptz_legacy_config_dynamic.h>

#include <algorithm>
#include <cstdio>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"

namespace ptzctl {

namespace {

using Legacy = ptzlegacyconfigdynamicConfigurationLegacy;
using Connection = tools::Object<GDBusConnection>;
using Proxy = tools::Object<Legacy>;
using Variant = tools::Handle<GVariant, g_variant_unref>;

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

bool is_service(const Options &options, const std::string &service) {
  if (g_dbus_is_name(bus_name_of(service).c_str()) && g_variant_is_object_path(object_path_of(service).c_str())) {
    return true;
  }
  options.misused("'%s' is no name of a service, such as 'sim' for com.velk.PTZ.sim", service.c_str());
  return false;
}

// Whether an answer is missing, and not a refusal.
bool is_silence(const GError *error) {
  constexpr gint bus_codes[] = {G_DBUS_ERROR_SERVICE_UNKNOWN, G_DBUS_ERROR_NAME_HAS_NO_OWNER,
                                G_DBUS_ERROR_NO_REPLY,        G_DBUS_ERROR_TIMEOUT,
                                G_DBUS_ERROR_TIMED_OUT,       G_DBUS_ERROR_DISCONNECTED};
  constexpr gint io_codes[] = {G_IO_ERROR_TIMED_OUT, G_IO_ERROR_CLOSED};
  const auto is_one_of = [error](std::span<const gint> codes) {
    return std::ranges::find(codes, error->code) != codes.end();
  };
  return error->domain == G_DBUS_ERROR ? is_one_of(bus_codes) : error->domain == G_IO_ERROR && is_one_of(io_codes);
}

// The exit status for it.
int complain_of(const std::string &service, const tools::Error &error) {
  const gint code = ptz_g_dbus_error_get_remote_error_code(error.get());
  g_dbus_error_strip_remote_error(error.get());
  if (code < 0) {
    complain("%s: %s", service.c_str(), error->message);
  } else {
    complain("%s: %s (code %d)", service.c_str(), error->message, code);
  }
  return is_silence(error.get()) ? exit_nobody : EXIT_FAILURE;
}

Connection connect() {
  tools::Error error;
  Connection connection(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, tools::out(error)));
  if (connection == nullptr) {
    complain("there is no system bus: %s", error->message);
  } else {
    g_dbus_connection_set_exit_on_close(connection.get(), FALSE);  // GLib would end this program without a word
  }
  return connection;
}

// A command line that begins with a service, and perhaps the index of a set; and the service.
class ServiceCommand : public Options {
  Words given_;
  gint index_ = -1;
  Proxy proxy_;
  int status_ = exit_usage;

  [[nodiscard]] bool parse_words(int argc, char **argv, bool has_index);

 public:
  ServiceCommand(const std::string &words, const Manual &manual) : Options(words, manual, Asks::service) {}
  // False where the user was told why; status() is for that.
  [[nodiscard]] bool connect_to_service(int argc, char **argv, bool has_index = false);
  [[nodiscard]] const Words &given() const { return given_; }
  [[nodiscard]] gint index() const { return index_; }
  [[nodiscard]] Legacy *proxy() const { return proxy_.get(); }
  [[nodiscard]] int status() const { return status_; }
  // Whether a call was answered; the user is told where it was not.
  bool answered(bool success, const tools::Error &error);
  // The entry's value; none where the user was told why.
  [[nodiscard]] Variant entry(const std::string &name);
};

bool ServiceCommand::parse_words(int argc, char **argv, bool has_index) {
  auto given = parse(argc, argv);
  if (!given || !is_service(*this, given->front())) return false;
  given_ = std::move(*given);
  if (!has_index || given_.size() < 2) return true;
  const auto index = number(given_[1], "index of a set", G_MININT32, G_MAXINT32);
  index_ = static_cast<gint>(index.value_or(-1));
  return index.has_value();
}

bool ServiceCommand::connect_to_service(int argc, char **argv, bool has_index) {
  if (!parse_words(argc, argv, has_index)) return false;
  const Connection connection = connect();
  status_ = exit_nobody;
  if (connection == nullptr) return false;
  constexpr auto only_calls = static_cast<GDBusProxyFlags>(G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES |
                                                           G_DBUS_PROXY_FLAGS_DO_NOT_CONNECT_SIGNALS);
  tools::Error error;
  const std::string &service = given_.front();
  proxy_.reset(ptz_legacy_config_dynamic_configuration_legacy_proxy_new_sync(
      connection.get(), only_calls, bus_name_of(service).c_str(), object_path_of(service).c_str(), nullptr,
      tools::out(error)));
  if (!answered(proxy_ != nullptr, error)) return false;
  g_dbus_proxy_set_default_timeout(G_DBUS_PROXY(proxy_.get()), static_cast<gint>(timeout_ms()));
  return true;
}

bool ServiceCommand::answered(bool success, const tools::Error &error) {
  status_ = success ? EXIT_SUCCESS : complain_of(given_.front(), error);
  return success;
}

Variant ServiceCommand::entry(const std::string &name) {
  Variant boxed;
  tools::Error error;
  const bool success = ptz_legacy_config_dynamic_configuration_legacy_call_get_configuration_entry_sync(
      proxy(), index(), name.c_str(), tools::out(boxed), nullptr, tools::out(error));
  return answered(success, error) ? Variant(g_variant_get_variant(boxed.get())) : nullptr;
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
  return text != nullptr ? text : tools::Text(g_variant_print(value, FALSE)).get();
}

void add_json(const JsonLine &json, const char *name, GVariant *value) {
  if (const char *text = text_in(value)) {
    json.member(name, text);
  } else {
    json.member(name, json_gvariant_serialize(value));
  }
}

// In the type that the entry has: a text as it stands, anything else as GVariant writes it.
Variant parse_value(const std::string &text, GVariant *current) {
  if (text_in(current) != nullptr) return Variant(g_variant_ref_sink(g_variant_new_string(text.c_str())));
  tools::Error error;
  Variant value(g_variant_parse(g_variant_get_type(current), text.c_str(), nullptr, nullptr, tools::out(error)));
  if (value == nullptr) {
    complain("'%s' is no value of the type '%s', as '%s' is: %s", text.c_str(), g_variant_get_type_string(current),
             printed(current).c_str(), error->message);
  }
  return value;
}

// --- calls
// ------------------------------------------------------------------------------------------------------------

void print_set(gint index, GVariant *entries, bool as_json) {
  GVariantIter iterator;
  const char *name = nullptr;
  GVariant *value = nullptr;
  const JsonLine json;
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
  json.end_object();
  if (as_json) json.print();
}

void print_index(gint index) {
  const JsonLine json;
  json.member("index", gint64{index});
  json.print();
}

void print_entry(gint index, const std::string &name, GVariant *value) {
  const JsonLine json;
  json.member("index", gint64{index});
  json.member("entry", name);
  add_json(json, "value", value);
  json.print();
}

int run_list(const std::string &words, int argc, char **argv) {
  ServiceCommand command(words, {"SERVICE", "Shows every entry of every set.", " sim"});
  if (!command.connect_to_service(argc, argv)) return command.status();
  Variant sets;
  tools::Error error;
  const bool success = ptz_legacy_config_dynamic_configuration_legacy_call_get_configurations_sync(
      command.proxy(), tools::out(sets), nullptr, tools::out(error));
  if (!command.answered(success, error)) return command.status();
  GVariantIter iterator;
  gint index = 0;
  GVariant *set = nullptr;
  g_variant_iter_init(&iterator, sets.get());
  while (g_variant_iter_next(&iterator, "{i@a{sv}}", &index, &set)) {
    print_set(index, Variant(set).get(), command.as_json());
  }
  return EXIT_SUCCESS;
}

int run_get(const std::string &words, int argc, char **argv) {
  ServiceCommand command(words, {"SERVICE INDEX ENTRY", "Shows the value of an entry.", " sim 1 Name"});
  if (!command.connect_to_service(argc, argv, true)) return command.status();
  const std::string &name = command.given()[2];
  const Variant value = command.entry(name);
  if (value == nullptr) return command.status();
  if (command.as_json()) {
    print_entry(command.index(), name, value.get());
  } else {
    std::printf("%s\n", printed(value.get()).c_str());
  }
  return EXIT_SUCCESS;
}

int run_set(const std::string &words, int argc, char **argv) {
  ServiceCommand command(words, {"SERVICE INDEX ENTRY VALUE",
                                 "Sets an entry, in the type that it has: a text as it stands, a number, true or "
                                 "false, or what else\nGVariant writes. What begins with a dash and is no number "
                                 "stands behind a word --.",
                                 " sim 1 Tilt -300"});
  if (!command.connect_to_service(argc, argv, true)) return command.status();
  const std::string &name = command.given()[2];
  const Variant current = command.entry(name);
  if (current == nullptr) return command.status();
  const Variant value = parse_value(command.given()[3], current.get());
  if (value == nullptr) return EXIT_FAILURE;
  tools::Error error;
  const bool success = ptz_legacy_config_dynamic_configuration_legacy_call_set_configuration_entry_sync(
      command.proxy(), command.index(), name.c_str(), g_variant_new_variant(value.get()), nullptr, tools::out(error));
  if (command.answered(success, error) && command.as_json()) print_entry(command.index(), name, value.get());
  return command.status();
}

int run_add(const std::string &words, int argc, char **argv) {
  ServiceCommand command(
      words, {"SERVICE [INDEX]", "Makes a set and shows its index. Without one, the service is asked for any (-1).",
              " sim 9"});
  if (!command.connect_to_service(argc, argv, true)) return command.status();
  gint made = 0;
  tools::Error error;
  const bool success = ptz_legacy_config_dynamic_configuration_legacy_call_add_configuration_sync(
      command.proxy(), command.index(), &made, nullptr, tools::out(error));
  if (!command.answered(success, error)) return command.status();
  if (command.as_json()) {
    print_index(made);
  } else {
    std::printf("%d\n", made);
  }
  return EXIT_SUCCESS;
}

int run_remove(const std::string &words, int argc, char **argv) {
  ServiceCommand command(words, {"SERVICE INDEX", "Removes a set.", " sim 9"});
  if (!command.connect_to_service(argc, argv, true)) return command.status();
  tools::Error error;
  const bool success = ptz_legacy_config_dynamic_configuration_legacy_call_remove_configuration_sync(
      command.proxy(), command.index(), nullptr, tools::out(error));
  if (command.answered(success, error) && command.as_json()) print_index(command.index());
  return command.status();
}

int run_sync(const std::string &words, int argc, char **argv) {
  ServiceCommand command(words, {"SERVICE", "Makes earlier changes lasting.", " sim"});
  if (!command.connect_to_service(argc, argv)) return command.status();
  tools::Error error;
  const bool success =
      ptz_legacy_config_dynamic_configuration_legacy_call_sync_sync(command.proxy(), nullptr, tools::out(error));
  if (command.answered(success, error) && command.as_json()) JsonLine().print();
  return command.status();
}

// --- watching
// ---------------------------------------------------------------------------------------------------------

struct Watch {
  bool as_json = false;
  gint left = 0;  // lines to print until the end; 0 for no end
  bool done = false;
  bool lost_bus = false;
  tools::Handle<GMainLoop, g_main_loop_unref> loop{g_main_loop_new(nullptr, FALSE)};

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
      json.member("signal", "PropertiesChanged");
      json.member("path", path);
      json.member("entry", name);
      add_json(json, "value", value);
      json.print();
    } else {
      std::printf("%s  %s = %s\n", path, name, printed(value).c_str());
    }
    watch->printed_line();
  }
}

std::string unescaped(const char *text) {
  const tools::Text plain(g_uri_unescape_string(text, nullptr));
  return plain != nullptr && g_utf8_validate(plain.get(), -1, nullptr) ? plain.get() : text;
}

struct Pair {
  std::string key, value;
};

std::vector<Pair> pairs_in(const char *changes) {
  std::vector<Pair> pairs;
  const tools::TextList parts(g_strsplit(changes, "&", -1));
  for (char **part = parts.get(); *part != nullptr; ++part) {
    const tools::TextList halves(g_strsplit(*part, "=", 2));
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
    json.member("signal", signal);
    json.member("path", path);
    json.member("event", event);
    json.member("owner", owner);
    json.member("interface", interface);
    if (is_change) {
      json.member("key", key);
      json.member("kind", gint64{kind});
      json.begin_object("changes");
      for (const Pair &pair : pairs_in(changes)) json.member(pair.key.c_str(), pair.value);
      json.end_object();
    }
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
  Watch watch;
  Options options(
      words, {"[SERVICE]", "Shows changes as they come: of one service, or of all.", " sim --count 10"}, Asks::none,
      {{"count", 'n', G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &watch.left, "End after so many lines; 0 is never", "N"}});
  const auto given = options.parse(argc, argv);
  if (!given || !options.is_within("--count", watch.left, 0, G_MAXINT)) return exit_usage;
  watch.as_json = options.as_json();
  const std::string service = given->empty() ? "" : given->front();
  if (!service.empty() && !is_service(options, service)) return exit_usage;
  const Connection connection = connect();
  if (connection == nullptr) return exit_nobody;

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
  return exit_nobody;
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
  return run_one_of(subcommands, "Example: ptzctl config list sim", words, argc, argv);
}

}  // namespace ptzctl
