#include "ptz_socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "clock.h"
#include "faults.h"
#include "fixtures.h"
#include "handles.h"
#include "peers.h"
#include "subclass.h"
#include "syslog_capture.h"

namespace {

using namespace ptz_test;

// Longer than the second between two attempts to connect, whatever GLib rounds it to.
constexpr std::int64_t one_retry_ms = 2'000;
constexpr std::size_t longest_path = sizeof(sockaddr_un::sun_path) - 1;

Object<PTZSocket> open_endpoint(PTZSocketMode mode, const std::string &path, int type = SOCK_STREAM) {
  return Object<PTZSocket>(ptz_socket_new(PTZ_TYPE_SOCKET, mode, path.c_str(), type));
}

Object<PTZSocket> open_client(const std::string &path, int type = SOCK_STREAM) {
  return open_endpoint(PTZ_SOCKET_MODE_CLIENT, path, type);
}

Object<PTZSocket> open_server(const std::string &path, int type = SOCK_STREAM) {
  return open_endpoint(PTZ_SOCKET_MODE_SERVER, path, type);
}

Object<PTZSocket> adopt(int fd, PTZSocketMode mode = PTZ_SOCKET_MODE_CLIENT) {
  return Object<PTZSocket>(ptz_socket_fd_new(PTZ_TYPE_SOCKET, mode, fd, SOCK_STREAM));
}

gssize read_from(const Object<PTZSocket> &endpoint, int fd, void *buffer, gsize length, gint timeout_ms) {
  return PTZ_SOCKET_GET_CLASS(endpoint.get())->read(endpoint.get(), fd, buffer, length, timeout_ms);
}

gssize write_to(const Object<PTZSocket> &endpoint, int fd, std::string_view text, gint timeout_ms) {
  return PTZ_SOCKET_GET_CLASS(endpoint.get())->write(endpoint.get(), fd, text.data(), text.size(), timeout_ms);
}

guint add_retry(const Object<PTZSocket> &endpoint) {
  return PTZ_SOCKET_GET_CLASS(endpoint.get())->add_retry(endpoint.get());
}

bool is_pending(guint timer) { return g_main_context_find_source_by_id(nullptr, timer) != nullptr; }

void let_it_retry() {
  advance_clock(one_retry_ms);
  run_pending();
}

void make_file(const std::string &path) { std::ofstream(path) << "stale"; }

std::string path_of_length(const TempDir &dir, std::size_t length) {
  std::string path = dir.file("");
  path.resize(length, 'x');
  return path;
}

// Calls on a path or a descriptor, without those that only mark descriptors as not inherited.
std::vector<Call> sequence(const CallLog &log) {
  std::vector<Call> calls;
  for (const auto &attempt : log.attempts()) {
    if (attempt.call != Call::set_descriptor_flags) calls.push_back(attempt.call);
  }
  return calls;
}

// --- the type ---------------------------------------------------------------------------------------------------

static_assert(offsetof(PTZSocket, socket) == sizeof(GObject));
static_assert(offsetof(PTZSocket, fd) == offsetof(PTZSocket, socket) + sizeof(gpointer));
static_assert(offsetof(PTZSocket, type) == offsetof(PTZSocket, fd) + 4);
static_assert(offsetof(PTZSocket, retry_source) == offsetof(PTZSocket, fd) + 8);
static_assert(offsetof(PTZSocket, mode) == offsetof(PTZSocket, fd) + 12);
static_assert(offsetof(PTZSocketClass, read) == sizeof(GObjectClass));
static_assert(offsetof(PTZSocketClass, write) == sizeof(GObjectClass) + sizeof(gpointer));
static_assert(offsetof(PTZSocketClass, add_retry) == sizeof(GObjectClass) + 2 * sizeof(gpointer));
static_assert(PTZ_SOCKET_MODE_CLIENT == 0 && PTZ_SOCKET_MODE_SERVER == 1);

TEST(Socket, TypeDerivesDirectlyFromGObject) {
  EXPECT_STREQ(g_type_name(PTZ_TYPE_SOCKET), "PTZSocket");
  EXPECT_EQ(g_type_parent(PTZ_TYPE_SOCKET), G_TYPE_OBJECT);
  EXPECT_EQ(ptz_socket_get_type(), ptz_socket_get_type());
}

TEST(Socket, FreshInstanceIsClosed) {
  const Object<PTZSocket> endpoint(static_cast<PTZSocket *>(g_object_new(PTZ_TYPE_SOCKET, nullptr)));
  EXPECT_EQ(endpoint->socket, nullptr);
  EXPECT_EQ(endpoint->fd, -1);
  EXPECT_EQ(endpoint->retry_source, 0U);
}

// --- the property -----------------------------------------------------------------------------------------------

struct SocketProperty : testing::Test {
  Object<PTZSocket> endpoint{static_cast<PTZSocket *>(g_object_new(PTZ_TYPE_SOCKET, nullptr))};
  GParamSpec *spec = g_object_class_find_property(G_OBJECT_GET_CLASS(endpoint.get()), "socket");
};

TEST_F(SocketProperty, IsAWriteOnlyString) {
  ASSERT_NE(spec, nullptr);
  EXPECT_EQ(spec->param_id, 1U);
  EXPECT_EQ(G_PARAM_SPEC_VALUE_TYPE(spec), G_TYPE_STRING);
  EXPECT_STREQ(g_param_spec_get_nick(spec), "Socket");
  EXPECT_STREQ(g_param_spec_get_blurb(spec), "Socket");
  EXPECT_EQ(g_value_get_string(g_param_spec_get_default_value(spec)), nullptr);
  EXPECT_EQ(spec->flags & (G_PARAM_READWRITE | G_PARAM_CONSTRUCT | G_PARAM_CONSTRUCT_ONLY), G_PARAM_WRITABLE);
}

TEST_F(SocketProperty, SettingItStoresACopyAndReplacesTheOldPath) {
  std::string path = "/first";
  g_object_set(endpoint.get(), "socket", path.c_str(), nullptr);
  path = "/other";
  EXPECT_STREQ(endpoint->socket, "/first");
  g_object_set(endpoint.get(), "socket", path.c_str(), nullptr);
  EXPECT_STREQ(endpoint->socket, "/other");
  g_object_set(endpoint.get(), "socket", nullptr, nullptr);
  EXPECT_EQ(endpoint->socket, nullptr);
}

TEST_F(SocketProperty, SettingItOpensNothing) {
  g_object_set(endpoint.get(), "socket", "/nowhere", nullptr);
  EXPECT_EQ(endpoint->fd, -1);
  EXPECT_EQ(endpoint->retry_source, 0U);
}

TEST_F(SocketProperty, ReadingItThroughGObjectIsRefused) {
  const GlibLogCapture log;
  GValue value = G_VALUE_INIT;
  g_value_init(&value, G_TYPE_STRING);
  g_object_get_property(G_OBJECT(endpoint.get()), "socket", &value);
  g_value_unset(&value);
  ASSERT_EQ(log.messages().size(), 1U);
  EXPECT_NE(log.messages()[0].text.find("not readable"), std::string::npos);
}

TEST_F(SocketProperty, GetOperationReturnsThePath) {
  g_object_set(endpoint.get(), "socket", "/some/path", nullptr);
  GValue value = G_VALUE_INIT;
  g_value_init(&value, G_TYPE_STRING);
  G_OBJECT_GET_CLASS(endpoint.get())->get_property(G_OBJECT(endpoint.get()), 1, &value, spec);
  EXPECT_STREQ(g_value_get_string(&value), "/some/path");
  g_value_unset(&value);
}

TEST_F(SocketProperty, UnknownIdGivesTheStandardWarning) {
  const GlibLogCapture log;
  GValue value = G_VALUE_INIT;
  g_value_init(&value, G_TYPE_STRING);
  G_OBJECT_GET_CLASS(endpoint.get())->get_property(G_OBJECT(endpoint.get()), 99, &value, spec);
  G_OBJECT_GET_CLASS(endpoint.get())->set_property(G_OBJECT(endpoint.get()), 99, &value, spec);
  g_value_unset(&value);
  ASSERT_EQ(log.messages().size(), 2U);
  for (const auto &message : log.messages()) {
    EXPECT_NE(message.level & G_LOG_LEVEL_WARNING, 0);
    EXPECT_NE(message.text.find("invalid property id 99 for \"socket\" of type 'GParamString' in 'PTZSocket'"),
              std::string::npos)
        << message.text;
  }
}

// --- arguments --------------------------------------------------------------------------------------------------

TEST(Socket, NewRefusesATypeThatIsNoEndpoint) {
  const GlibLogCapture log;
  EXPECT_EQ(ptz_socket_new(G_TYPE_OBJECT, PTZ_SOCKET_MODE_CLIENT, nullptr, SOCK_STREAM), nullptr);
  EXPECT_EQ(ptz_socket_fd_new(G_TYPE_OBJECT, PTZ_SOCKET_MODE_CLIENT, -1, SOCK_STREAM), nullptr);
  EXPECT_EQ(log.criticals(), 2U);
}

TEST(Socket, NewServerNeedsAPath) {
  const GlibLogCapture log;
  EXPECT_EQ(ptz_socket_new(PTZ_TYPE_SOCKET, PTZ_SOCKET_MODE_SERVER, nullptr, SOCK_STREAM), nullptr);
  EXPECT_EQ(log.criticals(), 1U);
}

TEST(SocketDeathTest, NewAbortsForAnUnknownMode) {
  EXPECT_DEATH(ptz_socket_new(PTZ_TYPE_SOCKET, 2, nullptr, SOCK_STREAM),
               "ERROR:ptz_socket\\.c:[0-9]+:ptz_socket_new: code should not be reached");
  EXPECT_DEATH(ptz_socket_new(PTZ_TYPE_SOCKET, -1, "/nowhere", SOCK_STREAM),
               "ERROR:ptz_socket\\.c:[0-9]+:ptz_socket_new: code should not be reached");
}

TEST(Socket, ClientWithoutAPathOpensNothing) {
  const CallLog calls;
  const Object<PTZSocket> client(ptz_socket_new(PTZ_TYPE_SOCKET, PTZ_SOCKET_MODE_CLIENT, nullptr, SOCK_SEQPACKET));
  EXPECT_EQ(client->socket, nullptr);
  EXPECT_EQ(client->fd, -1);
  EXPECT_EQ(client->retry_source, 0U);
  EXPECT_EQ(client->mode, PTZ_SOCKET_MODE_CLIENT);
  EXPECT_EQ(client->type, SOCK_SEQPACKET);
  EXPECT_EQ(calls.count(Call::socket), 0U);
}

TEST(Socket, AdoptingADescriptorStoresItAndOpensNothing) {
  const Pair pair;
  for (const auto mode : {PTZ_SOCKET_MODE_CLIENT, PTZ_SOCKET_MODE_SERVER}) {
    const CallLog calls;
    const auto endpoint = adopt(pair.ours.get(), mode);
    EXPECT_EQ(endpoint->socket, nullptr);
    EXPECT_EQ(endpoint->fd, pair.ours.get());
    EXPECT_EQ(endpoint->type, SOCK_STREAM);
    EXPECT_EQ(endpoint->mode, mode);
    EXPECT_EQ(endpoint->retry_source, 0U);
    EXPECT_TRUE(calls.attempts().empty());
  }
}

void expect_open(const Object<PTZSocket> &endpoint, PTZSocketMode mode, const std::string &path) {
  EXPECT_STREQ(endpoint->socket, path.c_str());
  EXPECT_EQ(endpoint->mode, mode);
  EXPECT_EQ(endpoint->type, SOCK_STREAM);
  EXPECT_EQ(endpoint->retry_source, 0U);
  ASSERT_GE(endpoint->fd, 0);
  EXPECT_TRUE(is_non_blocking(endpoint->fd));
  EXPECT_FALSE(is_inherited(endpoint->fd));
}

// --- opening a server -------------------------------------------------------------------------------------------

TEST(SocketServerOpen, StoresWhatItWasGivenAndAcceptsConnections) {
  const TempDir dir;
  const auto server = open_server(dir.file("s"));
  expect_open(server, PTZ_SOCKET_MODE_SERVER, dir.file("s"));
  EXPECT_TRUE(connect_to(dir.file("s")));
}

TEST(SocketServerOpen, ForwardsTheSocketType) {
  const TempDir dir;
  const auto server = open_server(dir.file("s"), SOCK_SEQPACKET);
  int type = 0;
  socklen_t size = sizeof type;
  ASSERT_EQ(getsockopt(server->fd, SOL_SOCKET, SO_TYPE, &type, &size), 0);
  EXPECT_EQ(type, SOCK_SEQPACKET);
  EXPECT_EQ(server->type, SOCK_SEQPACKET);
}

TEST(SocketServerOpen, MakesTheFileWorldWritableWhateverTheUmask) {
  const TempDir dir;
  const mode_t umask_before = umask(077);
  const auto server = open_server(dir.file("s"));
  umask(umask_before);
  struct stat status {};
  ASSERT_EQ(stat(dir.file("s").c_str(), &status), 0);
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
  EXPECT_EQ(status.st_mode & 07777U, 0666U);
}

TEST(SocketServerOpen, TakesItsStepsInOrder) {
  const TempDir dir;
  const std::string path = dir.file("server");
  const CallLog calls;
  const auto server = open_server(path);
  EXPECT_EQ(sequence(calls), (std::vector{Call::socket, Call::get_status_flags, Call::set_status_flags, Call::unlink,
                                          Call::bind, Call::chmod, Call::listen}));
  EXPECT_EQ(calls.attempts(Call::socket)[0].argument, SOCK_STREAM);
  EXPECT_EQ(calls.attempts(Call::unlink)[0].path, path);
  EXPECT_EQ(calls.attempts(Call::bind)[0].path, path);
  EXPECT_EQ(calls.attempts(Call::bind)[0].argument, static_cast<std::int64_t>(path.size() + 2));
  EXPECT_EQ(calls.attempts(Call::chmod)[0].path, path);
  EXPECT_EQ(calls.attempts(Call::listen)[0].argument, 128);
}

TEST(SocketServerOpen, ReplacesAStaleFile) {
  const TempDir dir;
  make_file(dir.file("s"));
  const SyslogCapture log;
  const auto server = open_server(dir.file("s"));
  EXPECT_GE(server->fd, 0);
  EXPECT_TRUE(connect_to(dir.file("s")));
  EXPECT_TRUE(log.lines().empty());
}

TEST(SocketServerOpen, AcceptsAPathOf107Bytes) {
  const TempDir dir;
  const std::string path = path_of_length(dir, longest_path);
  ASSERT_EQ(path.size(), 107U);
  const SyslogCapture log;
  const auto server = open_server(path);
  ASSERT_GE(server->fd, 0);
  const auto client = open_client(path);
  EXPECT_GE(client->fd, 0);
  EXPECT_TRUE(log.lines().empty());
}

TEST(SocketServerOpen, RefusesAPathOf108BytesAndRemovesTheFile) {
  const TempDir dir;
  for (const std::size_t length : {longest_path + 1, longest_path + 2, longest_path + 50}) {
    const std::string path = path_of_length(dir, length);
    make_file(path);
    const SyslogCapture log;
    const CallLog calls;
    const auto server = open_server(path);
    EXPECT_EQ(server->fd, -1);
    EXPECT_EQ(server->retry_source, 0U);
    EXPECT_EQ(log.lines(),
              (std::vector<LogLine>{{LOG_ERR, "open_server_socket: server_addr.sun_path too short(truncated)."}}));
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(calls.count(Call::bind), 0U);
    ASSERT_EQ(calls.count(Call::get_status_flags), 1U);
    const Descriptor left_open(calls.attempts(Call::get_status_flags)[0].fd);
    EXPECT_TRUE(is_open(left_open.get()));
  }
}

TEST(SocketServerOpen, ReportsASocketThatCannotBeMadeAndTouchesNoFile) {
  const TempDir dir;
  make_file(dir.file("s"));
  const SyslogCapture log;
  const Fault fault(Call::socket, EMFILE);
  const auto server = open_server(dir.file("s"));
  EXPECT_EQ(server->fd, -1);
  EXPECT_EQ(server->retry_source, 0U);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_ERR, "Failed to create listening socket"}}));
  EXPECT_TRUE(std::filesystem::exists(dir.file("s")));
}

