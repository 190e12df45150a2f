// ptzctl - looks at what the processes of a pan-tilt-zoom framework share.
#include <clocale>
#include <cstdio>

#include "commands.h"

int main(int argc, char **argv) {
  using namespace ptzctl;
  setlocale(LC_ALL, "");
  setlocale(LC_NUMERIC, "C");  // what one engineer sees another can use
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
      "All take --json and --color=WHEN, those that wait for an answer --timeout=MS, those that ask a driver\n"
      "--socket=PATH. What is not taken is refused. Colours are for a terminal; where NO_COLOR is set, and in JSON,\n"
      "there are none.\n"
      "\n"
      "Exit status:\n"
      "  0  it is done\n"
      "  1  it was refused, or has failed\n"
      "  2  the command line makes no sense\n"
      "  3  nobody is there to answer, or not in time: no driver, no service, nothing published\n"
      "\n"
      "Example: ptzctl driver info --socket /run/ptz/driver.socket";
  const int status = run_one_of(subcommands, rest, "ptzctl", argc, argv);
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
  complain("not everything could be written");
  return EXIT_FAILURE;
}
