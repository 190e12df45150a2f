#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>

#include "commands.h"
#include "exchange_text.h"
#include "top_screen.h"

namespace ptzctl {

namespace {

volatile std::sig_atomic_t is_interrupted = 0;

void add_load(const JsonLine &json, const Load &load) {
  const auto add = [&json](const char *name, double value) {
    value < 0 ? json.member(name, json_node_new(JSON_NODE_NULL)) : json.member(name, value);
  };
  const auto add_count = [&json](const char *name, guint64 value) { json.member(name, static_cast<gint64>(value)); };
  add("requests_per_second", load.requests_per_s);
  add("bytes_per_second", load.bytes_per_s);
  add("p50_us", load.p50_us);
  add("p99_us", load.p99_us);
  add_count("requests", load.total.requests);
  add_count("errors", load.total.errors);
  add_count("bytes", load.total.bytes);
  add_count("pending", load.total.pending);
  add_count("unsent_replies", load.total.unsent);
  add_count("timeouts", load.total.timeouts);
}

void add_client(const JsonLine &json, const ClientSight &client) {
  json.begin_object();
  json.member("client", gint64{client.number});
  json.member("pid", gint64{client.pid});
  json.member("program", client.program);
  json.member("state", name_of(client.state));
  json.member("last_command", client.last_command);
  add_load(json, client.load);
  json.end_object();
}

void add_driver(const JsonLine &json, const DriverSight &driver) {
  json.begin_object();
  json.member("name", driver.name);
  json.member("instance", gint64{driver.instance});
  json.member("pid", gint64{driver.pid});
  json.member("program", driver.program);
  json.member("socket", driver.socket);
  json.member("state", name_of(driver.state));
  json.member("answers", driver.problem.empty());
  if (driver.problem.empty()) {
    add_load(json, driver.load);
  } else {
    json.member("problem", driver.problem);
  }
  if (driver.status_age_ms) {
    json.member("status_age_ms", *driver.status_age_ms);
    json.member("status_stale", driver.is_status_stale);
  }
  json.begin_array("clients");
  for (const ClientSight &client : driver.clients) add_client(json, client);
  json.end_array();
  json.end_object();
}

struct Top {
  const Options &options;
  const TopOrder order;
  const std::string filter;
  const gint interval_ms, count;

  [[nodiscard]] int run_lines(DriverWatch &watch) const;
  [[nodiscard]] int run_screen(DriverWatch &watch) const;
  [[nodiscard]] bool wait() const;
  void print(std::vector<DriverSight> drivers) const;
};

void Top::print(std::vector<DriverSight> drivers) const {
  drivers = chosen(std::move(drivers), filter);
  sort_by(order, drivers);
  const std::string time = utc_text(g_get_real_time() * 1000);
  if (options.as_json()) {
    const JsonLine json;
    json.member("time", time);
    json.member("interval_ms", gint64{interval_ms});
    json.begin_array("drivers");
    for (const DriverSight &driver : drivers) add_driver(json, driver);
    json.end_array();
    json.print();
    return;
  }
  std::printf("%s\n%s\n", time.c_str(), painted(Look::heading, top_titles()).c_str());
  for (const auto &line : top_lines(drivers)) std::printf("%s\n", painted(line.look, line.text).c_str());
  std::printf("\n");
  std::fflush(stdout);
}

// False if it was interrupted, or if the reader has closed the pipe.
bool Top::wait() const {
  pollfd output = {STDOUT_FILENO, 0, 0};
  const int count_of_ready = poll(&output, 1, interval_ms);
  if (std::ferror(stdout) != 0 && errno == EPIPE) std::clearerr(stdout);
  return count_of_ready == 0 && is_interrupted == 0;
}

int complain_of_list(const std::string &problem) {
  complain("the drivers cannot be listed: %s", problem.c_str());
  return EXIT_FAILURE;
}

// The first look is what the second is compared with.
int Top::run_lines(DriverWatch &watch) const {
  std::string problem;
  bool were_drivers = true;
  if (!watch.look(problem)) return complain_of_list(problem);
  for (gint look = 0; (count == 0 || look < count) && wait(); ++look) {
    auto drivers = watch.look(problem);
    if (!drivers) return complain_of_list(problem);
    if (drivers->empty() && were_drivers) complain("no driver runs");
    were_drivers = !drivers->empty();
    if (were_drivers || options.as_json()) print(std::move(*drivers));
    if (std::ferror(stdout) != 0) break;
  }
  return were_drivers ? EXIT_SUCCESS : exit_nobody;
}

int Top::run_screen(DriverWatch &watch) const {
  std::string problem;
  std::optional<TopScreen> screen;
  for (gint look = 0; count == 0 || look < count; ++look) {
    auto drivers = watch.look(problem);
    if (!drivers) {
      screen.reset();
      return complain_of_list(problem);
    }
    if (!screen) screen.emplace(order, filter, interval_ms);
    if (!screen->show(std::move(*drivers), is_interrupted)) break;
  }
  return EXIT_SUCCESS;
}

void end_on_signals() {
  struct sigaction action = {};
  action.sa_handler = [](int) { is_interrupted = 1; };  // without SA_RESTART: it ends a wait
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

}  // namespace

int run_top(const std::string &words, int argc, char **argv) {
  gint interval_ms = 1000, count = 0;
  gboolean are_lines = FALSE;
  char *order_name = nullptr, *filter = nullptr;
  Options options(
      words,
      {"",
       "Shows all registered drivers and their clients: requests a second, latency of half and of 99 % of the\n"
       "requests, errors, bytes a second, pending requests, replies that could not be sent, age of the status, and\n"
       "the state of each process. On a terminal, the keys are listed at the bottom.",
       " --lines --count 1 --interval 200"},
      Asks::none,
      {{"interval", 'i', G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &interval_ms, "Look this often, by default 1000", "MS"},
       {"count", 'n', G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &count, "Look this many times; 0 is no limit", "N"},
       {"lines", 'l', G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &are_lines,
        "Print a block of lines each time, as without a terminal", nullptr},
       {"sort", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_STRING, &order_name,
        "By requests, latency, errors, pending or name; by default requests", "ORDER"},
       {"filter", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_STRING, &filter,
        "Only drivers and clients with this text in name, program, process id or socket", "TEXT"}});
  const auto given = options.parse(argc, argv);
  const tools::Text owned_order(order_name), owned_filter(filter);
  if (!given || !options.is_within("--interval", interval_ms, 50, 60'000) ||
      !options.is_within("--count", count, 0, G_MAXINT)) {
    return exit_usage;
  }
  const auto order = top_order_named(order_name != nullptr ? order_name : "requests");
  if (!order) {
    const auto hint = did_you_mean(order_name, {"requests", "latency", "errors", "pending", "name"});
    return options.misused("--sort takes no '%s'%s", order_name, hint.c_str());
  }
  end_on_signals();
  DriverWatch watch;
  const Top top = {options, *order, filter != nullptr ? filter : "", interval_ms, count};
  const bool is_screen =
      are_lines == FALSE && !options.as_json() && isatty(STDOUT_FILENO) != 0 && isatty(STDIN_FILENO) != 0;
  return is_screen ? top.run_screen(watch) : top.run_lines(watch);
}

}  // namespace ptzctl
