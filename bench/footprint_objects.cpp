// What one object of each kind takes from the heap: the growth over many of them, divided by their number.
#include <glib/gstdio.h>
#include <malloc.h>
#include <ptz.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <string>

#include "temp_dir.h"

static std::size_t heap_bytes() {
  const auto info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

static void show(const char *what, int count, const std::function<void(int)> &make) {
  make(0);  // what is made once, such as a class
  const auto before = heap_bytes();
  for (int i = 1; i <= count; i++) make(i);
  const auto bytes = static_cast<double>(heap_bytes() - before) / count;
  std::printf("  %-44s %7.0f\n", what, bytes);
}

static int one_end() {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) g_error("no pair of sockets");
  return ends[0];
}

static void connect_to(const std::string &path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) g_error("not connected");
}

// Nothing is given back: the process ends with it.
int main() {
  const ptz_test::TempDir folder;
  const auto path = [&](int number) { return folder.file(std::to_string(number)); };
  std::printf("heap bytes of one %zu-bit object\n", 8 * sizeof(void *));

  show("PTZSocketServerCommand", 50, [&](int i) { ptz_socket_server_command_new(path(i).c_str(), SOCK_STREAM); });
  const auto busy = path(1000);
  ptz_socket_server_command_new(busy.c_str(), SOCK_STREAM);
  show("  a connection of it", 50, [&](int) {
    connect_to(busy);
    while (g_main_context_iteration(nullptr, FALSE)) continue;
  });
  show("PTZSocketClientCommand", 50, [](int) { ptz_socket_client_command_new(nullptr, one_end(), SOCK_STREAM); });
  const auto client = ptz_socket_client_command_new(nullptr, one_end(), SOCK_STREAM);
  show("  a request that awaits its reply", 15,
       [&](int) { ptz_socket_client_command_async_send(client, "body", 4, client); });
  show("PTZQueue", 500, [](int) { ptz_queue_setup(g_main_context_default(), g_free, G_PRIORITY_DEFAULT); });
  const auto queue = ptz_queue_setup(g_main_context_default(), g_free, G_PRIORITY_DEFAULT);
  show("  an item in it, besides the item itself", 500, [&](int) { ptz_queue_push(queue, queue); });
  show("event source of a descriptor", 500, [](int) { ptz_file_g_source_new(0); });
  show("PTZDynamicalProperties", 500, [](int) { ptz_dynamical_properties_new(); });
  const auto properties = ptz_dynamical_properties_new();
  show("  a property of it, an int32", 500, [&](int i) {
    g_free(ptz_dynamical_properties_set_from_string(properties, ("Name" + std::to_string(i) + ":int32:1").c_str()));
  });
  show("PTZParameterItemArray", 500, [](int) { ptz_parameter_item_array_new("Group"); });
  const auto items = ptz_parameter_item_array_new("Group");
  show("  an item of it, with a name", 500, [&](int i) {
    auto name = "Name" + std::to_string(i);
    PTZParameterItem item = {};
    item.name = name.data();
    ptz_parameter_item_array_append(items, &item);
  });
  show("handle of a status group, eight parameters", 500,
       [](int) { ptz_status_cache_setup_group(PTZ_SC_GROUP_POSITION, 0, 8); });
}
