#include "raw_request.h"

#include <ptz_serialize.h>
#include <ptz_socket_client_command.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace ptzctl {

namespace {

struct Waiting {
  tools::Loop loop{g_main_loop_new(nullptr, FALSE)};
  tools::Body reply;
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

// A client that is given the path would remove the file of a driver that starts in this moment.
tools::UniqueFd connect_to(const char *path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);  // the options make sure that it fits
  tools::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (fd && connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) return fd;
  complain("no driver at %s: %s", path, g_strerror(errno));
  return tools::UniqueFd();
}

}  // namespace

tools::Body ask_raw(const Options &options, const tools::Body &request, int &status) {
  status = exit_nobody;
  const auto path = options.socket(status);
  if (!path) return nullptr;
  const tools::UniqueFd fd = connect_to(path->c_str());  // the client borrows it
  if (!fd) return nullptr;
  const tools::Object<PTZSocketClientCommand> client(ptz_socket_client_command_new(nullptr, fd.get(), SOCK_STREAM));
  ptz_socket_client_register_callback(PTZ_SOCKET_CLIENT(client.get()), on_reply, nullptr);
  Waiting waiting;
  if (ptz_socket_client_command_async_send(client.get(), request->data, request->len, &waiting) == FALSE) {
    complain("the request could not be sent to %s", path->c_str());
    return nullptr;
  }
  const guint timeout = g_timeout_add(options.timeout_ms(), on_timeout, waiting.loop.get());
  g_main_loop_run(waiting.loop.get());
  if (waiting.reply != nullptr) {
    g_source_remove(timeout);
  } else {
    complain("no answer from %s within %u ms", path->c_str(), options.timeout_ms());
  }
  return std::move(waiting.reply);
}

std::string in_hex(const tools::Body &body) {
  std::string text;
  for (guint i = 0; i < body->len; ++i) {
    const tools::Text byte(g_strdup_printf("%s%02x", i == 0 ? "" : " ", static_cast<guint8>(body->data[i])));
    text += byte.get();
  }
  return text;
}

}  // namespace ptzctl
