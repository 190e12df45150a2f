// driver_commands.h - the subcommands of "ptzctl driver" that have a file of their own.
#pragma once
#include <string>

namespace ptzctl {

// In driver_list_command.cpp.
int run_driver_list(const std::string &words, int argc, char **argv);
// In driver_motion_command.cpp.
int run_driver_move(const std::string &words, int argc, char **argv);
int run_driver_position(const std::string &words, int argc, char **argv);
int run_driver_presets(const std::string &words, int argc, char **argv);
int run_driver_stop(const std::string &words, int argc, char **argv);
// In driver_send_command.cpp.
int run_driver_send(const std::string &words, int argc, char **argv);

}  // namespace ptzctl
