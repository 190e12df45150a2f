// ptzctl record - writes the frames of a driver to a file.
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>

#include "commands.h"
#include "recorder.h"

namespace ptzctl {

namespace {

constexpr Manual manual = {
    "FILE",
    "Writes every frame between a driver and its clients to a file (pcapng), until SIGINT or SIGTERM. FILE - is\n"
    "standard output, for \"ptzctl record - | tshark -i -\". A file that exists is not replaced without --force.\n"
    "\n"
    "A recording has everything that passes, passwords in parameters included. The file is readable for its owner\n"
    "only (mode 0600). Give it only to readers that may know all of that.\n"
    "\n"
    "Each frame is written at once: what a recorder that was killed has left can be read. If the disk is full, the\n"
    "recording ends with the frames that it has. If the driver ends, the recorder waits for its next start.\n"
    "\n"
    "The driver does not wait for a recorder that is too slow: frames are lost then. The recording marks the places,\n"
    "and the number is printed at the end.\n"
    "\n"
    "Exit status:\n"
    "  0  it was recorded\n"
    "  1  the file could not be written\n"
    "  2  wrong usage\n"
    "  3  no driver with a monitor socket, or it does not answer",
    " bad-day.pcapng --seconds 60"};

struct Switches {
  gboolean with_past = FALSE, is_forced = FALSE;
  gint seconds = 0, count = 0, client = 0;
};

std::vector<GOptionEntry> entries_for(Switches &switches) {
  return {
      {"seconds", 0, 0, G_OPTION_ARG_INT, &switches.seconds, "End after this time", "N"},
      {"count", 'n', 0, G_OPTION_ARG_INT, &switches.count, "End after this many frames", "N"},
      {"with-past", 'p', 0, G_OPTION_ARG_NONE, &switches.with_past, "Begin with the frames that the driver has kept",
       nullptr},
      {"client", 'c', 0, G_OPTION_ARG_INT, &switches.client, "Only the frames of this client", "NUMBER"},
      {"force", 0, 0, G_OPTION_ARG_NONE, &switches.is_forced, "Replace a file that exists", nullptr},
  };
}

void print_summary(const Options &options, const std::string &file, const Recorder &recorder) {
  if (options.as_json()) {
    const JsonLine json;
    json.member("file", file);
    json.member("frames", static_cast<gint64>(recorder.written()));
    json.member("lost", static_cast<gint64>(recorder.lost()));
    json.print();
  } else {
    g_printerr("%s: %" G_GUINT64_FORMAT " frames, %" G_GUINT64_FORMAT " lost\n",
               file == "-" ? "standard output" : file.c_str(), recorder.written(), recorder.lost());
  }
}

std::optional<RecordingWriter> writer_for(const std::string &file, bool is_forced) {
  if (file == "-") return RecordingWriter(STDOUT_FILENO);
  auto writer = RecordingWriter::create(file.c_str(), is_forced);
  if (!writer) {
    complain("cannot write %s: %s%s", file.c_str(), g_strerror(errno), errno == EEXIST ? "; --force replaces it" : "");
  }
  return writer;
}

bool are_sensible(const Options &options, const Switches &switches) {
  return options.is_within("--seconds", switches.seconds, 0, G_MAXINT / 1000) &&
         options.is_within("--count", switches.count, 0, G_MAXINT) &&
         options.is_within("--client", switches.client, 0, G_MAXINT);
}

RecorderSettings settings_from(const Options &options, const Switches &switches, const std::string &path) {
  const char *const driver = options.driver_name();
  RecorderSettings settings = {{path, driver != nullptr ? driver : "", options.timeout_ms()},
                               static_cast<guint>(switches.seconds),
                               static_cast<guint64>(switches.count),
                               std::nullopt,
                               switches.with_past != FALSE};
  if (switches.client != 0) settings.client = static_cast<guint32>(switches.client);
  return settings;
}

int record_into(RecordingWriter &writer, RecordingOrigin origin, Recorder &recorder, const Options &options,
                const std::string &file) {
  std::string problem;
  origin.tool = "ptzctl " TOOLS_VERSION;
  writer.begin(origin);
  if (!recorder.record(writer, problem)) {
    complain("%s", problem.c_str());
    return exit_nobody;
  }
  // The program that reads standard output may stop when it has enough.
  const bool is_reader_gone = file == "-" && writer.error() == EPIPE;
  if (writer.error() != 0 && !is_reader_gone) {
    complain("the recording ends here: cannot write %s: %s", file.c_str(), g_strerror(writer.error()));
  }
  print_summary(options, file, recorder);
  return writer.error() == 0 || is_reader_gone ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int run_record(const std::string &words, int argc, char **argv) {
  Switches switches;
  Options options(words, manual, Asks::driver, entries_for(switches));
  const auto given = options.parse(argc, argv);
  if (!given || !are_sensible(options, switches)) return exit_usage;
  const std::string &file = given->front();
  if (file == "-" && options.as_json()) return options.misused("--json and the recording cannot share standard output");
  int status = exit_nobody;
  const auto path = options.socket(status);
  if (!path) return status;
  std::signal(SIGPIPE, SIG_IGN);
  Recorder recorder(settings_from(options, switches, *path));
  std::string problem;
  auto origin = recorder.connect(problem);
  if (!origin) {
    complain("%s", problem.c_str());
    return exit_nobody;
  }
  auto writer = writer_for(file, switches.is_forced != FALSE);
  if (!writer) return EXIT_FAILURE;
  return record_into(*writer, std::move(*origin), recorder, options, file);
}

}  // namespace ptzctl
