/* kit-daemon - a daemon with several drivers. It pans each of them to 100 degrees whenever the driver is ready. */
#include <ptz_kit.h>

static void
tell (gpointer link, const gchar *text)
{
  g_print ("%s: %s\n", ptz_kit_link_get_socket_path (link), text);
}

static void on_position (GObject *link, GAsyncResult *result, gpointer user_data);
static void
ask_position (gpointer link)
{
  ptz_kit_link_query_position_async (link, 1000, NULL, on_position, NULL);
}

static void
on_position (GObject *link, GAsyncResult *result, gpointer user_data G_GNUC_UNUSED)
{
  g_autoptr (GError) error = NULL;
  g_autoptr (PTZKitQueryPositionReply) reply = ptz_kit_link_query_position_finish (PTZ_KIT_LINK (link), result, &error);
  g_autofree gchar *place = reply != NULL ? g_strdup_printf ("pan %.2f degrees", reply->position[0] / 100.0) : NULL;

  if (reply != NULL && reply->status[PTZ_KIT_AXIS_PAN] == PTZ_MOVE_STATUS_MOVING)
    g_timeout_add_once (100, ask_position, link);
  else
    tell (link, reply != NULL ? place : error->message);
}

static void
on_moved (GObject *link, GAsyncResult *result, gpointer user_data G_GNUC_UNUSED)
{
  g_autoptr (GError) error = NULL;

  tell (link, ptz_kit_link_move_finish (PTZ_KIT_LINK (link), result, &error) ? "the head moves" : error->message);
  ask_position (link);
}

static void
on_state (PTZKitLink *link)
{
  static const gchar *states[] = { "disconnected", "connecting", "ready", "failed" };
  static const gint32 place[PTZ_KIT_N_AXES] = { 10000 };
  g_autoptr (PTZKitMoveRequest) move = ptz_kit_move_request_new (PTZ_MOVE_ABSOLUTE, 1 << PTZ_KIT_AXIS_PAN, 100, place);

  tell (link, states[ptz_kit_link_get_state (link)]);
  if (ptz_kit_link_get_state (link) == PTZ_KIT_LINK_STATE_READY)
    ptz_kit_link_move_async (link, move, 1000, NULL, on_moved, NULL);
}

int
main (int argc, char **argv)
{
  for (int index = 1; index < argc; ++index) {
    PTZKitLink *link = ptz_kit_link_new (argv[index]);
    g_signal_connect (link, "notify::state", G_CALLBACK (on_state), NULL);
    ptz_kit_link_open (link);
  }
  g_main_loop_run (g_main_loop_new (NULL, FALSE));
}
