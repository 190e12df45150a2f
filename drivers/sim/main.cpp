// sim-driver - a driver process: serves the command channel of a simulated pan-tilt-zoom head.
#include "faults/faulty_driver.h"
#include "owners.h"
#include "sim_driver.h"

namespace {

// The fault that the options name, before the kit reads them: a driver that is wrong on purpose must do without the
// kit.
sim::Text fault_in(int argc, char **argv) {
  char *fault = nullptr;
  const GOptionEntry entries[] = {{"fault", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_STRING, &fault, nullptr, nullptr}, {}};
  const sim::Options options(g_option_context_new(nullptr));
  g_option_context_set_ignore_unknown_options(options.get(), TRUE);
  g_option_context_set_help_enabled(options.get(), FALSE);
  g_option_context_add_main_entries(options.get(), entries, nullptr);
  char **words = static_cast<char **>(g_new0(char *, argc + 1));
  for (int index = 0; index < argc; ++index) words[index] = g_strdup(argv[index]);
  g_option_context_parse_strv(options.get(), &words, nullptr);
  g_strfreev(words);
  return sim::Text(fault);
}

}  // namespace

int main(int argc, char **argv) {
  if (const sim::Text fault = fault_in(argc, argv)) return sim::run_faulty_driver(argc, argv);
  const sim::Object<PTZKitDriver> driver(sim::new_driver());
  return ptz_kit_driver_run(driver.get(), argc, argv);
}
