#include "driver_connection.h"

#include <ptz_serialize.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>

namespace ptzctl {

namespace {

using namespace example;

struct Waiting {
  Loop loop{g_main_loop_new(nullptr, FALSE)};
  Body reply;
};

void on_reply(gpointer context, gpointer data, guint32 length) {
  auto &waiting = *static_cast<Waiting *>(context);
  if (data != nullptr) {
    waiting.reply.reset(ptz_serialize_create_array());
    ptz_serialize_blob(waiting.reply.get(), data, length);
  }
  g_main_loop_quit(waiting.loop.get());
}

gboolean on_timeout(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop *>(loop));
  return G_SOURCE_REMOVE;
}

}  // namespace

// A client that is given the path would remove the file of a driver that starts in this moment.
bool DriverConnection::connect() {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path_.copy(address.sun_path, sizeof address.sun_path - 1);  // the options make sure that it fits
  descriptor_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!descriptor_ || ::connect(descriptor_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
    complain("no driver at %s: %s", path_.c_str(), g_strerror(errno));
    status_ = exit_nobody;
    return false;
  }
  client_.reset(ptz_socket_client_command_new(nullptr, descriptor_.get(), SOCK_STREAM));
  ptz_socket_client_register_callback(PTZ_SOCKET_CLIENT(client_.get()), on_reply, nullptr);
  return true;
}

Body DriverConnection::ask(const Body &request) {
  if (client_ == nullptr && !connect()) return nullptr;
  Waiting waiting;
  if (ptz_socket_client_command_async_send(client_.get(), request->data, request->len, &waiting) == FALSE) {
    complain("the request could not be sent to %s", path_.c_str());
    status_ = exit_nobody;
    return nullptr;
  }
  const guint timeout = g_timeout_add(timeout_ms_, on_timeout, waiting.loop.get());
  g_main_loop_run(waiting.loop.get());
  if (waiting.reply != nullptr) {
    g_source_remove(timeout);
  } else {
    complain("no answer from %s within %u ms", path_.c_str(), timeout_ms_);
    status_ = exit_nobody;
  }
  return std::move(waiting.reply);
}

void DriverConnection::complain_of(const Body &reply) {
  status_ = EXIT_FAILURE;
  BodyReader reader(reply.get());
  const bool is_refusal = reader.i32() == PTZ_COMMAND_ERROR_REPLY;
  const ErrorReply refusal = ErrorReply::read(reader);
  if (is_refusal && reader.finished()) {
    complain("refused with code %u: %s", static_cast<guint>(refusal.code), refusal.text.c_str());
  } else {
    complain("not understood: a reply of %u bytes: %s", reply->len, in_hex(reply).c_str());
  }
}

std::string in_hex(const Body &body) {
  std::string text;
  for (guint i = 0; i < body->len; ++i) {
    const ptz::Text byte(g_strdup_printf("%s%02x", i == 0 ? "" : " ", static_cast<guint8>(body->data[i])));
    text += byte.get();
  }
  return text;
}

}  // namespace ptzctl
