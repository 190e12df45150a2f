#include "exchange_text.h"

#include <ptz_enum_types.h>
#include <ptz_kit_body.h>

#include <algorithm>
#include <optional>

#include "field_values.h"
#include "plain_text.h"
#include "vocabulary.h"

namespace ptzctl {

namespace {

constexpr gint64 ns_per_s = 1'000'000'000;
constexpr std::size_t shown_bytes = 64;  // of a malformed body
constexpr char property_command[] = "get_driver_property";

using Time = tools::Handle<GDateTime, g_date_time_unref>;

std::optional<gint32> number_in_body(const FrameView &frame) {
  gint32 number = 0;
  const bool has_one = ptz_kit_body_get_command(frame.body.data(), frame.body.size(), &number) != FALSE;
  return has_one ? std::optional(number) : std::nullopt;
}

std::optional<gint32> number_of_command(const FrameView &frame) {
  const auto number = number_in_body(frame);
  return number == PTZ_COMMAND_ERROR_REPLY && frame.request_command ? frame.request_command : number;
}

// Whether a request asks for a property that is no secret.
bool is_request_harmless(const FrameView &frame) {
  const tools::Variant body(
      ptz_kit_body_to_variant(PTZ_KIT_BODY_REQUEST, frame.body.data(), frame.body.size(), nullptr));
  const char *name = nullptr;
  return body != nullptr && g_variant_lookup(body.get(), "name", "&s", &name) != FALSE && !is_name_of_secret(name);
}

bool tells_property(const FrameView &frame) { return frame.is_reply && command_of_frame(frame) == property_command; }

// Bytes that nothing is known of are hidden together, if there is the name of a secret among them.
std::string hex_of(const FrameView &frame, bool full) {
  const std::string_view bytes(reinterpret_cast<const char *>(frame.body.data()), frame.body.size());
  const bool may_be_secret = is_name_of_secret(bytes) || (tells_property(frame) && !frame.is_harmless);
  if (may_be_secret && !full) return hidden_value;
  std::string hex;
  const std::size_t count = full ? bytes.size() : std::min(bytes.size(), shown_bytes);
  for (const guint8 byte : frame.body.first(count)) {
    const tools::Text digits(g_strdup_printf("%s%02x", hex.empty() ? "" : " ", byte));
    hex += digits.get();
  }
  const std::size_t left = bytes.size() - count;
  return left > 0 ? hex + " and " + std::to_string(left) + " bytes more" : hex;
}

// A frame whose body was read, or the reason why it could not be.
struct Decoded {
  tools::Variant body;
  tools::Error error;
  FieldDescriptions fields;
  bool is_refusal = false;
  Hidden hidden = Hidden::none;

