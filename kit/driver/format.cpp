#include "driver/format.h"

#include <cstdarg>

#include "handles.h"

namespace ptz_kit {

std::string format(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const Text text(g_strdup_vprintf(format, arguments));
  va_end(arguments);
  return text.get();
}

}  // namespace ptz_kit
