// link_fixture.h - a link over a wire and a clock of the test.
#pragma once
#include "link.h"

#include <gtest/gtest.h>

#include <memory>

#include <string>

namespace visca {

using Bytes = std::vector<Byte>;

inline std::string text(ByteSpan bytes) {
  std::string hexadecimal;
  for (const Byte byte : bytes) {
    char digits[4];
    snprintf(digits, sizeof digits, "%s%02X", hexadecimal.empty() ? "" : " ", byte);
    hexadecimal += digits;
  }
  return hexadecimal;
}

struct Sent {
  std::string bytes;
  PayloadType type;
  std::uint32_t sequence;
  std::int64_t when_us;
};

constexpr std::int64_t ms = 1000;

class LinkTest : public testing::Test, public Wire, public LinkUser {
 protected:
  std::int64_t now_ = 1'000'000;
  std::vector<Sent> sent_;
  std::vector<std::string> told_;
  std::unique_ptr<Link> link_;

  void send(ByteSpan packet, PayloadType type, std::uint32_t sequence) override {
    sent_.push_back({text(packet), type, sequence, now_});
  }
  bool is_free_for(const Link &) const override { return true; }
  void changed() override {}
  void link_is_up() override { told_.emplace_back("up"); }
  void link_is_lost() override { told_.emplace_back("lost"); }
  void on_answer(InquiryKind, ByteSpan data) override { told_.push_back("answer " + text(data)); }
  void on_no_answer(InquiryKind, Outcome) override { told_.emplace_back("no answer"); }

  void start(LinkOptions options) {
    link_ = std::make_unique<Link>(*this, *this, 1, options);
    link_->start(now_);
    if (options.has_header) {
      link_->control(Bytes{control_reset}, 0, now_);
    } else {
      reply({0x90, 0x50, 0x02, 0xff});
    }
    ASSERT_EQ(link_->state(), Link::State::up);
    sent_.clear();
    told_.clear();
  }
  void start_serial() { start({.repeat_us = 500 * ms, .ack_limit_us = 1100 * ms}); }
  void start_udp() { start({.has_header = true, .loses_packets = true}); }

  void reply(const Bytes &packet, std::optional<std::uint32_t> sequence = std::nullopt) {
    const auto parsed = parse_reply(packet);
    ASSERT_TRUE(parsed);
    link_->receive(*parsed, sequence, now_);
  }
  void ack(Byte socket, std::optional<std::uint32_t> sequence = std::nullopt) {
    reply({0x90, static_cast<Byte>(0x40 | socket), 0xff}, sequence);
  }
  void complete(Byte socket, std::optional<std::uint32_t> sequence = std::nullopt) {
    reply({0x90, static_cast<Byte>(0x50 | socket), 0xff}, sequence);
  }
  void error(Byte socket, Byte code, std::optional<std::uint32_t> sequence = std::nullopt) {
    reply({0x90, static_cast<Byte>(0x60 | socket), code, 0xff}, sequence);
  }
  // Runs the link's timers for so long.
  void pass(std::int64_t duration_us) {
    const std::int64_t end = now_ + duration_us;
    for (int rounds = 0;; ++rounds) {
      ASSERT_LT(rounds, 1000) << "the link wants to run again and again";
      const std::int64_t next = link_->deadline(now_);
      if (next > end) break;
      now_ = std::max(now_, next);
      link_->advance(now_);
    }
    now_ = end;
  }
  void submit(const std::string &name, Command command) {
    command.acknowledged = [this, name](Outcome outcome) {
      told_.push_back(name + (outcome == Outcome::done ? " accepted" : std::string(": ") + text_of(outcome)));
    };
    command.ended = [this, name](Outcome outcome) {
      told_.push_back(name + (outcome == Outcome::done ? " ended" : std::string(" ended: ") + text_of(outcome)));
    };
    link_->submit(std::move(command), now_);
  }
  static Command move(std::int32_t pan = 100) {
    return {.packet = pan_tilt_absolute(1, {1, 1}, {pan, 0}), .group = Group::pan_tilt, .motion = true};
  }
  static Command drive(Byte speed = 1) {
    return {.packet = pan_tilt_drive(1, {speed, 1}, PanDirection::left, TiltDirection::stop),
            .group = Group::pan_tilt,
            .motion = true,
            .continuous = true};
  }
  static Command relative() {
    return {
        .packet = pan_tilt_relative(1, {1, 1}, {1, 0}), .group = Group::pan_tilt, .motion = true, .repeatable = false};
  }
  static Command focus_command() { return {.packet = focus_one_push(1)}; }
  static Command zoom() { return {.packet = zoom_direct(1, 0x1000), .group = Group::zoom, .motion = true}; }
  static Command stop() {
    return {.packet = pan_tilt_drive(1, {1, 1}, PanDirection::stop, TiltDirection::stop),
            .group = Group::pan_tilt,
            .stop = true};
  }
  std::vector<std::string> bytes() const {
    std::vector<std::string> all;
    for (const Sent &each : sent_) all.push_back(each.bytes);
    return all;
  }
  std::size_t count(const std::string &packet) const {
    return static_cast<std::size_t>(std::ranges::count(sent_, packet, &Sent::bytes));
  }
  bool was_told(const std::string &what) const { return std::ranges::find(told_, what) != told_.end(); }
};

inline const std::string stop_bytes = "81 01 06 01 01 01 03 03 FF";

}  // namespace visca
