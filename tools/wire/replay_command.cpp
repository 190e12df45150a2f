// ptzctl replay - sends recorded requests again, or plays the driver's part of a recording.
#include <sys/un.h>

#include <algorithm>
#include <cstdio>

#include "commands.h"
#include "played_driver.h"
#include "replay.h"

namespace ptzctl {

namespace {

constexpr Manual manual = {
    "FILE",
    "Sends the requests of a recording (ptzctl record) to a driver, and compares the replies with the recorded ones,\n"
    "field by field. FILE - is standard input. Each recorded client gets a connection of its own. The requests keep\n"
    "their order and their times; with --fast, each is sent as soon as the replies before it have come.\n"
    "\n"
    "Each difference is a line: \"frame 12, Query position: position.pan 1000 became 1200\". Replies that cannot be\n"
    "decoded are compared byte by byte. --ignore takes a field of a reply (position, position.pan,\n"
    "query_position.position, presets.name), a command (query_speed), or body, for bytes that cannot be decoded;\n"
    "status.position, status.motion and status.speed are what the head reports of its motion.\n"
    "\n"
    "A head is never twice in the same place while it moves. If the recorded head moved, the position, motion and\n"
    "current speed of that axis are not compared. If it was at rest, the request is repeated until the head is at\n"
    "rest, too. --exact compares everything, once.\n"
    "\n"
    "A request without a recorded reply must stay without a reply, for as long as the recording shows (if that is at\n"
    "least a second), or for --timeout. Requests are sent as recorded, malformed ones included.\n"
    "\n"
    "With --as-driver, it listens at --socket and answers a daemon as the driver in the recording did, with the\n"
    "recorded latency unless --fast. A request that is not in the recording gets an error reply with code 2 and is\n"
    "told. It ends on SIGINT or SIGTERM, or when everything was answered and the last connection has ended.\n"
    "\n"
    "Exit status:\n"
    "  0  no difference\n"
    "  1  differences, or requests that were not in the recording\n"
    "  2  wrong usage\n"
    "  3  no driver, or it answered nothing",
    " bad-day.pcapng --fast --ignore status.position"};

struct Switches {
  gboolean is_fast = FALSE, is_exact = FALSE, as_driver = FALSE;
  gint client = 0, tolerance = 0;
  char *match = nullptr;
  char **ignored = nullptr;
  Switches() = default;
  Switches(const Switches &) = delete;
  ~Switches() {
    g_free(match);
    g_strfreev(ignored);
  }
};

std::string counted(std::size_t number, const char *one, const char *several) {
  return std::to_string(number) + ' ' + (number == 1 ? one : several);
}

std::vector<GOptionEntry> entries_for(Switches &switches) {
  return {
      {"fast", 'f', 0, G_OPTION_ARG_NONE, &switches.is_fast, "Wait for replies only, not for the recorded times",
       nullptr},
      {"ignore", 'i', 0, G_OPTION_ARG_STRING_ARRAY, &switches.ignored, "Do not compare this field; may be repeated",
       "FIELD"},
      {"tolerance", 0, 0, G_OPTION_ARG_INT, &switches.tolerance,
       "Let positions and speeds differ by this many hundredths", "N"},
      {"exact", 0, 0, G_OPTION_ARG_NONE, &switches.is_exact, "Compare what a moving head reports, too", nullptr},
      {"client", 'c', 0, G_OPTION_ARG_INT, &switches.client, "Only the requests of this client", "NUMBER"},
      {"as-driver", 0, 0, G_OPTION_ARG_NONE, &switches.as_driver, "Listen at --socket and play the driver", nullptr},
      {"match", 0, 0, G_OPTION_ARG_STRING, &switches.match,
       "With --as-driver: answer by the equal request (request, the default) or by the order of requests (order)",
       "HOW"},
  };
}

// Numbers as numbers, texts without their quotes; a field that is absent is left out.
void add_value(const JsonLine &json, const char *name, const std::string &shown) {
  gint64 number = 0;
  if (shown == "absent") return;
  if (g_ascii_string_to_signed(shown.c_str(), 10, G_MININT64, G_MAXINT64, &number, nullptr)) {
    json.member(name, number);
  } else if (shown.size() >= 2 && shown.front() == '"') {
    json.member(name, shown.substr(1, shown.size() - 2));
  } else {
    json.member(name, shown);
  }
}

void print(const ReplayedDifference &each, const Options &options) {
  if (!options.as_json()) {
    const bool is_text = each.difference.field.empty() && each.difference.received.empty();
    const std::string text = is_text ? each.difference.recorded : each.difference.text();
    std::printf("frame %u, %s: %s\n", each.frame->number, each.title.c_str(), text.c_str());
    return;
  }
  const JsonLine json;
  json.member("frame", gint64{each.frame->number});
  json.member("client", gint64{each.frame->client});
  json.member("command", each.title);
  if (!each.difference.field.empty()) json.member("field", each.difference.field);
  if (each.difference.received.empty()) {
    json.member("problem", each.difference.recorded);
  } else {
    add_value(json, "recorded", each.difference.recorded);
    add_value(json, "received", each.difference.received);
  }
  json.print();
}

void print_summary(const Replay &replay, const Options &options) {
  const ReplayFigures &figures = replay.figures();
  const std::size_t differences = replay.differences().size();
  if (!options.as_json()) {
    std::printf("%s sent, %s compared, %s\n", counted(figures.requests, "request", "requests").c_str(),
                counted(figures.compared, "reply", "replies").c_str(),
                counted(differences, "difference", "differences").c_str());
    return;
  }
  const JsonLine json;
  json.member("requests", static_cast<gint64>(figures.requests));
  json.member("compared", static_cast<gint64>(figures.compared));
  json.member("differences", static_cast<gint64>(differences));
  json.print();
}

// What the recording does not have.
void tell_of_gaps(const Recording &recording, const Conversation &conversation, const std::string &file) {
  if (!recording.warning.empty()) complain("warning: %s: %s", file.c_str(), recording.warning.c_str());
  if (conversation.lost() > 0)
    complain("warning: %s lacks %zu frames that were lost", file.c_str(), conversation.lost());
  if (conversation.replies_without_request() > 0) {
    complain("warning: %s has %zu replies without their requests, which are not compared", file.c_str(),
             conversation.replies_without_request());
  }
}

int replay_to_driver(const Options &options, const Switches &switches, const ReplyComparison &comparison,
                     const Conversation &conversation) {
  int status = exit_nobody;
  const auto path = options.socket(status);
  if (!path) return status;
  Replay replay(conversation, comparison, {*path, options.timeout_ms(), switches.is_fast != FALSE});
  const bool is_complete = replay.run();
  for (const ReplayedDifference &each : replay.differences()) print(each, options);
  if (!is_complete) complain("%s", replay.problem().c_str());
  if (replay.figures().requests > 0) print_summary(replay, options);
  const bool is_anything_expected =
      std::ranges::any_of(conversation.exchanges(), [](const Exchange &each) { return each.reply != nullptr; });
  if (replay.figures().replies == 0 && (!is_complete || is_anything_expected)) return exit_nobody;
  return is_complete && replay.differences().empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

int play_driver(const Options &options, const Switches &switches, const Conversation &conversation) {
  int status = exit_usage;
  const auto path = options.socket(status);
  if (!path) return status;
  PlayedDriver driver(conversation, {*path, g_strcmp0(switches.match, "order") == 0, switches.is_fast != FALSE});
  if (!driver.listen()) return EXIT_FAILURE;
  driver.run();
  if (options.as_json()) {
    const JsonLine json;
    json.member("requests", static_cast<gint64>(driver.requests()));
    json.member("unknown", static_cast<gint64>(driver.unknown()));
    json.member("differing", static_cast<gint64>(driver.differing()));
    json.member("unused", static_cast<gint64>(driver.unused()));
    json.print();
  } else {
    std::printf(
        "%zu requests, %zu not in the recording, %zu with other fields or another command, %zu recorded ones not "
        "asked\n",
        driver.requests(), driver.unknown(), driver.differing(), driver.unused());
  }
  return driver.unknown() + driver.differing() == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

// The exit status if the options do not fit each other.
std::optional<int> misuse_of(const Options &options, const Switches &switches) {
  if (!options.is_within("--client", switches.client, 0, G_MAXINT)) return exit_usage;
  if (!options.is_within("--tolerance", switches.tolerance, 0, G_MAXINT)) return exit_usage;
  if (switches.match != nullptr) {
    if (!switches.as_driver) return options.misused("--match goes with --as-driver");
    const bool is_known = g_str_equal(switches.match, "order") || g_str_equal(switches.match, "request");
    if (!is_known) return options.misused("--match '%s' is not order or request", switches.match);
  }
  const bool compares = switches.ignored != nullptr || switches.is_exact || switches.tolerance != 0;
  if (switches.as_driver && compares) {
    return options.misused("--as-driver compares no replies: it takes no --ignore, --exact and --tolerance");
  }
  if (switches.as_driver && options.socket_path() == nullptr) return options.misused("--as-driver needs a --socket");
  return std::nullopt;
}

bool ignore_fields(const Options &options, const Switches &switches, ReplyComparison &comparison) {
  for (char **each = switches.ignored; each != nullptr && *each != nullptr; ++each) {
    Words possible;
    if (comparison.ignore(*each, possible)) continue;
    options.misused("--ignore '%s' is no field of a reply%s", *each, did_you_mean(*each, possible).c_str());
    return false;
  }
  return true;
}

}  // namespace

int run_replay(const std::string &words, int argc, char **argv) {
  Switches switches;
  Options options(words, manual, Asks::driver, entries_for(switches));
  const auto given = options.parse(argc, argv);
  if (!given) return exit_usage;
  if (const auto status = misuse_of(options, switches)) return *status;
  const MessageDescription description;
  ReplyComparison comparison(description);
  if (!ignore_fields(options, switches, comparison)) return exit_usage;
  comparison.tolerate(switches.tolerance);
  if (switches.is_exact) comparison.be_exact();

  const std::string &file = given->front();
  std::string problem;
  const auto recording = read_recording(file.c_str(), problem);
  if (!recording) {
    complain("cannot read %s: %s", file.c_str(), problem.c_str());
    return EXIT_FAILURE;
  }
  const auto client = switches.client != 0 ? std::optional(static_cast<guint32>(switches.client)) : std::nullopt;
  const Conversation conversation(recording->frames, client);
  tell_of_gaps(*recording, conversation, file);
  if (conversation.exchanges().empty()) {
    complain("%s has no request%s", file.c_str(), client ? " of this client" : "");
    return EXIT_FAILURE;
  }
  return switches.as_driver ? play_driver(options, switches, conversation)
                            : replay_to_driver(options, switches, comparison, conversation);
}

}  // namespace ptzctl
