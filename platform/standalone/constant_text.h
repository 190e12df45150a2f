// platform/standalone/constant_text.h - whether a text can be recognised by its address.
#pragma once

namespace ptz::platform {

// Returns true if the text lies in a read-only segment, as string literals do, of the main program or of a library that
// is never unloaded (linked with -z nodelete). The text at this address stays the same as long as the process runs.
// Takes no lock and allocates nothing.
[[nodiscard]] bool is_constant_text(const char *text);

}  // namespace ptz::platform
