// raw_request.h - sends a body as it is, of which a PTZKitLink would refuse some, and shows the reply's bytes.
#pragma once
#include "handles.h"
#include "subcommand.h"

namespace ptzctl {

// The reply's body. Null, with the exit status, if there was none in time; the user was told.
[[nodiscard]] tools::Body ask_raw(const Options &options, const tools::Body &request, int &status);
// The bytes as two digits each.
[[nodiscard]] std::string in_hex(const tools::Body &body);

}  // namespace ptzctl
