// How long replies take. The limits are wide: what a daemon notices, not what a good driver needs.
#include <algorithm>
#include <vector>

#include "head.h"

namespace compliance {

namespace {

constexpr int sequential_requests = 100;
constexpr int pipelined_requests = 64;
constexpr double median_limit_ms = 40;  // a daemon asks for the position with every picture, 25 times a second
constexpr double each_limit_ms = 15;    // of many at once, where no request waits for the way of the one before

double ms_since(gint64 start) { return static_cast<double>(g_get_monotonic_time() - start) / 1000; }

void judge(Probe &probe, std::vector<double> times_ms, const char *what) {
  if (probe.decided()) return;
  std::ranges::sort(times_ms);
  const double median = times_ms[times_ms.size() / 2];
  probe.fail_unless(median <= median_limit_ms, "half of %s take longer than %.1f ms; the limit is %.0f ms", what,
                    median, median_limit_ms);
  probe.note("median %.2f ms, 90 %% within %.2f ms, longest %.2f ms", median, times_ms[times_ms.size() * 9 / 10],
             times_ms.back());
}

void sequential(Probe &probe) {
  Link link = probe.connect();
  std::vector<double> times_ms;
  const gint64 enough = g_get_monotonic_time() + gint64{probe.timeout_ms()} * 1000;
  while (times_ms.size() < sequential_requests && !probe.decided() && g_get_monotonic_time() < enough) {
    const gint64 start = g_get_monotonic_time();
    link.ask(harmless_request());
    times_ms.push_back(ms_since(start));
  }
  judge(probe, std::move(times_ms), "the replies");
}

void while_moving(Probe &probe) {
  Head head(probe);
  const AxisIndex axis = head.axis_for(PTZ_MOVE_CONTINUOUS);
  head.make_room(axis);
  head.order(head.run_slowly(axis, 5));
  std::vector<double> times_ms;
  for (bool moving = true; moving && times_ms.size() < 20 && !probe.decided();) {
    const gint64 start = g_get_monotonic_time();
    moving = head.where().status[axis] == PTZ_MOVE_STATUS_MOVING;
    times_ms.push_back(ms_since(start));
  }
  head.calm_down();
  judge(probe, std::move(times_ms), "the positions of a head that moves");
}

void pipelined(Probe &probe) {
  Link link = probe.connect();
  std::string requests;
  for (int count = 0; count < pipelined_requests; ++count) requests += frame(probe.new_id(), harmless_request());
  const gint64 start = g_get_monotonic_time();
  link.send(requests);
  int answered = 0;
  const double limit_ms = pipelined_requests * each_limit_ms;
  while (answered < pipelined_requests && link.receive(static_cast<int>(limit_ms))) ++answered;
  const double total_ms = ms_since(start);
  probe.fail_unless(answered == pipelined_requests && total_ms <= limit_ms,
                    "%d of %d requests at once are answered in %.0f ms; the limit is %.0f ms", answered,
                    pipelined_requests, total_ms, limit_ms);
  probe.note("%d requests at once in %.2f ms", pipelined_requests, total_ms);
}

void connecting(Probe &probe) {
  std::vector<double> times_ms;
  for (int count = 0; count < 5 && !probe.decided(); ++count) {
    const gint64 start = g_get_monotonic_time();
    Link link = probe.connect();
    link.ask(harmless_request());
    times_ms.push_back(ms_since(start));
  }
  judge(probe, std::move(times_ms), "the connections, up to the first reply,");
}

constexpr Check rows[] = {
    {"latency.sequential", "half of the replies come within 40 ms", sequential},
    {"latency.while-moving", "half of the positions come within 40 ms while the head moves", while_moving},
    {"latency.pipelined", "64 requests at once are answered within 960 ms", pipelined},
    {"latency.connect", "half of the new connections have their first reply within 40 ms", connecting},
};

}  // namespace

const Checks latency_checks(rows);

}  // namespace compliance
