#include "driver_link.h"

#include <fcntl.h>
#include <ptz_serialize.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cstring>

namespace example {

namespace {

constexpr guint search_interval_ms = 100;
constexpr gint64 sync_limit_us = 10 * G_USEC_PER_SEC - 100'000;

Body make_reply(gconstpointer data, guint32 length) {
  Body reply(ptz_serialize_create_array());
  ptz_serialize_blob(reply.get(), data, length);
  return reply;
}

// Runs a function on the main loop, in the order of the calls.
void on_main_loop(std::function<void()> function) {
  g_idle_add_once(
      [](gpointer data) {
        const std::unique_ptr<std::function<void()>> call(static_cast<std::function<void()> *>(data));
        (*call)();
      },
      new std::function<void()>(std::move(function)));
}

// A client that is given the path connects by itself, but where nobody listens it removes the file at the path: it may
// then remove that of a driver which starts in this moment. Whoever looks for a driver again and again connects first.
Descriptor connect_to(const std::string &path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) return Descriptor();
  std::memcpy(address.sun_path, path.data(), path.size());
  Descriptor descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!descriptor || ::connect(descriptor.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
    return Descriptor();
  }
  return descriptor;
}

}  // namespace

DriverLink::~DriverLink() { close(); }

void DriverLink::search() {
  {
    const std::lock_guard guard(lock_);
    if (closed_ || connection_ || search_ != 0) return;
  }
  if (!connect()) search_ = g_timeout_add(search_interval_ms, on_search, this);
}

gboolean DriverLink::on_search(gpointer user_data) {
  auto &link = *static_cast<DriverLink *>(user_data);
  if (!link.connect()) return G_SOURCE_CONTINUE;
  link.search_ = 0;
  return G_SOURCE_REMOVE;
}

bool DriverLink::connect() {
  Descriptor descriptor = connect_to(path_);
  if (!descriptor) return false;
  Object<PTZSocketClientCommand> client(ptz_socket_client_command_new(nullptr, descriptor.get(), SOCK_STREAM));
  // The callback gets the context of the request that was answered in place of this user data.
  ptz_socket_client_register_callback(PTZ_SOCKET_CLIENT(client.get()), on_reply, nullptr);
  ptz_socket_client_command_register_free_callback(client.get(), on_never_answered, nullptr);
  const std::lock_guard guard(lock_);
  connection_.reset(new Connection{std::move(descriptor), std::move(client)});
  changed_.notify_all();
  return true;
}

void DriverLink::close() {
  if (search_ != 0) g_source_remove(std::exchange(search_, 0));
  std::shared_ptr<Connection> last;
  const std::lock_guard guard(lock_);
  closed_ = true;
  // An end of file ends the wait of a request that has not been answered yet.
  if (connection_) shutdown(connection_->descriptor.get(), SHUT_RDWR);
  last.swap(connection_);
  changed_.notify_all();
}

void DriverLink::drop(const std::shared_ptr<Connection> &connection) {
  {
    const std::lock_guard guard(lock_);
    if (connection_ == connection) connection_.reset();
  }
  search();
}

void DriverLink::ask_from_main_loop(const Body &request, Handler handler) {
  const std::shared_ptr<Connection> connection = borrow();
  if (!connection) return handler({Outcome::not_connected, nullptr});
  // The context of the request, by which the answer finds whom it is for.
  auto context = std::make_unique<Handler>(std::move(handler));
  if (ptz_socket_client_command_async_send(connection->client.get(), request->data, request->len, context.get())) {
    // Now it is the client's: it comes back through one of the two callbacks.
    static_cast<void>(context.release());
    return;
  }
  drop(connection);
  (*context)({Outcome::lost, nullptr});
}

void DriverLink::on_reply(gpointer request_handler, gpointer data, guint32 length) {
  const std::unique_ptr<Handler> handler(static_cast<Handler *>(request_handler));
  if (data == nullptr) return (*handler)({Outcome::timed_out, nullptr});
  (*handler)({Outcome::answered, make_reply(data, length)});
}

void DriverLink::on_never_answered(gpointer request_handler, gpointer) {
  const std::unique_ptr<Handler> handler(static_cast<Handler *>(request_handler));
  (*handler)({Outcome::lost, nullptr});
}

void DriverLink::ask_later(Body request, Handler handler) {
  on_main_loop([this, shared = std::make_shared<Body>(std::move(request)), handler = std::move(handler)] {
    ask_from_main_loop(*shared, handler);
  });
}

Answer DriverLink::ask(const Body &request) {
  std::shared_ptr<Connection> connection = borrow();
  if (!connection) return {Outcome::not_connected, nullptr};
  std::array<guint8, PTZ_SOCKET_BODY_MAX> reply;  // the longest that there is: the call is not told a size
  guint32 length = 0;
  const gint64 start_us = g_get_monotonic_time();
  const bool answered = ptz_socket_client_command_sync_send(connection->client.get(), request->data, request->len,
                                                            reply.data(), &length) != FALSE;
  // The call tells only that there is no answer. Where the connection has gone it tells so at once.
  const bool timed_out = !answered && g_get_monotonic_time() - start_us >= sync_limit_us;
  give_back(std::move(connection), !answered && !timed_out);
  if (!answered) return {timed_out ? Outcome::timed_out : Outcome::lost, nullptr};
  return {Outcome::answered, make_reply(reply.data(), length)};
}

std::shared_ptr<DriverLink::Connection> DriverLink::borrow() {
  const std::lock_guard guard(lock_);
  return connection_;
}

// The descriptor may be closed only when the client was finalized. If the main loop is running a callback of the
// client, that is after the callback; so both go there.
void DriverLink::give_back(std::shared_ptr<Connection> connection, bool lost) {
  if (lost) {
    // At once, so that the caller who waits for a connection now does not find this one.
    const std::lock_guard guard(lock_);
    if (connection_ == connection) connection_.reset();
  }
  on_main_loop([this, connection = std::move(connection), lost] {
    if (lost) search();
  });
}

bool DriverLink::wait_until_connected(std::chrono::milliseconds limit) {
  std::unique_lock guard(lock_);
  const auto settled = [this] { return closed_ || connection_ != nullptr; };
  if (limit.count() == 0) {
    changed_.wait(guard, settled);
  } else if (!changed_.wait_for(guard, limit, settled)) {
    return false;
  }
  return !closed_;
}

bool DriverLink::sleep(std::chrono::milliseconds time) {
  std::unique_lock guard(lock_);
  return !changed_.wait_for(guard, time, [this] { return closed_; });
}

bool DriverLink::closed() {
  const std::lock_guard guard(lock_);
  return closed_;
}

}  // namespace example
