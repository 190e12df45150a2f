#include "driver_connection.h"

#include <ptz_kit_messages.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>

#include "message_description.h"
#include "problems.h"

namespace ptzctl {

namespace {

// The driver's own text: the error's message ends with it.
std::string text_of_refusal(const GError &error) {
  const std::string message = error.message;
  const std::string before = "refused with error " + std::to_string(static_cast<guint>(error.code)) + ": ";
  const auto at = message.find(before);
  return at != std::string::npos ? message.substr(at + before.size()) : message;
}

void end_when_settled(PTZKitLink *link, GParamSpec *, gpointer loop) {
  const PTZKitLinkState state = ptz_kit_link_get_state(link);
  const bool is_settled = state == PTZ_KIT_LINK_STATE_READY || state == PTZ_KIT_LINK_STATE_FAILED;
  if (is_settled) g_main_loop_quit(static_cast<GMainLoop *>(loop));
}

gboolean end_at_timeout(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop *>(loop));
  return G_SOURCE_CONTINUE;
}

}  // namespace

// A link waits for a driver that is not there. The user is told at once, and why.
bool DriverConnection::is_listened_on() {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path_.copy(address.sun_path, sizeof address.sun_path - 1);  // the options make sure that it fits
  const tools::UniqueFd probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (probe && connect(probe.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) return true;
  if (errno == EAGAIN) return true;  // the backlog is full
  complain("no driver at %s: %s", path_.c_str(), g_strerror(errno));
  status_ = exit_nobody;
  return false;
}

bool DriverConnection::is_handshake_done() {
  const gint64 start = g_get_monotonic_time();
  const tools::Loop loop(g_main_loop_new(nullptr, FALSE));
  const gulong handler = g_signal_connect(link_.get(), "notify::state", G_CALLBACK(end_when_settled), loop.get());
  const guint timeout = g_timeout_add(timeout_ms_, end_at_timeout, loop.get());
  ptz_kit_link_open(link_.get());
  g_main_loop_run(loop.get());
  g_source_remove(timeout);
  g_signal_handler_disconnect(link_.get(), handler);
  if (ptz_kit_link_get_state(link_.get()) == PTZ_KIT_LINK_STATE_READY) return true;
  tools::Error problem;
  if (g_get_monotonic_time() - start >= gint64{timeout_ms_} * 1000) {
    g_set_error_literal(tools::out(problem), PTZ_KIT_ERROR, PTZ_KIT_ERROR_TIMED_OUT, "");
    complain_of(*problem);
    return false;
  }
  // The error tells why the attempt has failed.
  if (ptz_kit_link_wait_ready(link_.get(), 1, tools::out(problem)) != FALSE) return true;
  complain("the driver at %s cannot be asked: %s", path_.c_str(), problem->message);
  status_ = EXIT_FAILURE;
  return false;
}

bool DriverConnection::is_ready() {
  if (status_ != EXIT_SUCCESS || link_ != nullptr) return status_ == EXIT_SUCCESS;
  const auto path = options_.socket(status_);
  if (!path) return false;
  path_ = *path;
  if (!is_listened_on()) return false;
  link_.reset(PTZ_KIT_LINK(
      g_object_new(PTZ_KIT_TYPE_LINK, "socket-path", path_.c_str(), "handshake-deadline", timeout_ms_, nullptr)));
  return is_handshake_done();
}

tools::Bytes DriverConnection::ask(GBytes *request) {
  if (!is_ready()) return nullptr;
  tools::Error error;
  tools::Bytes reply(ptz_kit_link_call(link_.get(), request, timeout_ms_, nullptr, tools::out(error)));
  if (error != nullptr) complain_of(*error);
  return reply;
}

void DriverConnection::complain_of_refusal(const GError &error) {
  std::string text;
  if (explain_range_ && error.code == PTZ_KIT_ERROR_CODE_OUT_OF_RANGE) text = std::exchange(explain_range_, nullptr)();
  if (text.empty()) text = text_of_refusal(error);
  const auto code = static_cast<guint32>(error.code);
  tools::print_refusal("ptzctl", code, MessageDescription().error_name(code), text);
}

void DriverConnection::complain_of(const GError &error) {
  if (error.domain == PTZ_KIT_REFUSAL) {
    complain_of_refusal(error);
    status_ = EXIT_FAILURE;
  } else if (g_error_matches(&error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_TIMED_OUT)) {
    status_ = exit_nobody;
    complain("no answer from %s within %u ms", path_.c_str(), timeout_ms_);
  } else if (g_error_matches(&error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_LOST) ||
             g_error_matches(&error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_NOT_CONNECTED)) {
    status_ = exit_nobody;
    complain("no answer from %s: %s", path_.c_str(), error.message);
  } else {
    status_ = EXIT_FAILURE;
    complain("not understood: %s", error.message);
  }
}

}  // namespace ptzctl
