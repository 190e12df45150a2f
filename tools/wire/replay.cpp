#include "replay.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "reply_fields.h"

namespace ptzctl {

namespace {

constexpr int most_timeouts_in_a_row = 3;
constexpr gint64 rest_interval_us = 20'000, backlog_interval_us = 5'000, least_silence_ns = 1'000'000'000;

// Whether the recording shows that the driver does not reply to it.
bool is_silent(const Exchange &exchange) {
  return exchange.reply == nullptr && exchange.silence_ns.value_or(0) >= least_silence_ns;
}

timespec timespec_of(gint64 us) {
  us = std::max<gint64>(us, 0);
  return {static_cast<time_t>(us / 1'000'000), static_cast<long>(us % 1'000'000 * 1000)};
}

// errno, or 0.
int connect_to(const std::string &path, tools::UniqueFd &fd) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);  // the options make sure that it fits
  fd = tools::UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (fd && connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) return 0;
  return errno;
}

}  // namespace

Replay::Replay(const Conversation &conversation, const ReplyComparison &comparison, ReplaySettings settings)
    : conversation_(conversation),
      comparison_(comparison),
      settings_(std::move(settings)),
      outcomes_(conversation.exchanges().size()) {}

void Replay::report(const RecordedFrame &frame, const std::string &text) {
  differences_.push_back({&frame, title_of(frame), {"", text, ""}});
}

// A driver whose backlog is full may accept later.
bool Replay::connect_client(Client &client) {
  const gint64 deadline_us = g_get_monotonic_time() + timeout_us();
  tools::UniqueFd fd;
  int error = connect_to(settings_.path, fd);
  while (error == EAGAIN && g_get_monotonic_time() < deadline_us) {
    poll_once(g_get_monotonic_time() + backlog_interval_us);
    error = connect_to(settings_.path, fd);
  }
  if (error == 0) {
    client.socket = FramedSocket(std::move(fd));
    return true;
  }
  problem_ =
      "no driver at " + settings_.path + ": " + (error == EAGAIN ? "it accepts no connection" : g_strerror(error));
  return false;
}

void Replay::lose(Client &client) {
  for (auto &[id, exchanges] : client.pending) {
    for (const std::size_t each : exchanges) outcomes_[each].is_lost = true;
  }
  client.pending.clear();
}

void Replay::take(Client &client, const std::vector<guint8> &frame) {
  RecordedFrame reply;
  reply.bytes = frame;
  ++figures_.replies;
  timeouts_in_a_row_ = 0;
  const auto waiting = client.pending.find(reply.message_id());
  if (waiting == client.pending.end() || waiting->second.empty()) {
    if (const auto late = client.given_up.find(reply.message_id()); late != client.given_up.end()) {
      client.given_up.erase(late);
    } else {
      report(*client.last_request,
             "a reply with the message id " + std::to_string(reply.message_id()) + ", for which no request waits");
    }
    return;
  }
  Outcome &outcome = outcomes_[waiting->second.front()];
  waiting->second.pop_front();
  outcome.has_reply = true;
  const auto body = reply.body();
  outcome.reply.assign(body.begin(), body.end());
}

void Replay::poll_once(gint64 deadline_us) {
  std::vector<pollfd> fds;
  std::vector<Client *> polled;
  for (auto &[number, client] : clients_) {
    if (!client.socket.is_open()) continue;
    fds.push_back({client.socket.fd(), client.socket.events(), 0});
    polled.push_back(&client);
  }
  const timespec left = timespec_of(deadline_us - g_get_monotonic_time());
  if (ppoll(fds.data(), fds.size(), &left, nullptr) <= 0) return;
  for (std::size_t i = 0; i < fds.size(); ++i) {
    for (const auto &frame : polled[i]->socket.handle(fds[i].revents)) take(*polled[i], frame);
    if (!polled[i]->socket.is_open()) lose(*polled[i]);
  }
}

template <typename Condition>
bool Replay::pump_until(Condition is_met, gint64 deadline_us) {
  while (!is_met()) {
    if (g_get_monotonic_time() >= deadline_us) return false;
    poll_once(deadline_us);
  }
  return true;
}

