// What a process that uses the base pays in memory of its own (private, written) for using the kit, too: a driver, a
// link to it, and one typed call. Pages depend on what the heap had free, so the bytes of the heap are told, too.
#include <malloc.h>
#include <ptz.h>
#include <ptz_kit.h>
#include <sys/socket.h>

#include <cstdio>
#include <string>

#include "handles.h"
#include "private_memory.h"
#include "temp_dir.h"

namespace {

using ptz_test::Object;

gboolean answer_with_request(gpointer, gpointer reply_context, gpointer data, guint32 length) {
  ptz_socket_server_send(reply_context, data, length);
  return TRUE;
}

void on_reply(gpointer is_answered, gpointer, guint32) { *static_cast<bool *>(is_answered) = true; }

// The base at work: a server, a client, a request with its reply.
void use_base(const std::string &path) {
  const Object<PTZSocketServerCommand> server(ptz_socket_server_command_new(path.c_str(), SOCK_STREAM));
  ptz_socket_server_register_callback(PTZ_SOCKET_SERVER(server.get()), answer_with_request, nullptr);
  const Object<PTZSocketClientCommand> client(ptz_socket_client_command_new(path.c_str(), -1, SOCK_STREAM));
  bool is_answered = false;
  ptz_socket_client_register_callback(PTZ_SOCKET_CLIENT(client.get()), on_reply, nullptr);
  ptz_socket_client_command_async_send(client.get(), "body", 4, &is_answered);
  while (!is_answered) g_main_context_iteration(nullptr, TRUE);
}

// GLib's own asynchronous calls at work.
void use_tasks() {
  bool is_over = false;
  const auto on_over = [](GObject *, GAsyncResult *result, gpointer over) {
    *static_cast<bool *>(over) = g_task_propagate_boolean(G_TASK(result), nullptr) != FALSE;
  };
  const Object<GTask> task(g_task_new(nullptr, nullptr, on_over, &is_over));
  g_task_return_boolean(task.get(), TRUE);
  while (!is_over) g_main_context_iteration(nullptr, TRUE);
}

void on_position(GObject *link, GAsyncResult *result, gpointer is_answered) {
  ptz_kit_query_position_reply_free(ptz_kit_link_query_position_finish(PTZ_KIT_LINK(link), result, nullptr));
  *static_cast<bool *>(is_answered) = true;
}

long heap_bytes() { return static_cast<long>(mallinfo2().uordblks); }

class Growth {
  long before_kib_ = bench::private_kib(), before_bytes_ = heap_bytes();

 public:
  void show(const char *what) {
    const long now_kib = bench::private_kib(), now_bytes = heap_bytes();
    std::printf("  %-32s %+5ld, of the heap %+6ld bytes\n", what, now_kib - before_kib_, now_bytes - before_bytes_);
    before_kib_ = bench::private_kib();
    before_bytes_ = heap_bytes();
  }
};

}  // namespace

int main() {
  const ptz_test::TempDir folder;
  use_base(folder.file("base"));
  use_tasks();
  const std::string path = folder.file("driver");
  std::printf("KiB of a process's own memory, beside the base at work\n");
  Growth growth;
  const Object<PTZKitDriver> driver(static_cast<PTZKitDriver *>(
      g_object_new(PTZ_KIT_TYPE_DRIVER, "name", "driver", "socket-path", path.c_str(), nullptr)));
  if (ptz_kit_driver_start(driver.get(), nullptr) == FALSE) return 1;
  growth.show("a PTZKitDriver that serves");
  const Object<PTZKitLink> link(ptz_kit_link_new(path.c_str()));
  ptz_kit_link_open(link.get());
  if (ptz_kit_link_wait_ready(link.get(), 0, nullptr) == FALSE) return 1;
  growth.show("a PTZKitLink, ready");
  bool is_answered = false;
  ptz_kit_link_query_position_async(link.get(), 0, nullptr, on_position, &is_answered);
  while (!is_answered) g_main_context_iteration(nullptr, TRUE);
  growth.show("a typed call");
}
