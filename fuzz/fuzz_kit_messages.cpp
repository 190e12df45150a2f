// Every reader of the kit's messages. A body that is read must be written as the same bytes, through variants and
// through nothing else; a body that is not read must leave an error that names the place, and no message.
//
//   input   0 for a request, otherwise a reply (1 byte), the body
#include <ptz_kit.h>

#include <cstring>
#include <span>

#include "fuzz_target.h"

namespace {

void check_written(PTZKitBodyKind kind, GVariant *fields, std::span<const guint8> body) {
  GBytes *written = ptz_kit_body_from_variant(kind, fields, nullptr);
  // A frame carries at most 2552 bytes, and inputs may be longer.
  REQUIRE((written != nullptr) == (body.size() <= 2552));
  if (written == nullptr) return;
  gsize length = 0;
  const auto *data = g_bytes_get_data(written, &length);
  REQUIRE(length == body.size());
  REQUIRE(std::memcmp(data, body.data(), length) == 0);
  g_bytes_unref(written);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  if (size == 0) return 0;
  const auto kind = *data == 0 ? PTZ_KIT_BODY_REQUEST : PTZ_KIT_BODY_REPLY;
  const std::span body(data + 1, size - 1);
  GError *error = nullptr;
  GVariant *fields = ptz_kit_body_to_variant(kind, body.data(), body.size(), &error);
  REQUIRE((fields == nullptr) == (error != nullptr));
  if (error != nullptr) {
    REQUIRE(g_error_matches(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_MALFORMED));
    g_error_free(error);
    return 0;
  }
  check_written(kind, fields, body);
  g_variant_unref(fields);
  return 0;
}