struct OpenFailure {
  const char *name;
  Call call;
  int error;
  const char *message;  // "@" stands for the path
  bool found_after_bind = false;
};

void PrintTo(const OpenFailure &failure, std::ostream *out) { *out << failure.name; }

std::string with_path(std::string message, const std::string &path) {
  if (const auto at = message.find('@'); at != std::string::npos) message.replace(at, 1, path);
  return message;
}

struct SocketServerOpenFailure : testing::TestWithParam<OpenFailure> {};

// The descriptor is left open on purpose: whatever watched it by its number must not find another one there.
TEST_P(SocketServerOpenFailure, IsLoggedRemovesTheFileAndLeavesTheDescriptorOpen) {
  const TempDir dir;
  const std::string path = dir.file("s");
  make_file(path);
  const SyslogCapture log;
  const CallLog calls;
  const Fault fault(GetParam().call, GetParam().error);
  const auto server = open_server(path);
  ASSERT_NE(server, nullptr);
  EXPECT_EQ(fault.hits(), 1);
  EXPECT_EQ(server->fd, -1);
  EXPECT_EQ(server->retry_source, 0U);
  EXPECT_STREQ(server->socket, path.c_str());
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_ERR, with_path(GetParam().message, path)}}));
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_EQ(calls.count(Call::close), 0U);
  ASSERT_EQ(calls.count(Call::get_status_flags), 1U);
  const Descriptor left_open(calls.attempts(Call::get_status_flags)[0].fd);
  EXPECT_EQ(lseek(left_open.get(), 0, SEEK_SET), -1);
  EXPECT_EQ(errno, ESPIPE);  // open, and a socket
}

