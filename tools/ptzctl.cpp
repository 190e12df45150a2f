// ptzctl - looks at what the processes of a pan-tilt-zoom framework share.
#include <clocale>
#include <cstdio>
#include <cstdlib>

#include "commands.h"

int main(int argc, char **argv) {
  using namespace ptzctl;
  setlocale(LC_ALL, "");
  static constexpr Subcommand subcommands[] = {
      {"config", "configuration that services have on the system bus", run_config},
      {"counter", "what the drivers have counted", run_counter},
      {"driver", "a driver, by its socket", run_driver},
      {"enum", "the vocabulary: values, names and nicks", run_enum},
      {"param", "the parameter tree", run_param},
      {"status", "the live state of a PTZ instance", run_status},
      {"timing", "how long requests, moves and replies took", run_timing},
  };
  const int status = run_one_of(subcommands, "ptzctl", argc, argv);
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
  complain("not everything could be written");
  return EXIT_FAILURE;
}
