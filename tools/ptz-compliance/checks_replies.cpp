// How replies are matched to requests, and what each of them holds.
#include <ptz_socket_client_command.h>
#include <sys/socket.h>

#include <map>

#include "requests.h"

namespace compliance {

namespace {

constexpr int quiet_ms = 60;
constexpr int pipelined_requests = 32;

void id_is_copied(Probe &probe) {
  Link link = probe.connect();
  for (const guint32 id : {1U, 0x1234U, 0x12345678U, 0x80000000U, 0xffffffffU}) {
    link.send(frame(id, harmless_request()));
    link.reply_to(id);
  }
}

// Through the library's client, as a daemon asks: its first request has the id 0.
void first_request_of_a_daemon(Probe &probe) {
  const Object<PTZSocketClientCommand> client(
      ptz_socket_client_command_new(probe.subject().path().c_str(), -1, SOCK_STREAM));
  if (!client || PTZ_SOCKET(client.get())->fd < 0) return probe.fail("the library's client cannot connect");
  bool answered = false;
  ptz_socket_client_register_callback(
      PTZ_SOCKET_CLIENT(client.get()),
      [](gpointer context, gpointer data, guint32) { *static_cast<bool *>(context) = data != nullptr; }, nullptr);
  const Body request = harmless_request();
  probe.record(Traffic::sent, 1, frame(0, request));
  if (!ptz_socket_client_command_async_send(client.get(), request->data, request->len, &answered)) {
    return probe.fail("the library's client cannot send");
  }
  bool late = false;
  const guint timer = g_timeout_add(
      static_cast<guint>(probe.timeout_ms()),
      [](gpointer flag) -> gboolean {
        *static_cast<bool *>(flag) = true;
        return G_SOURCE_CONTINUE;
      },
      &late);
  while (!answered && !late) g_main_context_iteration(nullptr, TRUE);
  g_source_remove(timer);
  probe.fail_unless(answered, "the library's client has no reply to its first request, 0, within %d ms",
                    probe.timeout_ms());
}

void one_each(Probe &probe) {
  Link link = probe.connect();
  const guint32 id = link.request(make_body(PTZ_COMMAND_QUERY_LIMIT_RANGES));
  link.reply_to(id);
  const auto more = link.receive(quiet_ms);
  probe.fail_unless(!more, "one request has more than one reply");
}

void repeated_id(Probe &probe) {
  Link link = probe.connect();
  const std::string request = frame(probe.new_id(), harmless_request());
  for (int count = 1; count <= 2; ++count) {
    link.send(request);
    if (!link.receive(probe.timeout_ms())) probe.fail("request %d of two with the same id has no reply", count);
  }
}

void pipelined(Probe &probe) {
  Link link = probe.connect();
  std::string requests;
  std::map<guint32, int> replies;
  for (int count = 0; count < pipelined_requests; ++count) {
    const guint32 id = probe.new_id();
    replies[id] = 0;
    requests += frame(id, harmless_request());
  }
  link.send(requests);
  int answered = 0;
  for (; answered < pipelined_requests && !probe.decided(); ++answered) {
    const auto frame = link.receive(probe.timeout_ms());
    if (!frame) break;
    if (!replies.contains(frame->id)) return probe.fail("a reply has the id %u, which no request had", frame->id);
    if (++replies[frame->id] > 1) return probe.fail("request %u has two replies", frame->id);
  }
  probe.fail_unless(answered == pipelined_requests, "%d of %d requests that were sent at once have a reply", answered,
                    pipelined_requests);
}

void unsolicited(Probe &probe) {
  Link link = probe.connect();
  const auto frame = link.receive(2 * quiet_ms);
  probe.fail_unless(!frame, "a client that asks nothing receives a frame");
}

void command_word(Probe &probe) {
  Link link = probe.connect();
  for (const PTZCommand command :
       {PTZ_COMMAND_GET_DRIVER_NAME, PTZ_COMMAND_GET_DEVICE_TYPES, PTZ_COMMAND_GET_CAPABILITIES,
        PTZ_COMMAND_GET_DRIVER_PARAMETERS, PTZ_COMMAND_GET_DEVICE_PRESETS, PTZ_COMMAND_QUERY_POSITION,
        PTZ_COMMAND_QUERY_SPEED, PTZ_COMMAND_QUERY_LIMIT_RANGES}) {
    const Body reply = link.ask(make_body(command));
    const gint32 word = command_of(reply);
    probe.fail_unless(word == command || word == PTZ_COMMAND_ERROR_REPLY,
                      "the reply to \"%s\" begins with the command word %d", command_name(command).c_str(), word);
  }
}

void error_layout(Probe &probe) {
  Link link = probe.connect();
  const Body reply = link.ask(unknown_request());
  if (command_of(reply) != PTZ_COMMAND_ERROR_REPLY) {
    return probe.not_applicable("the command word " + std::to_string(command_of(reply)),
                                "the driver does not refuse unknown commands");
  }
  const auto *const bytes = reinterpret_cast<const guint8 *>(reply->data);
  const Handle<PTZKitErrorReply, ptz_kit_error_reply_free> error(ptz_kit_error_reply_read(bytes, reply->len, nullptr));
  if (error == nullptr) return probe.fail("the error reply is not a code and a text");
  probe.fail_unless(error->code >= PTZ_KIT_ERROR_CODE_UNKNOWN_COMMAND && error->code <= PTZ_KIT_ERROR_CODE_DEVICE,
                    "there is no error code %u", error->code);
  probe.fail_unless(*error->text != '\0', "the error reply gives no reason");
}

void parameters(Probe &probe) {
  Link link = probe.connect();
  const auto list = query<ParameterList>(link);
  for (guint i = 0; i < list->parameters->len; ++i) {
    const auto &parameter = *static_cast<const PTZKitParameter *>(g_ptr_array_index(list->parameters, i));
    probe.fail_unless(g_enum_get_value(static_cast<GEnumClass *>(g_type_class_ref(PTZ_TYPE_PARAMETER_GROUP)),
                                       static_cast<gint>(parameter.group)) != nullptr,
                      "parameter \"%s\" is in group %u, which there is not", parameter.name, parameter.group);
    probe.fail_unless(g_enum_get_value(static_cast<GEnumClass *>(g_type_class_ref(PTZ_TYPE_PARAMETER)),
                                       static_cast<gint>(parameter.kind)) != nullptr,
                      "parameter \"%s\" is of kind %u, which there is not", parameter.name, parameter.kind);
  }
}

constexpr Check rows[] = {
    {"replies.id-is-copied", "a reply carries the message id of its request, whatever it is", id_is_copied},
    {"replies.first-request-of-a-daemon", "the library's client gets a reply to its first request, which has the id 0",
     first_request_of_a_daemon},
    {"replies.one-each", "a request has one reply", one_each},
    {"replies.repeated-id", "an id that a client uses again is a new request", repeated_id},
    {"replies.pipelined", "32 requests at once each have one reply", pipelined},
    {"replies.unsolicited", "a client that asks nothing receives nothing", unsolicited},
    {"replies.command-word", "a reply begins with the command word of its request, or with -1", command_word},
    {"replies.error-has-code-and-text", "an error reply is a code that is listed and a text", error_layout},
    {"replies.parameters-are-known", "driver parameters are of groups and kinds that there are", parameters},
};

}  // namespace

const Checks reply_checks(rows);

}  // namespace compliance