void Replay::send(const Step &step) {
  const RecordedFrame &request = *step.frame;
  if (!settings_.is_fast) {
    const gint64 due_us = start_us_ + (request.time_ns - start_ns_) / 1000;
    pump_until([] { return false; }, due_us);
  }
  Client &client = clients_[request.client];
  if (!client.socket.is_open() && !connect_client(client)) return;
  client.last_request = &request;
  Outcome &outcome = outcomes_[step.exchange];
  outcome.is_sent = true;
  outcome.sent_us = g_get_monotonic_time();
  ++figures_.requests;
  if (request.is_well_framed()) client.pending[request.message_id()].push_back(step.exchange);
  client.socket.send(request.bytes);
  if (request.has_malformed_length() &&
      !pump_until([&] { return !client.socket.is_open(); }, outcome.sent_us + timeout_us())) {
    report(request, "the driver did not close the connection after a malformed frame");
    client.socket.close();
  }
}

void Replay::await(const Step &step) {
  Outcome &outcome = outcomes_[step.exchange];
  if (!outcome.is_sent) return;
  const auto is_over = [&] { return outcome.has_reply || outcome.is_lost; };
  if (!pump_until(is_over, outcome.sent_us + timeout_us())) {
    report(*step.frame, "no reply within " + std::to_string(settings_.timeout_ms) + " ms");
    Client &client = clients_[step.frame->client];
    std::erase(client.pending[step.frame->message_id()], step.exchange);
    client.given_up.insert(step.frame->message_id());
    if (++timeouts_in_a_row_ == most_timeouts_in_a_row) {
      problem_ = "the driver does not answer: stopped after " + std::to_string(most_timeouts_in_a_row) +
                 " requests without a reply";
    }
  } else if (!outcome.has_reply) {
    report(*step.frame,
           "the driver closed the connection before its reply (" + clients_[step.frame->client].socket.end() + ")");
  } else {
    await_rest(step);
    compare(step);
  }
}

void Replay::await_rest(const Step &step) {
  Outcome &outcome = outcomes_[step.exchange];
  const auto recorded = step.frame->body();
  const gint64 deadline_us = g_get_monotonic_time() + timeout_us();
  while (comparison_.is_rest_due(recorded, outcome.reply) && g_get_monotonic_time() < deadline_us) {
    pump_until([] { return false; }, g_get_monotonic_time() + rest_interval_us);
    Client &client = clients_[step.frame->client];
    if (!client.socket.is_open()) return;
    const guint32 id = next_id_++;
    outcome.has_reply = false;
    client.pending[id].push_back(step.exchange);
    client.socket.send(frame_of(id, exchange_of(step).request->body()));
    const auto is_over = [&] { return outcome.has_reply || outcome.is_lost; };
    if (!pump_until(is_over, deadline_us)) client.pending.erase(id);
  }
}

void Replay::compare(const Step &step) {
  ++figures_.compared;
  const std::string title = title_of(*exchange_of(step).request);
  for (Difference &each : comparison_.differences(step.frame->body(), outcomes_[step.exchange].reply)) {
    const bool is_hidden = each.field == "value" && asks_for_secret(exchange_of(step).request->body());
    if (is_hidden) each.recorded = each.received = "(hidden)";
    differences_.push_back({step.frame, title, std::move(each)});
  }
}

void Replay::close_if_done(const RecordedFrame &frame) {
  if (!conversation_.is_last_of_its_client(frame)) return;
  Client &client = clients_[frame.client];
  const bool is_waiting = std::ranges::any_of(client.pending, [](const auto &of_id) { return !of_id.second.empty(); });
  if (!is_waiting) client.socket.close();
}

void Replay::await_silence() {
  gint64 end_us = 0;
  for (std::size_t i = 0; i < outcomes_.size(); ++i) {
    const Exchange &exchange = conversation_.exchanges()[i];
    if (!is_silent(exchange) || !outcomes_[i].is_sent || outcomes_[i].is_lost) continue;
    end_us = std::max(end_us, outcomes_[i].sent_us + std::min(*exchange.silence_ns / 1000, timeout_us()));
  }
  pump_until([] { return false; }, end_us);
}

void Replay::report_unexpected_replies() {
  for (std::size_t i = 0; i < outcomes_.size(); ++i) {
    const Exchange &exchange = conversation_.exchanges()[i];
    if (!is_silent(exchange) || !outcomes_[i].has_reply) continue;
    report(*exchange.request, "a reply, but none was recorded");
  }
}

bool Replay::run() {
  start_us_ = g_get_monotonic_time();
  if (!conversation_.steps().empty()) start_ns_ = conversation_.steps().front().frame->time_ns;
  for (const Step &step : conversation_.steps()) {
    if (step.frame->is_reply) {
      await(step);
    } else {
      send(step);
    }
    if (!problem_.empty()) return false;
    close_if_done(*step.frame);
  }
  await_silence();
  report_unexpected_replies();
  return true;
}

}  // namespace ptzctl