INSTANTIATE_TEST_SUITE_P(
    EachStep, SocketServerOpenFailure,
    testing::Values(OpenFailure{"GetFlags", Call::get_status_flags, EIO,
                                "open_server_socket: Failed to get file descriptor flags."},
                    OpenFailure{"SetFlags", Call::set_status_flags, EIO,
                                "open_server_socket: Failed to set file descriptor to O_NONBLOCK."},
                    OpenFailure{"Bind", Call::bind, EACCES,
                                "open_server_socket: Unable to bind to path '@' Permission denied."},
                    OpenFailure{"Chmod", Call::chmod, EPERM, "open_server_socket: chmod failed on '@'."},
                    OpenFailure{"Listen", Call::listen, EOPNOTSUPP, "open_server_socket: listen failed."}),
    [](const auto &info) { return info.param.name; });

TEST(SocketServerOpen, ReportsAFolderThatDoesNotExist) {
  const TempDir dir;
  const std::string path = dir.file("none/s");
  const SyslogCapture log;
  const CallLog calls;
  const auto server = open_server(path);
  EXPECT_EQ(server->fd, -1);
  EXPECT_EQ(log.count(LOG_ERR, "open_server_socket: Unable to bind to path '" + path + "' No such file or directory."),
            1U);
  const Descriptor left_open(calls.attempts(Call::bind)[0].fd);
}

// --- opening a client -------------------------------------------------------------------------------------------

TEST(SocketClientOpen, Connects) {
  const TempDir dir;
  const Listener listener(dir.file("s"));
  const SyslogCapture log;
  const auto client = open_client(dir.file("s"));
  expect_open(client, PTZ_SOCKET_MODE_CLIENT, dir.file("s"));
  EXPECT_TRUE(listener.accept());
  EXPECT_TRUE(log.lines().empty());
}

TEST(SocketClientOpen, TakesItsStepsInOrder) {
  const TempDir dir;
  const std::string path = dir.file("s");
  const Listener listener(path);
  const CallLog calls;
  const auto client = open_client(path);
  EXPECT_EQ(sequence(calls),
            (std::vector{Call::socket, Call::get_status_flags, Call::set_status_flags, Call::connect}));
  EXPECT_EQ(calls.attempts(Call::socket)[0].argument, SOCK_STREAM);
  EXPECT_EQ(calls.attempts(Call::connect)[0].path, path);
  EXPECT_EQ(calls.attempts(Call::connect)[0].argument, 110);
}

TEST(SocketClientOpen, FailureToConnectClosesRemovesTheFileAndRetries) {
  const TempDir dir;
  const std::string path = dir.file("s");
  make_file(path);
  const CallLog calls;
  const auto client = open_client(path);
  EXPECT_EQ(client->fd, -1);
  EXPECT_TRUE(is_pending(client->retry_source));
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_EQ(sequence(calls), (std::vector{Call::socket, Call::get_status_flags, Call::set_status_flags, Call::connect,
                                          Call::close, Call::unlink}));
  EXPECT_EQ(calls.attempts(Call::close)[0].fd, calls.attempts(Call::connect)[0].fd);
  EXPECT_EQ(calls.attempts(Call::unlink)[0].path, path);
}

TEST(SocketClientOpen, ReportsASocketThatCannotBeMadeAndTouchesNoFile) {
  const TempDir dir;
  make_file(dir.file("s"));
  const SyslogCapture log;
  const Fault fault(Call::socket, EMFILE);
  const auto client = open_client(dir.file("s"), SOCK_DGRAM);
  EXPECT_EQ(client->fd, -1);
  EXPECT_TRUE(is_pending(client->retry_source));
  EXPECT_EQ(log.lines(),
            (std::vector<LogLine>{{LOG_ERR, "Could not open client socket, type=" + std::to_string(SOCK_DGRAM) +
                                                ", errno=Too many open files"}}));
  EXPECT_TRUE(std::filesystem::exists(dir.file("s")));
}

TEST(SocketClientOpen, ReportsASocketTypeThatDoesNotExist) {
  const TempDir dir;
  const SyslogCapture log;
  const auto client = open_client(dir.file("s"), 9);
  EXPECT_EQ(client->fd, -1);
  EXPECT_EQ(client->type, 9);
  EXPECT_EQ(log.count(LOG_ERR, "Could not open client socket, type=9, errno=Socket type not supported"), 1U);
}

