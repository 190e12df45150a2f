// faults/faulty_driver.h - the program with the option --fault.
#pragma once

namespace sim {

// Serves with the fault that the options name, or lists the faults. Returns the exit status of the program.
[[nodiscard]] int run_faulty_driver(int argc, char **argv);

}  // namespace sim
