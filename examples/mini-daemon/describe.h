// describe.h - failed calls, capabilities and parameters in words.
#pragma once
#include <ptz_kit.h>

#include <string>

#include "owned.h"

namespace example {

std::string describe_failure(const Problem &problem);
// Whether the connection has ended: another call can succeed only when the link is ready again.
bool is_disconnected(const Problem &problem);

std::string flag_names(GType type, guint32 flags);
std::string in_words(const PTZKitParameter &parameter);
std::string seconds_since(gint64 start_us);
std::string table_row(std::string name, const std::string &from, const std::string &to, const std::string &speed);

}  // namespace example