TEST(SocketClientOpen, RefusesAPathOf108BytesAndRemovesTheFile) {
  const TempDir dir;
  const std::string path = path_of_length(dir, longest_path + 1);
  make_file(path);
  const SyslogCapture log;
  const CallLog calls;
  const auto client = open_client(path);
  EXPECT_EQ(client->fd, -1);
  EXPECT_TRUE(is_pending(client->retry_source));
  EXPECT_EQ(log.lines(),
            (std::vector<LogLine>{{LOG_ERR, "open_client_socket: server_addr.sun_path too short(truncated)."}}));
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_EQ(calls.count(Call::connect), 0U);
  EXPECT_EQ(calls.count(Call::close), 1U);
}

struct SocketClientOpenFailure : testing::TestWithParam<OpenFailure> {};

TEST_P(SocketClientOpenFailure, IsLoggedClosesRemovesTheFileAndRetries) {
  const TempDir dir;
  const std::string path = dir.file("s");
  const Listener listener(path);
  const SyslogCapture log;
  const CallLog calls;
  const Fault fault(GetParam().call, GetParam().error);
  const auto client = open_client(path);
  EXPECT_EQ(fault.hits(), 1);
  EXPECT_EQ(client->fd, -1);
  EXPECT_TRUE(is_pending(client->retry_source));
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_ERR, with_path(GetParam().message, path)}}));
  EXPECT_EQ(calls.count(Call::connect), 0U);
  EXPECT_EQ(calls.count(Call::close, calls.attempts(Call::get_status_flags)[0].fd), 1U);
  EXPECT_FALSE(std::filesystem::exists(path));
}

INSTANTIATE_TEST_SUITE_P(EachStep, SocketClientOpenFailure,
                         testing::Values(OpenFailure{"GetFlags", Call::get_status_flags, EIO,
                                                     "open_client_socket: Failed to get file descriptor flags."},
                                         OpenFailure{
                                             "SetFlags", Call::set_status_flags, EIO,
                                             "open_client_socket: Failed to set file descriptor to O_NONBLOCK."}),
                         [](const auto &info) { return info.param.name; });

// The counter of failed connections is the process's: other tests have moved it on.
struct SocketConnectLog : testing::Test {
  static constexpr int logged_one_in = 300;
  TempDir dir;
  std::string path = dir.file("nobody");
  std::string line = "open_client_socket: Unable to connect to '" + path + "': errno=111, Connection refused";
  SyslogCapture log;

  void fail(int times, const std::string &where) const {
    const Fault refused(Call::connect, ECONNREFUSED);
    for (int i = 0; i < times; ++i) open_client(where);
  }
  // Afterwards the next line is due after 300 failures.
  void start_counting_anew() {
    const auto before = log.lines().size();
    int failures = 0;
    for (; log.lines().size() == before && failures < logged_one_in; ++failures) fail(1, dir.file("other"));
    log = SyslogCapture();
  }
};

TEST_F(SocketConnectLog, HasOneLineForEvery300Failures) {
  for (std::size_t lines = 1; lines <= 3; ++lines) {
    fail(logged_one_in, path);
    EXPECT_EQ(log.lines(), std::vector<LogLine>(lines, {LOG_WARNING, line}));
  }
}

TEST_F(SocketConnectLog, NamesTheErrorOfTheAttemptThatIsLogged) {
  start_counting_anew();
  fail(logged_one_in - 1, path);
  open_client(path);  // for real: there is no such file
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_WARNING, "open_client_socket: Unable to connect to '" + path +
                                                                 "': errno=2, No such file or directory"}}));
}

TEST_F(SocketConnectLog, CountsAllEndpointsTogetherAndOnlyFailedConnections) {
  start_counting_anew();
  const Listener listener(dir.file("somebody"));
  for (int i = 0; i < logged_one_in - 1; ++i) {
    fail(1, dir.file(std::to_string(i)));
    const auto connected = open_client(dir.file("somebody"));
    EXPECT_TRUE(listener.accept());
    open_client(dir.file("somebody/") + std::string(longest_path, 'x'));
  }
  EXPECT_EQ(log.containing("Unable to connect"), 0U);
  fail(1, path);
  EXPECT_EQ(log.count(LOG_WARNING, line), 1U);
  EXPECT_EQ(log.containing("Unable to connect"), 1U);
}

TEST_F(SocketConnectLog, CountsBackgroundAttempts) {
  start_counting_anew();
  const Fault refused(Call::connect, ECONNREFUSED);
  const auto client = open_client(path);
  fail(logged_one_in - 2, dir.file("other"));
  EXPECT_TRUE(log.lines().empty());
  let_it_retry();
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_WARNING, line}}));
}

// --- reconnecting -----------------------------------------------------------------------------------------------

TEST(SocketRetry, ConnectsOnceAServerListens) {
  const TempDir dir;
  const auto client = open_client(dir.file("s"));
  const guint timer = client->retry_source;
  let_it_retry();
  EXPECT_EQ(client->fd, -1);
  EXPECT_EQ(client->retry_source, timer);

  const Listener listener(dir.file("s"));
  let_it_retry();
  expect_open(client, PTZ_SOCKET_MODE_CLIENT, dir.file("s"));
  EXPECT_FALSE(is_pending(timer));
  EXPECT_TRUE(listener.accept());
}

TEST(SocketRetry, TriesOnceASecondWithoutLimit) {
  const TempDir dir;
  const auto client = open_client(dir.file("s"));
  const CallLog calls;
  constexpr int step_ms = 250, seconds = 60;
  for (int passed = 0; passed < seconds * 1'000; passed += step_ms) {
    advance_clock(step_ms);
    run_pending();
  }
  EXPECT_NEAR(static_cast<double>(calls.count(Call::connect)), seconds, 1.5);
  EXPECT_TRUE(is_pending(client->retry_source));
}

TEST(SocketRetry, EachAttemptRemovesAFileThatNobodyListensOn) {
  const TempDir dir;
  const auto client = open_client(dir.file("s"));
  make_file(dir.file("s"));
  let_it_retry();
  EXPECT_FALSE(std::filesystem::exists(dir.file("s")));
}

TEST(SocketRetry, FollowsAChangedPath) {
  const TempDir dir;
  const auto client = open_client(dir.file("s"));
  const Listener listener(dir.file("other"));
  g_object_set(client.get(), "socket", dir.file("other").c_str(), nullptr);
  let_it_retry();
  EXPECT_GE(client->fd, 0);
  EXPECT_EQ(client->retry_source, 0U);
}

TEST(SocketRetry, WaitsWhileThereIsNoPath) {
  const TempDir dir;
  const auto client = open_client(dir.file("s"));
  g_object_set(client.get(), "socket", nullptr, nullptr);
  const CallLog calls;
  let_it_retry();
  EXPECT_EQ(calls.count(Call::socket), 0U);
  EXPECT_TRUE(is_pending(client->retry_source));
}

TEST(SocketRetry, TimerRunsOnTheDefaultMainContext) {
  const TempDir dir;
  const Context other(g_main_context_new());
  g_main_context_push_thread_default(other.get());
  const auto client = open_client(dir.file("s"));
  g_main_context_pop_thread_default(other.get());
  EXPECT_TRUE(is_pending(client->retry_source));
}

TEST(SocketRetry, TimerWithoutAnEndpointEndsItself) {
  const TempDir dir;
  const auto client = open_client(dir.file("s"));
  GSource *timer = g_main_context_find_source_by_id(nullptr, client->retry_source);
  ASSERT_NE(timer, nullptr);
  GSourceFunc function = nullptr;
  gpointer data = nullptr;
  timer->callback_funcs->get(timer->callback_data, timer, &function, &data);
  EXPECT_EQ(function(nullptr), FALSE);
}

