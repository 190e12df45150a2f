#include "commands.h"

namespace ptzctl {

int run_tap(const std::string &, int, char **) { return EXIT_SUCCESS; }

}  // namespace ptzctl
