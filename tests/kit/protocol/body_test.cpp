// Bodies of any command as variants, and the golden bodies that every later version must read alike.
#include <gtest/gtest.h>
#include <ptz_kit.h>
#include <rapidcheck.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<guint8>;

struct Golden {
  Bytes body;
  std::string fields;  // as g_variant_print() prints them
};

PTZKitBodyKind kind_of(const std::string &name) {
  return name.ends_with("_request") ? PTZ_KIT_BODY_REQUEST : PTZ_KIT_BODY_REPLY;
}

std::map<std::string, Golden> golden_bodies() {
  std::map<std::string, Golden> bodies;
  for (const auto &entry : std::filesystem::directory_iterator(GOLDEN_BODIES)) {
    std::ifstream file(entry.path());
    Golden golden;
    std::string line;
    while (std::getline(file, line) && !line.empty()) {
      std::istringstream words(line);
      std::transform(std::istream_iterator<std::string>(words), {}, std::back_inserter(golden.body),
                     [](const std::string &word) { return static_cast<guint8>(std::stoul(word, nullptr, 16)); });
    }
    std::getline(file, golden.fields);
    bodies[entry.path().filename()] = golden;
  }
  return bodies;
}

GVariant *read(const std::string &name, const Bytes &body) {
  return ptz_kit_body_to_variant(kind_of(name), body.data(), body.size(), nullptr);
}

Bytes write(PTZKitBodyKind kind, GVariant *fields) {
  GError *error = nullptr;
  GBytes *written = ptz_kit_body_from_variant(kind, fields, &error);
  if (written == nullptr) {
    ADD_FAILURE() << error->message;
    g_error_free(error);
    return {};
  }
  gsize length = 0;
  const auto *data = static_cast<const guint8 *>(g_bytes_get_data(written, &length));
  Bytes body(data, data + length);
  g_bytes_unref(written);
  return body;
}

std::string write_error(const char *text) {
  GError *error = nullptr;
  GVariant *fields = g_variant_parse(G_VARIANT_TYPE_VARDICT, text, nullptr, nullptr, nullptr);
  EXPECT_NE(fields, nullptr) << text;
  GBytes *body = ptz_kit_body_from_variant(PTZ_KIT_BODY_REQUEST, fields, &error);
  g_variant_unref(fields);
  EXPECT_EQ(body, nullptr);
  const std::string message = error != nullptr ? error->message : "";
  g_clear_error(&error);
  return message;
}

TEST(KitGoldenBodies, ReadAsKeptFields) {
  for (const auto &[name, golden] : golden_bodies()) {
    SCOPED_TRACE(name);
    GVariant *fields = read(name, golden.body);
    ASSERT_NE(fields, nullptr);
    gchar *text = g_variant_print(fields, TRUE);
    EXPECT_EQ(text, golden.fields);
    g_free(text);
    g_variant_unref(fields);
  }
}

TEST(KitGoldenBodies, KeptFieldsAreWrittenAsSameBytes) {
  for (const auto &[name, golden] : golden_bodies()) {
    SCOPED_TRACE(name);
    GVariant *fields = g_variant_parse(G_VARIANT_TYPE_VARDICT, golden.fields.c_str(), nullptr, nullptr, nullptr);
    ASSERT_NE(fields, nullptr);
    EXPECT_EQ(write(kind_of(name), fields), golden.body);
    g_variant_unref(fields);
  }
}

TEST(KitGoldenBodies, EveryPrefixIsMalformed) {
  for (const auto &[name, golden] : golden_bodies()) {
    SCOPED_TRACE(name);
    for (std::size_t length = 0; length < golden.body.size(); ++length) {
      EXPECT_EQ(ptz_kit_body_to_variant(kind_of(name), golden.body.data(), length, nullptr), nullptr) << length;
    }
  }
}

TEST(KitGoldenBodies, ExistForEveryMessageWithFields) {
  const auto golden = golden_bodies();
  for (gint32 command = -1; command < 100; ++command) {
    const gchar *name = ptz_kit_command_name(command);
    if (name == nullptr) continue;
    const Bytes word = {static_cast<guint8>(command), static_cast<guint8>(command >> 8),
                        static_cast<guint8>(command >> 16), static_cast<guint8>(command >> 24)};
    for (const char *suffix : {"_request", "_reply"}) {
      const std::string message = std::string(name) + suffix;
      GVariant *fields = read(message, word);  // a message without fields is the command word alone
      EXPECT_TRUE(fields != nullptr || golden.contains(message)) << message;
      if (fields != nullptr) g_variant_unref(fields);
    }
  }
}