TEST(SocketRetry, AddRetryClosesTheDescriptorAndStartsTheTimer) {
  const TempDir dir;
  const Listener listener(dir.file("s"));
  const auto client = open_client(dir.file("s"));
  const auto peer = listener.accept();
  const CallLog calls;
  const int fd = client->fd;
  const guint timer = add_retry(client);
  EXPECT_EQ(client->fd, -1);
  EXPECT_EQ(calls.count(Call::close, fd), 1U);
  EXPECT_TRUE(is_at_end(peer.get()));
  EXPECT_NE(timer, 0U);
  EXPECT_EQ(client->retry_source, timer);
  EXPECT_TRUE(is_pending(timer));
  EXPECT_TRUE(std::filesystem::exists(dir.file("s")));
  let_it_retry();
  EXPECT_GE(client->fd, 0);
}

TEST(SocketRetry, AddRetryReturnsThePendingTimer) {
  const TempDir dir;
  const auto client = open_client(dir.file("s"));
  const guint timer = client->retry_source;
  EXPECT_EQ(add_retry(client), timer);
  EXPECT_EQ(add_retry(client), timer);
  EXPECT_EQ(client->retry_source, timer);
}

TEST(SocketRetry, AddRetryOfAServerOpensAClientSocket) {
  const TempDir dir;
  const auto server = open_server(dir.file("s"));
  add_retry(server);
  EXPECT_EQ(server->fd, -1);
  std::filesystem::remove(dir.file("s"));
  const Listener listener(dir.file("s"));
  const CallLog calls;
  let_it_retry();
  EXPECT_EQ(calls.count(Call::connect), 1U);
  EXPECT_EQ(calls.count(Call::bind), 0U);
  EXPECT_GE(server->fd, 0);
  EXPECT_EQ(server->mode, PTZ_SOCKET_MODE_SERVER);
}

TEST(SocketDeathTest, AddRetryAbortsWithoutAPath) {
  const Pair pair;
  const auto endpoint = adopt(pair.ours.get());
  EXPECT_DEATH(add_retry(endpoint),
               "ERROR:ptz_socket\\.c:[0-9]+:ptz_socket_add_retry: assertion failed: \\(self->socket\\)");
}

// --- the end ----------------------------------------------------------------------------------------------------

TEST(SocketFinalize, RemovesThePendingTimer) {
  const TempDir dir;
  auto client = open_client(dir.file("s"));
  const guint timer = client->retry_source;
  ASSERT_TRUE(is_pending(timer));
  client.reset();
  EXPECT_FALSE(is_pending(timer));
  const CallLog calls;
  let_it_retry();
  EXPECT_EQ(calls.count(Call::connect), 0U);
}

TEST(SocketFinalize, ServerRemovesItsFileThenCloses) {
  const TempDir dir;
  auto server = open_server(dir.file("s"));
  const int fd = server->fd;
  const CallLog calls;
  server.reset();
  EXPECT_FALSE(std::filesystem::exists(dir.file("s")));
  EXPECT_EQ(sequence(calls), (std::vector{Call::unlink, Call::close}));
  EXPECT_EQ(calls.attempts(Call::close)[0].fd, fd);
}

TEST(SocketFinalize, ServerThatCouldNotListenStillRemovesTheFile) {
  const TempDir dir;
  const CallLog calls;
  const Fault fault(Call::listen, EIO);
  auto server = open_server(dir.file("s"));
  const Descriptor left_open(calls.attempts(Call::listen)[0].fd);
  make_file(dir.file("s"));
  server.reset();
  EXPECT_FALSE(std::filesystem::exists(dir.file("s")));
  EXPECT_TRUE(is_open(left_open.get()));
}

TEST(SocketFinalize, ClientClosesAndLeavesTheFile) {
  const TempDir dir;
  const Listener listener(dir.file("s"));
  auto client = open_client(dir.file("s"));
  const auto peer = listener.accept();
  client.reset();
  EXPECT_TRUE(is_at_end(peer.get()));
  EXPECT_TRUE(std::filesystem::exists(dir.file("s")));
}

TEST(SocketFinalize, AdoptedDescriptorStaysOpen) {
  const Pair pair;
  for (const auto mode : {PTZ_SOCKET_MODE_CLIENT, PTZ_SOCKET_MODE_SERVER}) {
    adopt(pair.ours.get(), mode);
    EXPECT_TRUE(is_open(pair.ours.get()));
    EXPECT_FALSE(is_at_end(pair.theirs.get()));
  }
}

// The path decides who owns the descriptor.
TEST(SocketFinalize, AdoptedDescriptorIsClosedOnceThereIsAPath) {
  Pair pair;
  auto endpoint = adopt(pair.ours.release());
  g_object_set(endpoint.get(), "socket", "/nowhere", nullptr);
  endpoint.reset();
  EXPECT_TRUE(is_at_end(pair.theirs.get()));
}

// --- reading ----------------------------------------------------------------------------------------------------

struct SocketRead : testing::Test {
  Pair pair;
  Object<PTZSocket> endpoint = adopt(pair.ours.get());
  SyslogCapture log;
  std::array<char, 64> buffer{};

  gssize read(gsize length, gint timeout_ms) {
    return read_from(endpoint, pair.ours.get(), buffer.data(), length, timeout_ms);
  }
  [[nodiscard]] std::string got(gssize count) const { return {buffer.data(), static_cast<std::size_t>(count)}; }
};

TEST_F(SocketRead, FromAnUnopenedEndpointReturnsZeroAndWarns) {
  const TempDir dir;
  const auto client = open_client(dir.file("s"));
  const std::string line = "socket_read: not opened " + dir.file("s");
  EXPECT_EQ(read_from(client, client->fd, buffer.data(), 4, 0), 0);
  EXPECT_EQ(read_from(client, client->fd, buffer.data(), 4, 1000), 0);
  EXPECT_EQ(read_from(client, client->fd, buffer.data(), 4, -1), 0);
  EXPECT_EQ(read_from(client, -7, buffer.data(), 0, 0), 0);
  EXPECT_EQ(log.lines(), std::vector<LogLine>(4, {LOG_WARNING, line}));
}

TEST_F(SocketRead, FromAnUnopenedEndpointWithoutAPathReturnsZeroAndWarns) {
  EXPECT_EQ(read_from(endpoint, -1, buffer.data(), 4, 0), 0);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].priority, LOG_WARNING);
  EXPECT_EQ(log.lines()[0].text.rfind("socket_read: not opened ", 0), 0U);
}

TEST_F(SocketRead, UsesTheGivenDescriptor) {
  const Pair other;
  send_all(other.theirs.get(), "abcd");
  EXPECT_EQ(read_from(endpoint, other.ours.get(), buffer.data(), 4, 0), 4);
  EXPECT_EQ(got(4), "abcd");
}

TEST_F(SocketRead, OfNothingReturnsZeroWithoutLooking) {
  send_all(pair.theirs.get(), "abcd");
  const CallLog calls;
  EXPECT_EQ(read(0, 0), 0);
  EXPECT_EQ(read(0, 1000), 0);
  EXPECT_EQ(read(0, -1), 0);
  EXPECT_TRUE(calls.attempts().empty());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SocketRead, WithANegativeTimeoutReturnsZeroWithoutLooking) {
  send_all(pair.theirs.get(), "abcd");
  const CallLog calls;
  EXPECT_EQ(read(4, -1), 0);
  EXPECT_EQ(read(4, -1000), 0);
  EXPECT_TRUE(calls.attempts().empty());
}

