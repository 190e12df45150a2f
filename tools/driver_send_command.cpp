#include <ptz_enum_types.h>
#include <ptz_kit_body.h>
#include <ptz_serialize.h>
#include <ptz_socket_frame.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "driver_commands.h"
#include "driver_connection.h"
#include "message_text.h"
#include "raw_request.h"
#include "vocabulary.h"

namespace ptzctl {

namespace {

constexpr char field_help[] =
    "Sends a request by the names of its command and fields, and shows the reply's fields with their units. Numbers "
    "are\n"
    "those of the body: hundredths of a degree, for example. A field of every axis is three numbers, PAN,TILT,ZOOM, "
    "or\n"
    "FIELD.pan=NUMBER and so on, and 0 for an axis that is not named. --list shows the commands, or the fields of "
    "one.\n\n"
    "Or sends a body of the given types and shows the reply's bytes. Then a FIELD is u8:N, u16:N, u32:N, i32:N, "
    "text:TEXT\n"
    "(with its length before it), hex:BYTES, or command:NAME. With --reply such a reply is shown field by field, for\n"
    "example as u32,i32,text.";

// ---- a body of any bytes

// False for what is no field.
bool add_field(GArray *body, const std::string &field) {
  const auto colon = field.find(':');
  if (colon == std::string::npos) return false;
  const std::string type = field.substr(0, colon), value = field.substr(colon + 1);
  const auto number_within = [&value](gint64 least, gint64 most) -> std::optional<gint64> {
    gchar *end = nullptr;
    errno = 0;
    const gint64 number = g_ascii_strtoll(value.c_str(), &end, 0);
    if (value.empty() || *end != '\0' || errno != 0 || number < least || number > most) return std::nullopt;
    return number;
  };
  if (type == "text") {
    ptz_serialize_string(body, value.c_str());
    return value.size() <= G_MAXUINT16;
  }
  if (type == "hex") {
    std::string digits;
    for (const char c : value) {
      if (c != ' ') digits += c;
    }
    if (digits.size() % 2 != 0) return false;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
      const int high = g_ascii_xdigit_value(digits[i]), low = g_ascii_xdigit_value(digits[i + 1]);
      if (high < 0 || low < 0) return false;
      ptz_serialize_8bit(body, static_cast<guint8>(high << 4 | low));
    }
    return true;
  }
  if (type == "command") {
    const auto command = value_of(PTZ_TYPE_COMMAND, value);
    if (command) ptz_serialize_32bit(body, static_cast<guint32>(*command));
    return command.has_value();
  }
  if (type == "u8") {
    const auto number = number_within(0, G_MAXUINT8);
    if (number) ptz_serialize_8bit(body, static_cast<guint8>(*number));
    return number.has_value();
  }
  if (type == "u16") {
    const auto number = number_within(0, G_MAXUINT16);
    if (number) ptz_serialize_16bit(body, static_cast<guint16>(*number));
    return number.has_value();
  }
  if (type != "u32" && type != "i32") return false;
  const auto number = type == "u32" ? number_within(0, G_MAXUINT32) : number_within(G_MININT32, G_MAXINT32);
  if (number) ptz_serialize_32bit(body, static_cast<guint32>(*number));
  return number.has_value();
}

constexpr std::array<std::string_view, 5> field_types = {"u8", "u16", "u32", "i32", "text"};

struct Field {
  std::string type, text;
  gint64 number = 0;
};

// Reads a field of a reply, of which fewer bytes may be left.
class ReplyFields {
  std::span<const guint8> left_;