// Whatever is read is written as the same bytes.
void check_round_trip(PTZKitBodyKind kind, const Bytes &body) {
  GVariant *fields = ptz_kit_body_to_variant(kind, body.data(), body.size(), nullptr);
  if (fields == nullptr) return;
  RC_ASSERT(write(kind, fields) == body);
  g_variant_unref(fields);
}

TEST(KitBody, AnyReadableBodyIsWrittenAsSameBytes) {
  const auto golden = golden_bodies();
  rc::check([&](const std::vector<std::pair<unsigned, guint8>> &changes) {
    auto chosen = golden.begin();
    std::advance(chosen, *rc::gen::inRange<std::size_t>(0, golden.size()));
    Bytes body = chosen->second.body;
    for (const auto &[position, value] : changes) {
      if (body.size() > sizeof(gint32)) body[sizeof(gint32) + position % (body.size() - sizeof(gint32))] = value;
    }
    check_round_trip(kind_of(chosen->first), body);
  });
}

TEST(KitBody, CommandNamesAreFoundBothWays) {
  gint32 command = 0;
  EXPECT_STREQ(ptz_kit_command_name(PTZ_COMMAND_QUERY_POSITION), "query_position");
  EXPECT_TRUE(ptz_kit_command_from_name("query_position", &command));
  EXPECT_EQ(command, PTZ_COMMAND_QUERY_POSITION);
  EXPECT_FALSE(ptz_kit_command_from_name("fly", &command));
  EXPECT_EQ(ptz_kit_command_name(PTZ_COMMAND_END_OF_RECORD), nullptr);
}

TEST(KitBody, RequestWithoutFieldsIsCommandWordAlone) {
  GVariant *stop = g_variant_new_parsed("{'command': <'stop'>}");
  EXPECT_EQ(write(PTZ_KIT_BODY_REQUEST, stop), (Bytes{6, 0, 0, 0}));
  const Bytes longer = {6, 0, 0, 0, 1};
  EXPECT_EQ(ptz_kit_body_to_variant(PTZ_KIT_BODY_REQUEST, longer.data(), longer.size(), nullptr), nullptr);
}

TEST(KitBody, IntegersOfAnyTypeAreTaken) {
  GVariant *fields = g_variant_new_parsed("{'command': <'goto_preset'>, 'number': <byte 3>, 'speed': <int64 50>}");
  EXPECT_EQ(write(PTZ_KIT_BODY_REQUEST, fields), (Bytes{3, 0, 0, 0, 3, 0, 0, 0, 50, 0}));
}

TEST(KitBody, FieldsThatDoNotFitAreErrorsWithTheirName) {
  EXPECT_EQ(write_error("{'number': <1>}"), "field \"command\": missing");
  EXPECT_EQ(write_error("{'command': <'fly'>}"), "field \"command\": there is no command \"fly\"");
  EXPECT_EQ(write_error("{'command': <'goto_preset'>, 'number': <1>}"),
            "goto preset request: field \"speed\": missing");
  EXPECT_EQ(write_error("{'command': <'goto_preset'>, 'number': <'1'>, 'speed': <1>}"),
            "goto preset request: field \"number\": not a number");
  EXPECT_EQ(write_error("{'command': <'goto_preset'>, 'number': <-1>, 'speed': <1>}"),
            "goto preset request: field \"number\": the number does not fit");
  EXPECT_EQ(write_error("{'command': <'goto_preset'>, 'number': <1>, 'speed': <65536>}"),
            "goto preset request: field \"speed\": the number does not fit");
  EXPECT_EQ(write_error("{'command': <'goto_preset'>, 'number': <1>, 'speed': <1>, 'hurry': <true>}"),
            "goto preset request: there are fields that it does not have, or one of them twice");
  EXPECT_EQ(write_error("{'command': <'stop'>, 'hurry': <true>}"), "stop: it has no fields");
}

TEST(KitBody, FieldPerAxisTakesThreeNumbers) {
  EXPECT_EQ(write_error("{'command': <'move'>, 'kind': <1>, 'axes': <1>, 'speed': <1>, 'value': <[1, 2]>}"),
            "move request: field \"value\": not a list of three numbers");
  EXPECT_EQ(write_error("{'command': <'move'>, 'kind': <1>, 'axes': <1>, 'speed': <1>, 'value': <1>}"),
            "move request: field \"value\": not a list of three numbers");
}

}  // namespace