TEST_F(SocketRead, WithTimeLeftReturnsWhatIsThere) {
  send_all(pair.theirs.get(), "abcdef");
  const CallLog calls;
  EXPECT_EQ(read(4, 1000), 4);
  EXPECT_EQ(got(4), "abcd");
  EXPECT_EQ(sequence(calls), (std::vector{Call::poll, Call::read}));
  EXPECT_EQ(calls.attempts(Call::poll)[0].argument, 1000);
  EXPECT_EQ(read(2, 1), 2);
  EXPECT_EQ(got(2), "ef");
}

TEST_F(SocketRead, WithTimeLeftPutsThePiecesTogether) {
  const std::vector<std::string> pieces = {"a", "bcd", "e", "f"};
  std::size_t next = 0;
  const Interposer sender([&](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call == Call::poll && attempt.fd == pair.ours.get()) send_all(pair.theirs.get(), pieces.at(next++));
    return std::nullopt;
  });
  const CallLog calls;
  EXPECT_EQ(read(6, 1000), 6);
  EXPECT_EQ(got(6), "abcdef");
  std::vector<std::int64_t> asked;
  for (const auto &attempt : calls.attempts(Call::read)) asked.push_back(attempt.argument);
  EXPECT_EQ(asked, (std::vector<std::int64_t>{6, 5, 2, 1}));
}

