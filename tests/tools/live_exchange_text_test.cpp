// A frame as text and as JSON.
#include <gtest/gtest.h>
#include <ptz_enum_types.h>
#include <ptz_flag_types.h>
#include <ptz_kit_body.h>
#include <ptz_kit_messages.h>

#include <string>
#include <vector>

#include "exchange_text.h"
#include "field_values.h"

namespace {

using namespace ptzctl;

using Body = std::vector<guint8>;

// The values are those of a dictionary in the text format of variants.
Body body_of(PTZKitBodyKind kind, const char *fields) {
  GVariant *const dictionary = g_variant_parse(G_VARIANT_TYPE_VARDICT, fields, nullptr, nullptr, nullptr);
  GError *error = nullptr;
  GBytes *const bytes = ptz_kit_body_from_variant(kind, dictionary, &error);
  g_variant_unref(dictionary);
  EXPECT_NE(bytes, nullptr) << (error != nullptr ? error->message : "");
  if (bytes == nullptr) return {};
  gsize length = 0;
  const auto *const data = static_cast<const guint8 *>(g_bytes_get_data(bytes, &length));
  const Body body(data, data + length);
  g_bytes_unref(bytes);
  return body;
}
Body request(const char *fields) { return body_of(PTZ_KIT_BODY_REQUEST, fields); }
Body reply(const char *fields) { return body_of(PTZ_KIT_BODY_REPLY, fields); }

FrameView frame(const Body &body, bool is_reply) {
  FrameView view;
  view.time_ns = 1'700'000'000'000'000'042;
  view.client = 3;
  view.pid = 77;
  view.uid = 1000;
  view.is_reply = is_reply;
  view.message_id = 9;
  view.program = "/usr/bin/daemon";
  view.body = body;
  return view;
}

struct ExchangeText : testing::Test {
  const MessageDescription description;