  Decoded(const FrameView &frame, const MessageDescription &description, bool full) {
    const auto kind = frame.is_reply ? PTZ_KIT_BODY_REPLY : PTZ_KIT_BODY_REQUEST;
    body.reset(ptz_kit_body_to_variant(kind, frame.body.data(), frame.body.size(), tools::out(error)));
    if (body == nullptr) return;
    const gint32 number = number_in_body(frame).value_or(0);
    if (const auto command = description.command(number))
      fields = frame.is_reply ? command->reply() : command->request();
    is_refusal = frame.is_reply && number == PTZ_COMMAND_ERROR_REPLY;
    if (!full) hidden = tells_property(frame) && !frame.is_harmless ? Hidden::all_texts : Hidden::secrets;
  }
  [[nodiscard]] guint32 code() const {
    guint32 code = 0;
    g_variant_lookup(body.get(), "code", "u", &code);
    return code;
  }
  [[nodiscard]] std::string text() const {
    const char *text = "";
    g_variant_lookup(body.get(), "text", "&s", &text);
    return text;
  }
};

std::string title_of_command(const FrameView &frame) {
  const auto number = number_of_command(frame);
  if (!number) return "no command";
  const GEnumValue *const value = enum_value(PTZ_TYPE_COMMAND, *number);
  return value != nullptr ? value->value_name : "command " + std::to_string(*number);
}

}  // namespace

FrameView view_of(const PTZKitMonitorFrame &frame) {
  gsize length = 0;
  const auto *const bytes =
      frame.body != nullptr ? static_cast<const guint8 *>(g_bytes_get_data(frame.body, &length)) : nullptr;
  FrameView view;
  view.time_ns = frame.time_ns;
  view.latency_ns = frame.latency_ns;
  view.lost = frame.lost;
  view.client = frame.client;
  view.pid = frame.pid;
  view.uid = frame.uid;
  view.is_reply = frame.direction == PTZ_KIT_FRAME_REPLY;
  view.past = frame.past != FALSE;
  view.unsent = frame.unsent != FALSE;
  view.message_id = frame.message_id;
  view.program = frame.program != nullptr ? frame.program : "";
  view.body = {bytes, length};
  return view;
}

void OpenRequests::look_at(FrameView &frame) {
  const std::pair key(frame.client, frame.message_id);
  const auto found = requests_.find(key);
  if (frame.is_reply) {
    if (found == requests_.end()) return;
    frame.request_command = found->second.command;
    frame.is_harmless = found->second.is_harmless;
    requests_.erase(found);
    return;
  }
  const auto number = number_in_body(frame);
  if (!number) return;
  if (requests_.size() >= most) requests_.clear();
  requests_[key] = {*number, is_request_harmless(frame)};
}

FrameText text_of_frame(const FrameView &frame, const MessageDescription &description, bool full) {
  const std::string command = title_of_command(frame);
  const Decoded decoded(frame, description, full);
  if (decoded.body == nullptr) {
    return {command, "malformed: " + tools::escaped_text(decoded.error->message) + ": " + hex_of(frame, full), true};
  }
  if (!decoded.is_refusal)
    return {command, fields_line(decoded.body.get(), decoded.fields, description, decoded.hidden), false};
  const char *const name = description.error_name(decoded.code());
  return {command,
          "error " + std::to_string(decoded.code()) + (name != nullptr ? std::string(" ") + name : "") + ": " +
              tools::escaped_text(decoded.text()),
          true};
}

void add_frame_to(const JsonLine &json, const FrameView &frame, const MessageDescription &description, bool full) {
  json.member("time", utc_text(frame.time_ns));
  json.member("time_ns", frame.time_ns);
  json.member("client", gint64{frame.client});
  json.member("pid", gint64{frame.pid});
  json.member("uid", gint64{frame.uid});
  json.member("program", frame.program);
  json.member("direction", frame.is_reply ? "reply" : "request");
  json.member("message_id", gint64{frame.message_id});
  json.member("command", command_of_frame(frame));
  if (frame.is_reply) json.member("latency_ns", frame.latency_ns);
  if (frame.lost > 0) json.member("lost", static_cast<gint64>(frame.lost));
  json.member("past", frame.past);
  json.member("unsent", frame.unsent);
  const Decoded decoded(frame, description, full);
  if (decoded.body == nullptr) {
    json.begin_object("malformed");
    json.member("reason", decoded.error->message);
    json.member("body", hex_of(frame, full));
  } else if (decoded.is_refusal) {
    const char *const name = description.error_name(decoded.code());
    json.begin_object("error");
    json.member("code", gint64{decoded.code()});
    if (name != nullptr) json.member("name", name);
    json.member("text", decoded.text());
  } else {
    json.begin_object("fields");
    add_fields(json, decoded.body.get(), decoded.fields, description, decoded.hidden);
  }
  json.end_object();
}

std::string command_of_frame(const FrameView &frame) {
  const auto number = number_of_command(frame);
  if (!number) return "";
  const gchar *const name = ptz_kit_command_name(*number);
  return name != nullptr ? name : std::to_string(*number);
}

std::string utc_text(gint64 time_ns) {
  const gint64 seconds = time_ns >= 0 ? time_ns / ns_per_s : 0;
  const Time utc(g_date_time_new_from_unix_utc(seconds));
  const tools::Text before(utc != nullptr ? g_date_time_format(utc.get(), "%Y-%m-%dT%H:%M:%S") : nullptr);
  if (before == nullptr) return "";
  const tools::Text text(
      g_strdup_printf("%s.%09dZ", before.get(), static_cast<int>(std::max<gint64>(time_ns, 0) % ns_per_s)));
  return text.get();
}

std::string client_text(const FrameView &frame) {
  const std::string base = frame.program.substr(frame.program.rfind('/') + 1);
  const std::string program = frame.program.empty() ? "unknown" : tools::plain_text(base);
  return "#" + std::to_string(frame.client) + " " + program +
         (frame.pid > 0 ? "[" + std::to_string(frame.pid) + "]" : "");
}

}  // namespace ptzctl