TEST_F(SocketRead, ReturnsThePartThatCameInTime) {
  send_all(pair.theirs.get(), "ab");
  int polls = 0;
  const Interposer slow([&](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call != Call::poll || ++polls == 1) return std::nullopt;
    advance_clock(1'000);
    return Outcome{0};
  });
  EXPECT_EQ(read(6, 1000), 2);
  EXPECT_EQ(got(2), "ab");
  EXPECT_EQ(polls, 2);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SocketRead, WaitsNoLongerThanTheTimeThatIsLeft) {
  std::vector<std::int64_t> waits;
  const Interposer slow([&](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call != Call::poll) return std::nullopt;
    waits.push_back(attempt.argument);
    advance_clock(4'000);
    return Outcome{0};
  });
  EXPECT_EQ(read(6, 10'000), 0);
  ASSERT_EQ(waits.size(), 3U);
  EXPECT_EQ(waits[0], 10'000);
  EXPECT_NEAR(static_cast<double>(waits[1]), 5'800, 201);
  EXPECT_NEAR(static_cast<double>(waits[2]), 1'800, 201);
}

TEST_F(SocketRead, ReallyWaits) {
  const auto start = real_time_ms();
  EXPECT_EQ(read(4, 30), 0);
  EXPECT_GE(real_time_ms() - start, 29);
}

TEST_F(SocketRead, ASignalDoesNotEndTheWait) {
  send_all(pair.theirs.get(), "abcd");
  const Fault interrupted(Call::poll, EINTR, {.fd = pair.ours.get(), .times = 3});
  EXPECT_EQ(read(4, 5'000), 4);
  EXPECT_EQ(interrupted.hits(), 3);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SocketRead, SignalsDoNotProlongTheWait) {
  send_all(pair.theirs.get(), "abcd");
  const Interposer interrupted([](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call != Call::poll) return std::nullopt;
    advance_clock(400);
    return Outcome{-1, EINTR};
  });
  EXPECT_EQ(read(4, 1'000), 0);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SocketRead, AFailedPollIsAnError) {
  send_all(pair.theirs.get(), "abcd");
  const Fault fault(Call::poll, ENOMEM, {.fd = pair.ours.get()});
  EXPECT_EQ(read(4, 1'000), -1);
  EXPECT_EQ(fault.hits(), 1);
  EXPECT_EQ(log.lines(),
            (std::vector<LogLine>{{LOG_ERR, "socket_read: poll returned with error: 'Cannot allocate memory'"}}));
}

TEST_F(SocketRead, AnyFailedReadAfterAPollIsAnError) {
  send_all(pair.theirs.get(), "abcd");
  for (const int error : {EIO, ECONNRESET, EAGAIN}) {
    log = SyslogCapture();
    const Fault fault(Call::read, error, {.fd = pair.ours.get()});
    EXPECT_EQ(read(4, 1'000), -1);
    EXPECT_EQ(fault.hits(), 1);
    EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_ERR, std::string("socket_read: read from port failed: '") +
                                                               strerror(error) + "'"}}));
  }
}

TEST_F(SocketRead, AFailedReadDropsThePartThatCame) {
  send_all(pair.theirs.get(), "ab");
  const Interposer more([&](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call == Call::poll) send_all(pair.theirs.get(), "cd");
    return std::nullopt;
  });
  const Fault reset(Call::read, ECONNRESET, {.fd = pair.ours.get(), .skip = 1});
  EXPECT_EQ(read(6, 1'000), -1);
}

TEST_F(SocketRead, AnEndOfFileCountsAsNothingAndCostsNoCpu) {
  send_all(pair.theirs.get(), "ab");
  pair.theirs.reset();
  const CallLog calls;
  const auto start = real_time_ms();
  EXPECT_EQ(read(6, 50), 2);
  EXPECT_GE(real_time_ms() - start, 49);
  EXPECT_LE(calls.count(Call::read), 60U);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SocketRead, WithoutTimeoutReturnsAsSoonAsItIsComplete) {
  send_all(pair.theirs.get(), "abcdef");
  const CallLog calls;
  EXPECT_EQ(read(4, 0), 4);
  EXPECT_EQ(got(4), "abcd");
  EXPECT_EQ(sequence(calls), (std::vector{Call::read}));
}

TEST_F(SocketRead, WithoutTimeoutMakesFiveAttempts) {
  for (const int error : {EAGAIN, EINTR}) {
    const Fault nothing(Call::read, error, {.fd = pair.ours.get()});
    const auto start = real_time_ms();
    EXPECT_EQ(read(4, 0), 0);
    EXPECT_GE(real_time_ms() - start, 4);
    EXPECT_EQ(nothing.hits(), 5);
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SocketRead, WithoutTimeoutOnAnEmptySocketReturnsZero) {
  const CallLog calls;
  EXPECT_EQ(read(4, 0), 0);
  EXPECT_EQ(calls.count(Call::read), 5U);
  EXPECT_EQ(calls.count(Call::poll), 0U);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SocketRead, WithoutTimeoutAsksForTheRestAndReturnsThePart) {
  send_all(pair.theirs.get(), "abcdefghij");
  std::vector<std::int64_t> asked;
  const Interposer bytewise([&](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call != Call::read) return std::nullopt;
    asked.push_back(std::exchange(attempt.argument, 1));
    return std::nullopt;
  });
  EXPECT_EQ(read(10, 0), 5);
  EXPECT_EQ(got(5), "abcde");
  EXPECT_EQ(asked, (std::vector<std::int64_t>{10, 9, 8, 7, 6}));
}

TEST_F(SocketRead, WithoutTimeoutAnErrorIsReturnedSilently) {
  send_all(pair.theirs.get(), "abcd");
  const Fault reset(Call::read, ECONNRESET, {.fd = pair.ours.get(), .skip = 1});
  const Interposer bytewise([](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call == Call::read) attempt.argument = 1;
    return std::nullopt;
  });
  EXPECT_EQ(read(4, 0), -1);
  EXPECT_EQ(reset.hits(), 1);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SocketRead, WithoutTimeoutAnEndOfFileIsNothingFiveTimes) {
  pair.theirs.reset();
  const CallLog calls;
  EXPECT_EQ(read(4, 0), 0);
  EXPECT_EQ(calls.count(Call::read), 5U);
}

TEST_F(SocketRead, WorksOnDescriptorsAbove1023) {
  const auto high = move_up(std::move(pair.ours), 1'500);
  if (!high) GTEST_SKIP() << "this system allows too few descriptors";
  send_all(pair.theirs.get(), "abcd");
  EXPECT_EQ(read_from(endpoint, high.get(), buffer.data(), 4, 1'000), 4);
  EXPECT_EQ(write_to(endpoint, high.get(), "efgh", 1'000), 4);
  EXPECT_EQ(receive(pair.theirs.get(), 4), "efgh");
}

// --- writing ----------------------------------------------------------------------------------------------------

struct SocketWrite : testing::Test {
  TempDir dir;
  std::string path = dir.file("s");
  Listener listener{path};
  Object<PTZSocket> endpoint = open_client(path);
  Descriptor peer = listener.accept();
  SyslogCapture log;

  gssize write(std::string_view text, gint timeout_ms) { return write_to(endpoint, endpoint->fd, text, timeout_ms); }
};

TEST_F(SocketWrite, ToAnUnopenedEndpointReturnsZeroAndWarns) {
  for (const gint timeout_ms : {0, 1'000, -1}) EXPECT_EQ(write_to(endpoint, -1, "abcd", timeout_ms), 0);
  EXPECT_EQ(write_to(endpoint, -1, "", 1'000), 0);
  EXPECT_EQ(log.lines(), std::vector<LogLine>(4, {LOG_WARNING, "socket_write: not opened " + path}));
}

TEST_F(SocketWrite, WithoutTimeoutMakesOneAttempt) {
  const CallLog calls;
  EXPECT_EQ(write("abcd", 0), 4);
  EXPECT_EQ(sequence(calls), (std::vector{Call::write}));
  EXPECT_EQ(receive(peer.get(), 4), "abcd");
}

TEST_F(SocketWrite, WithoutTimeoutReturnsThePartThatFitted) {
  const Interposer shorter([](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call == Call::write) attempt.argument = 2;
    return std::nullopt;
  });
  EXPECT_EQ(write("abcd", 0), 2);
  EXPECT_EQ(receive_waiting(peer.get()), "ab");
}

TEST_F(SocketWrite, WithoutTimeoutAnyFailureIsMinusOneAndSilent) {
  for (const int error : {EAGAIN, EINTR, EIO, EPIPE}) {
    const Fault fault(Call::write, error, {.fd = endpoint->fd});
    EXPECT_EQ(write("abcd", 0), -1);
    EXPECT_EQ(fault.hits(), 1);
  }
  EXPECT_EQ(write("", 0), -1);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SocketWrite, OfNothingOrWithANegativeTimeoutIsMinusOneWithoutATry) {
  const CallLog calls;
  EXPECT_EQ(write("", 1'000), -1);
  EXPECT_EQ(write("abcd", -1), -1);
  EXPECT_EQ(write("", -1), -1);
  EXPECT_TRUE(calls.attempts().empty());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SocketWrite, WithTimeLeftSendsInOneGoWhereItFits) {
  const CallLog calls;
  EXPECT_EQ(write("abcd", 1'000), 4);
  EXPECT_EQ(sequence(calls), (std::vector{Call::poll, Call::write}));
  EXPECT_EQ(calls.attempts(Call::poll)[0].argument, 1'000);
  EXPECT_EQ(receive(peer.get(), 4), "abcd");
}

TEST_F(SocketWrite, WithTimeLeftSendsTheRestAsThePeerReads) {
  std::string text(1 << 20, '\0');
  for (std::size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('a' + i % 23);
  std::string received;
  const Interposer reader([&](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call == Call::poll && attempt.fd == endpoint->fd) received += receive_waiting(peer.get());
    return std::nullopt;
  });
  EXPECT_EQ(write(text, 10'000), static_cast<gssize>(text.size()));
  received += receive_waiting(peer.get());
  EXPECT_EQ(received, text);
}

TEST_F(SocketWrite, ReturnsThePartThatWasTakenInTime) {
  const std::string text(1 << 22, 'x');
  const Interposer slow([&](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call == Call::poll) advance_clock(400);
    attempt.argument = attempt.call == Call::poll ? 0 : attempt.argument;
    return std::nullopt;
  });
  const gssize sent = write(text, 1'000);
  EXPECT_GT(sent, 0);
  EXPECT_LT(sent, static_cast<gssize>(text.size()));
  EXPECT_EQ(write(text, 1'000), -1);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(receive_waiting(peer.get()).size(), static_cast<std::size_t>(sent));
}

TEST_F(SocketWrite, WaitsNoLongerThanTheTimeThatIsLeft) {
  fill(endpoint->fd);
  std::vector<std::int64_t> waits;
  const Interposer slow([&](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call != Call::poll) return std::nullopt;
    waits.push_back(attempt.argument);
    advance_clock(4'000);
    return Outcome{0};
  });
  EXPECT_EQ(write("abcd", 10'000), -1);
  ASSERT_EQ(waits.size(), 3U);
  EXPECT_EQ(waits[0], 10'000);
  EXPECT_NEAR(static_cast<double>(waits[1]), 5'800, 201);
  EXPECT_NEAR(static_cast<double>(waits[2]), 1'800, 201);
}

TEST_F(SocketWrite, APeerThatNeverReadsCostsAtMostTheTimeout) {
  fill(endpoint->fd);
  const auto start = real_time_ms();
  EXPECT_EQ(write("abcd", 30), -1);
  const auto waited = real_time_ms() - start;
  EXPECT_GE(waited, 29);
  EXPECT_LT(waited, 1'000);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SocketWrite, AFailedPollIsLoggedAndTheTimeGoesOn) {
  const Fault fault(Call::poll, ENOMEM, {.fd = endpoint->fd, .times = 1});
  EXPECT_EQ(write("abcd", 10'000), 4);
  EXPECT_EQ(fault.hits(), 1);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_ERR, "socket_write: poll failed: 'Cannot allocate memory'"}}));
}

TEST_F(SocketWrite, AFailedPollEndsWithTheTime) {
  const Interposer failing([](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call != Call::poll) return std::nullopt;
    advance_clock(1'000);
    return Outcome{-1, EINVAL};
  });
  EXPECT_EQ(write("abcd", 1'000), -1);
  EXPECT_EQ(log.count(LOG_ERR, "socket_write: poll failed: 'Invalid argument'"), 1U);
}

TEST_F(SocketWrite, ASignalDoesNotEndTheWait) {
  const Fault interrupted(Call::poll, EINTR, {.fd = endpoint->fd, .times = 2});
  EXPECT_EQ(write("abcd", 10'000), 4);
  EXPECT_EQ(interrupted.hits(), 2);
}

TEST_F(SocketWrite, WritesOnlyWhereThePollSaysSo) {
  int polls = 0;
  const Interposer vague([&](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call != Call::poll || ++polls > 1) return std::nullopt;
    return Outcome{1};  // ready, and no event
  });
  const CallLog calls;
  EXPECT_EQ(write("abcd", 10'000), 4);
  EXPECT_EQ(sequence(calls), (std::vector{Call::poll, Call::poll, Call::write}));
}

TEST_F(SocketWrite, TriesAgainSilentlyWhereThePeerIsFull) {
  const Fault full(Call::write, EAGAIN, {.fd = endpoint->fd, .times = 2});
  EXPECT_EQ(write("abcd", 10'000), 4);
  EXPECT_EQ(full.hits(), 2);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SocketWrite, LogsOtherErrorsAndTriesAgain) {
  const Fault fault(Call::write, EIO, {.fd = endpoint->fd, .times = 2});
  EXPECT_EQ(write("abcd", 10'000), 4);
  EXPECT_EQ(log.lines(),
            std::vector<LogLine>(2, {LOG_ERR, "socket_write: send failed on: " + path + ", 'Input/output error'"}));
}

TEST_F(SocketWrite, APeerThatHasGoneEndsItAtOnceSilently) {
  for (const int error : {EPIPE, ECONNREFUSED}) {
    const CallLog calls;
    const Fault gone(Call::write, error, {.fd = endpoint->fd});
    EXPECT_EQ(write("abcd", 10'000), -1);
    EXPECT_EQ(calls.count(Call::poll), 1U);
    EXPECT_EQ(gone.hits(), 1);
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SocketWrite, APeerThatCloses) {
  peer.reset();
  const CallLog calls;
  EXPECT_EQ(write("abcd", 10'000), -1);
  EXPECT_EQ(calls.count(Call::write), 1U);
  EXPECT_EQ(write("abcd", 0), -1);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SocketWrite, APeerThatClosesWhileItWaitsEndsItSilently) {
  fill(endpoint->fd);
  const Interposer closer([&](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call == Call::poll) peer.reset();
    return std::nullopt;
  });
  const auto start = real_time_ms();
  EXPECT_EQ(write("abcd", 10'000), -1);
  EXPECT_LT(real_time_ms() - start, 1'000);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SocketWrite, APeerThatClosesHalfwayLeavesTheCountSoFar) {
  const std::string text(1 << 22, 'x');
  int polls = 0;
  const Interposer closer([&](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call == Call::poll && ++polls == 2) peer.reset();
    return std::nullopt;
  });
  const gssize sent = write(text, 10'000);
  EXPECT_GT(sent, 0);
  EXPECT_LT(sent, static_cast<gssize>(text.size()));
  EXPECT_TRUE(log.lines().empty());
}

TEST(SocketWriteDatagram, ToAReceiverThatHasGoneFailsSilently) {
  const TempDir dir;
  Listener receiver(dir.file("s"), SOCK_DGRAM);
  const auto sender = open_client(dir.file("s"), SOCK_DGRAM);
  ASSERT_GE(sender->fd, 0);
  const SyslogCapture log;
  EXPECT_EQ(write_to(sender, sender->fd, "abcd", 1'000), 4);
  EXPECT_EQ(receive_waiting(receiver.fd()), "abcd");
  receiver.close();
  EXPECT_EQ(write_to(sender, sender->fd, "abcd", 10'000), -1);
  EXPECT_TRUE(log.lines().empty());
}

// --- SIGPIPE ----------------------------------------------------------------------------------------------------

using Disposition = void (*)(int);

Disposition disposition_after_first_use(Disposition before) {
  signal(SIGPIPE, before);
  g_type_class_unref(g_type_class_ref(PTZ_TYPE_SOCKET));
  struct sigaction now {};
  sigaction(SIGPIPE, nullptr, &now);
  return now.sa_handler;
}

void quietly(int) {}

// Each in a process of its own, in which nobody has used the class yet.
struct SocketSigpipeDeathTest : testing::Test {
  SocketSigpipeDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(SocketSigpipeDeathTest, IsIgnoredWhereItWouldEndTheProcess) {
  EXPECT_EXIT(_exit(disposition_after_first_use(SIG_DFL) == SIG_IGN ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST_F(SocketSigpipeDeathTest, IsLeftToAProgramThatHandlesIt) {
  EXPECT_EXIT(_exit(disposition_after_first_use(quietly) == quietly ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST_F(SocketSigpipeDeathTest, StaysIgnored) {
  EXPECT_EXIT(_exit(disposition_after_first_use(SIG_IGN) == SIG_IGN ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST_F(SocketSigpipeDeathTest, DoesNotEndAProgramThatWritesToAPeerThatHasGone) {
  EXPECT_EXIT(
      {
        signal(SIGPIPE, SIG_DFL);
        Pair pair;
        pair.theirs.reset();
        const auto endpoint = adopt(pair.ours.get());
        const bool failed =
            write_to(endpoint, endpoint->fd, "abcd", 0) == -1 && write_to(endpoint, endpoint->fd, "abcd", 1'000) == -1;
        _exit(failed ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

// --- subclasses -------------------------------------------------------------------------------------------------

int retries_added = 0;

guint count_retry(PTZSocket *) {
  ++retries_added;
  return 4711;
}

gssize read_seven(PTZSocket *, gint, gpointer, gsize, gint) { return 7; }
gssize write_eight(PTZSocket *, gint, gconstpointer, gsize, gint) { return 8; }

GType counting_type() {
  static const GType type = subclass(PTZ_TYPE_SOCKET, "TestCountingSocket", [](gpointer klass, gpointer) {
    PTZ_SOCKET_CLASS(klass)->read = read_seven;
    PTZ_SOCKET_CLASS(klass)->write = write_eight;
    PTZ_SOCKET_CLASS(klass)->add_retry = count_retry;
  });
  return type;
}

TEST(SocketSubclass, InheritsTheOperationsThatItDoesNotOverride) {
  static const GType type = subclass(PTZ_TYPE_SOCKET, "TestPlainSocket", nullptr);
  const Object<GObject> made(static_cast<GObject *>(g_object_new(type, nullptr)));
  const Object<PTZSocket> base(static_cast<PTZSocket *>(g_object_new(PTZ_TYPE_SOCKET, nullptr)));
  const auto *const operations = PTZ_SOCKET_GET_CLASS(made.get());
  EXPECT_EQ(operations->read, PTZ_SOCKET_GET_CLASS(base.get())->read);
  EXPECT_EQ(operations->write, PTZ_SOCKET_GET_CLASS(base.get())->write);
  EXPECT_EQ(operations->add_retry, PTZ_SOCKET_GET_CLASS(base.get())->add_retry);
}

TEST(SocketSubclass, RetriesThroughItsOwnOperation) {
  const TempDir dir;
  retries_added = 0;
  const Object<PTZSocket> client(
      ptz_socket_new(counting_type(), PTZ_SOCKET_MODE_CLIENT, dir.file("s").c_str(), SOCK_STREAM));
  EXPECT_EQ(G_OBJECT_TYPE(client.get()), counting_type());
  EXPECT_EQ(retries_added, 1);
  EXPECT_EQ(client->fd, -1);
  EXPECT_EQ(client->retry_source, 0U);
}

TEST(SocketSubclass, DoesNotRetryWhereItConnected) {
  const TempDir dir;
  const Listener listener(dir.file("s"));
  retries_added = 0;
  const Object<PTZSocket> client(
      ptz_socket_new(counting_type(), PTZ_SOCKET_MODE_CLIENT, dir.file("s").c_str(), SOCK_STREAM));
  EXPECT_GE(client->fd, 0);
  EXPECT_EQ(retries_added, 0);
}

TEST(SocketSubclass, AFailedServerDoesNotRetry) {
  const TempDir dir;
  retries_added = 0;
  const Fault fault(Call::socket, EMFILE);
  const Object<PTZSocket> server(
      ptz_socket_new(counting_type(), PTZ_SOCKET_MODE_SERVER, dir.file("s").c_str(), SOCK_STREAM));
  EXPECT_EQ(retries_added, 0);
}

TEST(SocketSubclass, CanBeMadeOnADescriptor) {
  const Pair pair;
  const Object<PTZSocket> endpoint(
      ptz_socket_fd_new(counting_type(), PTZ_SOCKET_MODE_CLIENT, pair.ours.get(), SOCK_STREAM));
  EXPECT_EQ(G_OBJECT_TYPE(endpoint.get()), counting_type());
  EXPECT_EQ(read_from(endpoint, endpoint->fd, nullptr, 0, 0), 7);
  EXPECT_EQ(write_to(endpoint, endpoint->fd, "", 0), 8);
}

}  // namespace
