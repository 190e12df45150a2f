// ptzctl - looks at what the processes of a pan-tilt-zoom framework share.
#include <clocale>
#include <csignal>
#include <cstdio>

#include "commands.h"
#include "problems.h"

int main(int argc, char **argv) {
  using namespace ptzctl;
  setlocale(LC_ALL, "");
  std::signal(SIGXFSZ, SIG_IGN);  // a file at its limit is an error of write()
  setlocale(LC_NUMERIC, "C");     // what one engineer sees another can use
  if (tools::asks_for_json(argc, argv)) tools::print_problems_as_json();
  if (argc > 1 && g_str_equal(argv[1], "--version")) {
    std::printf("ptzctl %s\n", TOOLS_VERSION);
    return EXIT_SUCCESS;
  }
  static constexpr Subcommand subcommands[] = {
      {"config", "configuration that services have on the system bus", run_config},
      {"counter", "what the drivers have counted", run_counter},
      {"doctor", "finds the faults of a system and says how to mend them", run_doctor},
      {"driver", "a driver, by its socket", run_driver},
      {"enum", "the vocabulary: values, names and nicks", run_enum},
      {"param", "the parameter tree", run_param},
      {"record", "writes the frames of a driver to a file", run_record},
      {"replay", "sends recorded requests again and compares the replies", run_replay},
      {"report", "writes a page about the whole system", run_report},
      {"status", "the live state of a PTZ instance", run_status},
      {"tap", "shows the frames of a driver as they pass", run_tap},
      {"timing", "how long requests, moves and replies took", run_timing},
      {"top", "drivers and their clients, live", run_top},
  };
  static constexpr char rest[] =
      "Every subcommand takes --json and --color=WHEN. Subcommands that wait for an answer take --timeout=MS, and "
      "those\n"
      "that ask a driver take --driver=NAME or --socket=PATH. Other options are an error. Colours are used on a "
      "terminal\n"
      "only, and not if NO_COLOR is set. With --json, errors are objects, too. --version prints the version.\n"
      "\n"
      "Exit status:\n"
      "  0  success\n"
      "  1  the driver or the service refused the request, or an error occurred\n"
      "  2  wrong usage\n"
      "  3  no answer, or not in time: there is no driver or no service, or nothing is published\n"
      "\n"
      "Example: ptzctl driver info --socket /run/ptz/driver.socket";
  const int status = run_one_of(subcommands, rest, "ptzctl", argc, argv);
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
  complain("not everything could be written");
  return EXIT_FAILURE;
}
