#include "commands.h"

namespace ptzctl {

int run_report(const std::string &, int, char **) { return EXIT_SUCCESS; }

}  // namespace ptzctl