  [[nodiscard]] FrameText of(const Body &body, bool is_reply, bool full = false) const {
    return text_of_frame(frame(body, is_reply), description, full);
  }
  [[nodiscard]] std::string of_request(const char *fields, bool full = false) const {
    return of(request(fields), false, full).fields;
  }
  [[nodiscard]] std::string of_reply(const char *fields, bool full = false) const {
    return of(reply(fields), true, full).fields;
  }
  [[nodiscard]] std::string json(const FrameView &view, bool full = false) const {
    const JsonLine line;
    add_frame_to(line, view, description, full);
    return line.text();
  }
  [[nodiscard]] std::string json_end(const Body &body, bool is_reply, bool full = false) const {
    const std::string all = json(frame(body, is_reply), full);
    return all.substr(all.find("\"unsent\""));
  }
};

constexpr char absolute_move[] =
    "{'command': <'move'>, 'kind': <1>, 'axes': <3>, 'speed': <50>, 'value': <[1000, -300, 0]>}";

TEST_F(ExchangeText, AxesHaveTheirUnitsAndOnlyThoseThatMoveAreShown) {
  const FrameText text = of(request(absolute_move), false);
  EXPECT_EQ(text.command, "Move");
  EXPECT_EQ(text.fields, "kind=absolute pan=10.00° tilt=-3.00° speed=50 %");
  EXPECT_FALSE(text.is_error);
  EXPECT_EQ(of_request("{'command': <'move'>, 'kind': <3>, 'axes': <4>, 'speed': <100>, 'value': <[0, 0, 200]>}"),
            "kind=continuous zoom=2.00×/s speed=100 %");
}

TEST_F(ExchangeText, SeveralFieldsPerAxisStandApart) {
  EXPECT_EQ(of_reply("{'command': <'query_position'>, 'position': <[-1, 0, 100]>, 'status': <[1, 0, 9]>}"),
            "pan=-0.01° tilt=0.00° zoom=1.00× status=moving,idle,9");
  EXPECT_EQ(of_reply("{'command': <'query_limit_ranges'>, 'minimum': <[-17000, -9000, 100]>, "
                     "'maximum': <[17000, 9000, 3000]>}"),
            "minimum=-170.00°,-90.00°,1.00× maximum=170.00°,90.00°,30.00×");
}

TEST_F(ExchangeText, OtherUnitsAreThoseOfPeople) {
  EXPECT_EQ(of_request("{'command': <'area_zoom'>, 'x': <5000>, 'y': <1>, 'width': <10000>, 'height': <2>, "
                       "'speed': <7>}"),
            "x=50.00 % y=0.01 % width=100.00 % height=0.02 % speed=7 %");
  EXPECT_EQ(of_reply("{'command': <'field_angles'>, 'horizontal': <6150>, 'vertical': <0>}"),
            "horizontal=61.50° vertical=0.00°");
  EXPECT_EQ(of_reply("{'command': <'query_zoomdelim'>, 'minimum': <100>, 'optical_maximum': <3000>, "
                     "'maximum': <36000>}"),
            "minimum=1.00× optical_maximum=30.00× maximum=360.00×");
}

TEST_F(ExchangeText, EnumerationsAreWordsAndFlagsAreNames) {
  EXPECT_EQ(of_request("{'command': <'move_command'>, 'direction': <5>, 'speed': <1>}"),
            "direction=up-right speed=1 %");
  EXPECT_EQ(of_reply("{'command': <'get_capabilities'>, 'move': <3>, 'extra': <0>}"), "move=Pan,RelPan extra=none");
  EXPECT_EQ(of_reply("{'command': <'get_capabilities'>, 'move': <1>, 'extra': <0x40000000>}"),
            "move=Pan extra=0x40000000");
}

TEST_F(ExchangeText, TextsAreQuotedAndCannotControlATerminal) {
  EXPECT_EQ(of_reply("{'command': <'get_driver_name'>, 'name': <'a \"b\" \\\\ \\u001b[2J\\n\\u009b\\u202e'>}"),
            R"(name="a \"b\" \\ \x1b[2J\n\x9b\u202e")");
}

TEST_F(ExchangeText, ListsShowTheirElements) {
  EXPECT_EQ(of_reply("{'command': <'get_device_types'>, 'types': <['one', 'two']>}"), R"(types=["one", "two"])");
  EXPECT_EQ(of_reply("{'command': <'get_device_presets'>, 'presets': <[{'number': <3>, 'name': <'gate'>}]>}"),
            R"(presets=[{number=3 name="gate"}])");
}

TEST_F(ExchangeText, RefusalShowsCodeNameAndText) {
  const FrameText text = of(reply("{'command': <'error'>, 'code': <4>, 'text': <'\"too\" far\\u001b'>}"), true);
  EXPECT_EQ(text.fields, "error 4 out_of_range: \"too\" far\\x1b");
  EXPECT_TRUE(text.is_error);
  EXPECT_EQ(of_reply("{'command': <'error'>, 'code': <99>, 'text': <'?'>}"), "error 99: ?");
}

TEST_F(ExchangeText, RefusalIsNamedAfterItsRequest) {
  const Body move = request(absolute_move), error = reply("{'command': <'error'>, 'code': <4>, 'text': <'x'>}");
  EXPECT_EQ(of(error, true).command, "Error reply");
  OpenRequests requests;
  FrameView asked = frame(move, false), answered = frame(error, true), other = answered;
  other.client = 4;
  requests.look_at(asked);
  requests.look_at(other);
  requests.look_at(answered);
  EXPECT_EQ(text_of_frame(answered, description, false).command, "Move");
  EXPECT_EQ(command_of_frame(answered), "move");
  EXPECT_EQ(command_of_frame(other), "error");
}

TEST_F(ExchangeText, MalformedBodyShowsTheReasonAndItsBytes) {
  const FrameText text = of({5, 0, 0, 0, 1}, false);
  EXPECT_EQ(text.command, "Move");
  EXPECT_TRUE(text.is_error);
  EXPECT_EQ(text.fields.find("malformed: "), 0U) << text.fields;
  EXPECT_NE(text.fields.find("field \"kind\" at byte 4: the body is too short: 05 00 00 00 01"), std::string::npos)
      << text.fields;
  EXPECT_EQ(of({77, 0, 0, 0}, false).command, "command 77");
  EXPECT_EQ(of({}, false).command, "no command");
}

TEST_F(ExchangeText, LongMalformedBodyIsCutUnlessFull) {
  const Body body(100, 9);
  EXPECT_NE(of(body, false).fields.find(" 09 and 36 bytes more"), std::string::npos);
  EXPECT_EQ(of(body, false, true).fields.find("bytes more"), std::string::npos);
}

constexpr char parameters[] =
    "{'command': <'get_driver_parameters'>, 'parameters': <["
    "{'group': <0>, 'name': <'Wifi_PassPhrase'>, 'label': <'l'>, 'value': <'hunter2'>, 'kind': <0>, 'flags': <0>, "
    "'range': <''>},"
    "{'group': <0>, 'name': <'max_pan'>, 'label': <'l'>, 'value': <'170'>, 'kind': <0>, 'flags': <0>, 'range': <''>}"
    "]>}";

TEST_F(ExchangeText, ValuesOfSecretParametersAreHiddenUnlessFull) {
  const std::string shown = of_reply(parameters);
  EXPECT_EQ(shown.find("hunter2"), std::string::npos) << shown;
  EXPECT_NE(shown.find("value=(hidden)"), std::string::npos) << shown;
  EXPECT_NE(shown.find("value=\"170\""), std::string::npos) << shown;
  EXPECT_NE(of_reply(parameters, true).find("value=\"hunter2\""), std::string::npos);
  EXPECT_EQ(json_end(reply(parameters), true).find("hunter2"), std::string::npos);
  EXPECT_NE(json_end(reply(parameters), true, true).find("hunter2"), std::string::npos);
}

TEST_F(ExchangeText, SecretsOfAMalformedBodyAreHidden) {
  Body body = reply(parameters);
  body.push_back(0);
  EXPECT_NE(of(body, true).fields.find(": (hidden)"), std::string::npos) << of(body, true).fields;
  EXPECT_NE(of(body, true, true).fields.find("68 75 6e 74 65 72"), std::string::npos);
}

TEST_F(ExchangeText, ValueOfAPropertyIsHiddenUnlessTheRequestNamedNoSecret) {
  const Body value = reply("{'command': <'get_driver_property'>, 'value': <'hunter2'>}");
  EXPECT_EQ(of(value, true).fields, "value=(hidden)");
  for (const bool is_secret : {true, false}) {
    const Body asked = request(is_secret ? "{'command': <'get_driver_property'>, 'name': <'ApiToken'>}"
                                         : "{'command': <'get_driver_property'>, 'name': <'model'>}");
    OpenRequests requests;
    FrameView question = frame(asked, false), answer = frame(value, true);
    requests.look_at(question);
    requests.look_at(answer);
    EXPECT_EQ(text_of_frame(answer, description, false).fields, is_secret ? "value=(hidden)" : "value=\"hunter2\"");
    EXPECT_EQ(text_of_frame(answer, description, true).fields, "value=\"hunter2\"");
  }
}

TEST_F(ExchangeText, NamesOfSecretsAreFoundInAnyCase) {
  for (const char *name : {"password", "PassPhrase", "ssh_KEY", "Secret", "TOKEN1"})
    EXPECT_TRUE(is_name_of_secret(name));
  for (const char *name : {"", "pan", "toke", "pas"}) EXPECT_FALSE(is_name_of_secret(name));
}

TEST_F(ExchangeText, JsonOfARequestTellsWhoAndWhen) {
  const Body body = request(absolute_move);
  EXPECT_EQ(json(frame(body, false)),
            R"({"time":"2023-11-14T22:13:20.000000042Z","time_ns":1700000000000000042,"client":3,"pid":77,"uid":1000,)"
            R"("program":"/usr/bin/daemon","direction":"request","message_id":9,"command":"move","past":false,)"
            R"("unsent":false,"fields":{"kind":"absolute","axes":{"pan":{"value":10.0},"tilt":{"value":-3.0}},)"
            R"("speed":50}})");
}

TEST_F(ExchangeText, JsonOfAReplyHasTheLatencyAndOnePositionPerAxis) {
  const Body body = reply("{'command': <'query_position'>, 'position': <[-1, 0, 100]>, 'status': <[1, 0, 9]>}");
  FrameView view = frame(body, true);
  view.latency_ns = 1500;
  view.unsent = true;
  view.lost = 5;
  const std::string text = json(view);
  EXPECT_NE(text.find(R"("latency_ns":1500,"lost":5,"past":false,"unsent":true,)"), std::string::npos) << text;
  EXPECT_NE(text.find(R"("fields":{"axes":{"pan":{"position":-0.01,"status":"moving"},"tilt":{"position":0.0,)"
                      R"("status":"idle"},"zoom":{"position":1.0,"status":9}}}})"),
            std::string::npos)
      << text;
}

TEST_F(ExchangeText, JsonOfFailuresHasTheirParts) {
  EXPECT_EQ(json_end(reply("{'command': <'error'>, 'code': <4>, 'text': <'far'>}"), true),
            R"("unsent":false,"error":{"code":4,"name":"out_of_range","text":"far"}})");
  const std::string text = json_end({77, 0, 0, 0}, false);
  EXPECT_NE(text.find(R"("malformed":{"reason":)"), std::string::npos) << text;
  EXPECT_NE(text.find(R"("body":"4d 00 00 00"}})"), std::string::npos) << text;
}

TEST_F(ExchangeText, ViewOfAMonitorsFrameBorrowsItsBody) {
  PTZKitMonitorFrame frame = {};
  char program[] = "/bin/p";
  frame.time_ns = 5;
  frame.pid = 6;
  frame.direction = PTZ_KIT_FRAME_REPLY;
  frame.past = TRUE;
  frame.program = program;
  frame.body = g_bytes_new_static("\x06\0\0\0", 4);
  const FrameView view = view_of(frame);
  EXPECT_EQ(command_of_frame(view), "stop");
  EXPECT_TRUE(view.is_reply && view.past && !view.unsent);
  EXPECT_EQ(view.program, "/bin/p");
  EXPECT_EQ(text_of_frame(view, description, false).fields, "");
  g_bytes_unref(frame.body);
}

}  // namespace