  template <typename Number>
  [[nodiscard]] std::optional<Number> number() {
    Number value = 0;
    if (left_.size() < sizeof value) return std::nullopt;
    std::memcpy(&value, left_.data(), sizeof value);
    left_ = left_.subspan(sizeof value);
    return value;
  }
  [[nodiscard]] std::optional<std::string> text() {
    const auto length = number<guint16>();
    if (!length || left_.size() < GUINT16_FROM_LE(*length)) return std::nullopt;
    const std::string bytes(reinterpret_cast<const char *>(left_.data()), GUINT16_FROM_LE(*length));
    left_ = left_.subspan(bytes.size());
    const bool is_text = g_utf8_validate(bytes.data(), static_cast<gssize>(bytes.size()), nullptr) != FALSE;
    return is_text ? std::optional(bytes) : std::nullopt;
  }

 public:
  explicit ReplyFields(const tools::Body &reply) : left_(reinterpret_cast<const guint8 *>(reply->data), reply->len) {}
  [[nodiscard]] bool are_read() const { return left_.empty(); }
  // Nothing if there is no further field of this type.
  [[nodiscard]] std::optional<Field> next(const std::string &type) {
    Field field = {type, "", 0};
    if (type == "text") {
      const auto bytes = text();
      field.text = bytes.value_or("");
      return bytes ? std::optional(field) : std::nullopt;
    }
    std::optional<gint64> value;
    if (type == "u8") value = number<guint8>();
    if (const auto read = type == "u16" ? number<guint16>() : std::nullopt) value = GUINT16_FROM_LE(*read);
    if (const auto read = type == "u32" ? number<guint32>() : std::nullopt) value = GUINT32_FROM_LE(*read);
    if (const auto read = type == "i32" ? number<gint32>() : std::nullopt) value = GINT32_FROM_LE(*read);
    if (!value) return std::nullopt;
    field.number = *value;
    field.text = std::to_string(*value);
    return field;
  }
};

void print_reply(const tools::Body &reply, const std::vector<Field> &fields, bool as_json) {
  if (!as_json) {
    for (const auto &field : fields) std::printf("%-5s %s\n", field.type.c_str(), field.text.c_str());
    if (fields.empty()) std::printf("%s\n", in_hex(reply).c_str());
    return;
  }
  const JsonLine json;
  json.member("reply", in_hex(reply));
  if (!fields.empty()) json.begin_array("fields");
  for (const auto &field : fields) {
    json.begin_object();
    json.member("type", field.type);
    field.type == "text" ? json.member("value", field.text) : json.member("value", field.number);
    json.end_object();
  }
  if (!fields.empty()) json.end_array();
  json.print();
}

bool are_types(const Options &options, const tools::TextList &types) {
  for (gchar **type = types.get(); *type != nullptr; ++type) {
    if (std::ranges::find(field_types, *type) != field_types.end()) continue;
    options.misused("--reply: '%s' is no type of a field", *type);
    return false;
  }
  return true;
}

int show_raw_reply(const Options &options, const tools::Body &reply, const tools::TextList &types) {
  ReplyFields left(reply);
  std::vector<Field> fields;
  int status = EXIT_SUCCESS;
  for (gchar **type = types.get(); *type != nullptr && status == EXIT_SUCCESS; ++type) {
    if (const auto field = left.next(*type)) {
      fields.push_back(*field);
      continue;
    }
    complain("the reply has no further %s: %s", *type, in_hex(reply).c_str());
    status = EXIT_FAILURE;
  }
  if (!fields.empty() && status == EXIT_SUCCESS && !left.are_read()) {
    complain("the reply has more than that: %s", in_hex(reply).c_str());
    status = EXIT_FAILURE;
  }
  if (status == EXIT_SUCCESS || !fields.empty()) print_reply(reply, fields, options.as_json());
  return status;
}

int send_raw(const Options &options, const Words &words, const char *type_list) {
  const tools::TextList types(g_strsplit(type_list != nullptr ? type_list : "", ",", -1));
  if (!are_types(options, types)) return exit_usage;
  const tools::Body request(ptz_serialize_create_array());
  for (const auto &field : words) {
    if (!add_field(request.get(), field)) return options.misused("'%s' is no field", field.c_str());
  }
  if (request->len == 0 || request->len > PTZ_SOCKET_BODY_MAX) {
    return options.misused("a body has 1 to %d bytes, and not %u", PTZ_SOCKET_BODY_MAX, request->len);
  }
  int status = EXIT_SUCCESS;
  const tools::Body reply = ask_raw(options, request, status);
  return reply != nullptr ? show_raw_reply(options, reply, types) : status;
}

// ---- a described request

int send_described(const Options &options, const MessageDescription &description, const CommandDescription &command,
                   const Words &words) {
  std::string problem;
  const tools::Bytes request = command.body_from(std::span(words).subspan(1), problem);
  if (request == nullptr) return options.misused("%s: %s", command.name(), problem.c_str());
  DriverConnection driver(options);
  const tools::Bytes reply = driver.ask(request.get());
  if (reply == nullptr) return driver.status();
  gsize length = 0;
  const auto *const body = static_cast<const guint8 *>(g_bytes_get_data(reply.get(), &length));
  tools::Error error;
  const tools::Variant fields(ptz_kit_body_to_variant(PTZ_KIT_BODY_REPLY, body, length, tools::out(error)));
  if (fields == nullptr) {
    complain("not understood: %s", error->message);
    return EXIT_FAILURE;
  }
  if (options.as_json()) {
    print_as_json(fields.get(), command, description);
  } else {
    std::printf("%s", text_of(fields.get(), command.reply(), description).c_str());
  }
  return EXIT_SUCCESS;
}

void print_listed(const Options &options, const char *name, const char *kind, const std::string &about) {
  if (!options.as_json()) {
    std::printf("%-22s %s\n", name, about.c_str());
    return;
  }
  const JsonLine json;
  json.member(kind, std::string(name));
  json.member("about", about);
  json.print();
}

int list_commands(const Options &options, const MessageDescription &description) {
  for (const auto &each : description.commands()) print_listed(options, each.name(), "command", each.doc());
  return EXIT_SUCCESS;
}

int list_fields(const Options &options, const CommandDescription &command) {
  for (const auto &each : command.request()) {
    const std::string per_axis = each.is_per_axis() ? " per axis" : "";
    print_listed(options, each.name(), "field", std::string(each.doc()) + " (" + each.bounds() + per_axis + ")");
  }
  return EXIT_SUCCESS;
}

int send_or_list(const Options &options, const Words &words, bool is_list, const char *type_list) {
  const MessageDescription description;
  if (words.empty()) {
    return is_list ? list_commands(options, description) : options.misused("it takes COMMAND, or FIELD...");
  }
  const std::string &first = words.front();
  if (first.find(':') != std::string::npos && !is_list) return send_raw(options, words, type_list);
  const auto command = description.command(first);
  if (!command) {
    Words names;
    for (const auto &each : description.commands()) names.emplace_back(each.name());
    return options.misused("there is no command '%s'%s", first.c_str(), did_you_mean(first, names).c_str());
  }
  if (is_list) return list_fields(options, *command);
  if (type_list != nullptr)
    return options.misused("--reply is for a body of types: the fields of %s are known", command->name());
  return send_described(options, description, *command, words);
}

}  // namespace

int run_driver_send(const std::string &words, int argc, char **argv) {
  char *type_list = nullptr;
  gboolean is_list = FALSE;
  Options options(
      words, {"[COMMAND] [FIELD...]", field_help, " move kind=absolute axes=pan,tilt speed=50 value=9000,-1000,0"},
      Asks::driver,
      {{"list", 'l', G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &is_list, "List the commands, or the fields of COMMAND",
        nullptr},
       {"reply", 'r', G_OPTION_FLAG_NONE, G_OPTION_ARG_STRING, &type_list, "How to read the reply", "TYPE,TYPE..."}});
  const auto given = options.parse(argc, argv);
  const tools::Text owned(type_list);
  return given ? send_or_list(options, *given, is_list != FALSE, type_list) : exit_usage;
}

}  // namespace ptzctl
