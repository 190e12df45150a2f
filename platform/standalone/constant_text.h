// platform/standalone/constant_text.h - whether a text can be recognised by its address.
#pragma once

namespace ptz::platform {

// Returns true if the text lies in a read-only segment of the program or of a library, as string literals do. The text
// at this address stays the same until the library is unloaded. Takes no lock and allocates nothing.
[[nodiscard]] bool is_constant_text(const char *text);

}  // namespace ptz::platform
