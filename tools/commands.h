// commands.h - the subcommands, each in a file of its own.
#pragma once
#include <string>

#include "subcommand.h"

namespace ptzctl {

int run_config(const std::string &words, int argc, char **argv);
int run_counter(const std::string &words, int argc, char **argv);
int run_doctor(const std::string &words, int argc, char **argv);
int run_driver(const std::string &words, int argc, char **argv);
int run_enum(const std::string &words, int argc, char **argv);
int run_param(const std::string &words, int argc, char **argv);
// In param_backup_command.cpp.
int run_param_backup(const std::string &words, int argc, char **argv);
int run_param_restore(const std::string &words, int argc, char **argv);
int run_record(const std::string &words, int argc, char **argv);
int run_replay(const std::string &words, int argc, char **argv);
int run_report(const std::string &words, int argc, char **argv);
int run_status(const std::string &words, int argc, char **argv);
int run_tap(const std::string &words, int argc, char **argv);
int run_timing(const std::string &words, int argc, char **argv);
int run_top(const std::string &words, int argc, char **argv);

}  // namespace ptzctl
