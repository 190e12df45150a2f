/* A program of somebody else, in what C and C++ share: it sees the library's installed copy and nothing more. */
#include <public_headers.h>
#include <stdlib.h>
#include <sys/socket.h>

/* A server of its own kind, which answers nobody. */
typedef struct {
  PTZSocketServer parent_instance;
  guint asked;
} SilentServer;

typedef struct {
  PTZSocketServerClass parent_class;
} SilentServerClass;

GType silent_server_get_type (void);
G_DEFINE_TYPE (SilentServer, silent_server, PTZ_TYPE_SOCKET_SERVER)

static gpointer
silent_server_get_reply_context (PTZSocketServer *server, PTZSocketServerClient *client)
{
  (void) client;
  ((SilentServer *) server)->asked++;
  return NULL;
}

static void
silent_server_class_init (SilentServerClass *klass)
{
  PTZ_SOCKET_SERVER_CLASS (klass)->get_reply_context = silent_server_get_reply_context;
}

static void
silent_server_init (SilentServer *self)
{
  self->asked = 0;
}

static void
expect (gboolean condition, const gchar *what)
{
  if (!condition)
    {
      g_printerr ("not so: %s\n", what);
      exit (1);
    }
}

static gboolean
never_called (gpointer user_data, gpointer reply_context, gpointer data, guint32 length)
{
  (void) user_data;
  (void) reply_context;
  (void) data;
  (void) length;
  expect (FALSE, "a message without a reply context reaches no callback");
  return FALSE;
}

int
main (void)
{
  GEnumClass *commands = (GEnumClass *) g_type_class_ref (PTZ_TYPE_COMMAND);
  GArray *body = ptz_serialize_create_array ();
  guint32 cursor = 0;
  int ends[2];
  PTZSocketServer *server;
  PTZSocketSignal *sender;

  expect (g_enum_get_value (commands, PTZ_COMMAND_MOVE) != NULL, "the vocabulary is registered");
  g_type_class_unref (commands);

  ptz_serialize_32bit (body, 7);
  expect (ptz_deserialize_32bit (body, &cursor) == 7, "what was written is read");
  g_array_free (body, TRUE);

  expect (socketpair (AF_UNIX, SOCK_STREAM, 0, ends) == 0, "there is a connection");
  server = ptz_socket_server_fd_new (silent_server_get_type (), ends[0], SOCK_STREAM);
  ptz_socket_server_register_callback (server, never_called, NULL);
  sender = (PTZSocketSignal *) ptz_socket_fd_new (PTZ_TYPE_SOCKET_SIGNAL, PTZ_SOCKET_MODE_CLIENT, ends[1], SOCK_STREAM);
  expect (PTZ_IS_SOCKET (server) && PTZ_IS_SOCKET_SIGNAL (sender), "both ends are of the types asked for");
  ptz_socket_signal_emit (sender, "here");
  while (((SilentServer *) server)->asked == 0) g_main_context_iteration (NULL, TRUE);
  g_object_unref (sender);
  g_object_unref (server);
  return 0;
}
