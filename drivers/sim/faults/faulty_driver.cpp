#include "faulty_driver.h"

#include <ptz_kit_registry.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "faulty_server.h"

namespace sim {

namespace {

struct Arguments {
  char *fault = nullptr;
  char *socket = nullptr;
  gint instance = 0;
  gint speed_factor = 1;

  Arguments() = default;
  Arguments(const Arguments &) = delete;
  ~Arguments() {
    g_free(fault);
    g_free(socket);
  }
};

bool parse(int argc, char **argv, Arguments &arguments, Error &error) {
  const GOptionEntry entries[] = {
      {"fault", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_STRING, &arguments.fault,
       "Have this fault; \"list\" lists the faults", "NAME"},
      {"socket", 's', G_OPTION_FLAG_NONE, G_OPTION_ARG_FILENAME, &arguments.socket, "Listen on this socket", "PATH"},
      {"instance", 'i', G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &arguments.instance,
       "Publish the status as the PTZ instance with this number", "N"},
      {"speed-factor", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &arguments.speed_factor,
       "Let the head move this many times as fast, 1 to 20", "N"},
      {}};
  const Options options(g_option_context_new("- a driver that is wrong in one way, for tests of daemons"));
  g_option_context_add_main_entries(options.get(), entries, nullptr);
  GError *raw = nullptr;
  const bool parsed = g_option_context_parse(options.get(), &argc, &argv, &raw) != FALSE;
  error.reset(raw);
  return parsed && argc == 1;
}

// Why the arguments are wrong; null if they are good.
const char *problem_of(const Arguments &arguments) {
  if (!is_fault(arguments.fault)) return "there is no such fault; see --fault list";
  if (arguments.socket == nullptr) return "--socket PATH is missing";
  if (arguments.instance < 0) return "--instance is 0 or above";
  if (arguments.speed_factor < 1 || arguments.speed_factor > 20) return "--speed-factor is 1 to 20";
  return nullptr;
}

int list_faults() {
  for (const Fault &each : all_faults()) std::printf("%s: %s\n", each.name, each.what_is_wrong);
  return EXIT_SUCCESS;
}

int fail(const char *reason, int status) {
  g_printerr("sim-driver: %s\n", reason);
  return status;
}

// Why the driver may not publish the status of its instance: a driver that runs does. Null if none does.
Text holder_of_instance(gint instance) {
  const Object<PTZKitRegistry> registry(ptz_kit_registry_new(nullptr));
  const std::string number = std::to_string(instance);
  const Owned<PTZKitRegistryEntry, ptz_kit_registry_entry_free> holder(
      instance > 0 ? ptz_kit_registry_find(registry.get(), number.c_str(), nullptr) : nullptr);
  return Text(holder ? g_strdup_printf("instance %d is that of a driver, process %d", instance, holder->pid) : nullptr);
}

}  // namespace

int run_faulty_driver(int argc, char **argv) {
  Arguments arguments;
  Error error;
  if (!parse(argc, argv, arguments, error)) {
    return fail(error ? error->message : "it takes nothing beside its options", PTZ_KIT_EXIT_USAGE);
  }
  if (g_str_equal(arguments.fault, "list")) return list_faults();
  if (const char *const problem = problem_of(arguments)) return fail(problem, PTZ_KIT_EXIT_USAGE);
  if (const Text taken = holder_of_instance(arguments.instance)) return fail(taken.get(), EXIT_FAILURE);
  choose_fault(arguments.fault);

  Object<PTZKitDriver> driver(new_driver());
  set_speed_factor(driver.get(), arguments.speed_factor);
  if (ptz_kit_driver_start(driver.get(), nullptr) == FALSE) return fail("the head cannot be opened", EXIT_FAILURE);
  FaultyServer server(arguments.socket, FaultyAnswers(std::move(driver)));
  if (arguments.instance > 0) server.publish_as(static_cast<guint>(arguments.instance));
  if (!server.open()) {
    const Text reason(g_strdup_printf("cannot listen at %s: %s", arguments.socket, g_strerror(errno)));
    return fail(reason.get(), EXIT_FAILURE);
  }
  return server.run();
}

}  // namespace sim
