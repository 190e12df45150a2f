// The exchange with cameras that leave out replies, send several, or are full.
#include "link_fixture.h"

namespace visca {

namespace {

TEST_F(LinkTest, CommandWithoutReplyDoesNotKeepInquiriesFromBeingSent) {
  start({.loses_packets = true});
  submit("home", {.packet = pan_tilt_home(1), .group = Group::pan_tilt, .motion = true});
  link_->inquire(InquiryKind::pan_tilt_position, now_);
  pass(500 * ms);
  EXPECT_GE(count("81 09 06 12 FF"), 1U);
}

TEST_F(LinkTest, StopWithoutAckDoesNotKeepTheLineFromOtherCameras) {
  start_serial();
  submit("stop", stop());
  EXPECT_TRUE(link_->waits_for_reply(now_));
  pass(170 * ms);
  EXPECT_FALSE(link_->waits_for_reply(now_));
}

TEST_F(LinkTest, FurtherAckOfARepeatedMoveDoesNotConfirmAStop) {
  start({.loses_packets = true});
  submit("drive", drive());
  pass(110 * ms);
  ASSERT_EQ(sent_.size(), 2U);
  ack(1);
  submit("stop", stop());
  ack(1);
  EXPECT_FALSE(was_told("stop accepted"));
  pass(100 * ms);
  ack(1);
  EXPECT_TRUE(was_told("stop accepted"));
}

TEST_F(LinkTest, OneAckDoesNotConfirmOneOfTwoStopsWithoutNumbers) {
  start({.loses_packets = true});
  submit("pan", stop());
  submit("zoom", {.packet = zoom_stop(1), .group = Group::zoom, .stop = true});
  ack(1);
  EXPECT_TRUE(told_.empty());
  pass(100 * ms);
  EXPECT_EQ(count(stop_bytes), 2U);
  EXPECT_EQ(count("81 01 04 07 00 FF"), 2U);
  ack(1);
  complete(1);
  ack(2);
  EXPECT_EQ(std::ranges::count(told_, std::string("pan accepted")), 1);
  EXPECT_EQ(std::ranges::count(told_, std::string("pan ended")), 1);
  EXPECT_EQ(std::ranges::count(told_, std::string("zoom accepted")), 1);
}

TEST_F(LinkTest, CameraWithoutAnyAckConfirmsStopsByCompletions) {
  start_serial();
  submit("drive", drive());
  complete(1);
  submit("stop", stop());
  complete(1);
  EXPECT_TRUE(was_told("stop accepted"));
}

TEST_F(LinkTest, ErrorOfACameraWithoutAnyAckBelongsToTheLatestCommand) {
  start_serial();
  submit("first", {.packet = focus_one_push(1)});
  complete(1);
  submit("move", move());
  pass(160 * ms);
  submit("zoom", zoom());
  error(0, error_syntax);
  EXPECT_TRUE(was_told(std::string("zoom: ") + text_of(Outcome::bad_syntax)));
  EXPECT_FALSE(was_told(std::string("move: ") + text_of(Outcome::bad_syntax)));
}

TEST_F(LinkTest, MotionWithoutSocketIsReplacedWithoutCancel) {
  start_serial();
  submit("first", move(1));
  ack(0);
  submit("second", move(2));
  EXPECT_EQ(count("81 20 FF"), 0U);
  EXPECT_EQ(sent_.back().bytes, "81 01 06 02 01 01 00 00 00 02 00 00 00 00 FF");
}

TEST_F(LinkTest, FullBufferIsEmptiedForAStop) {
  start_serial();
  submit("zoom", zoom());
  ack(1);
  submit("stop", stop());
  error(0, error_buffer_full);
  EXPECT_EQ(count("81 22 FF"), 1U);
  EXPECT_EQ(count("81 21 FF"), 0U) << "the zoom goes on";
  pass(20 * ms);
  EXPECT_EQ(count(stop_bytes), 2U);
  error(0, error_buffer_full);
  EXPECT_EQ(count("81 21 FF"), 1U) << "it did not help";
}

TEST_F(LinkTest, ManyOvertakenMovesWithoutAckAreForgotten) {
  start_udp();
  std::uint32_t number = 0;
  for (int round = 0; round < 20; ++round) {
    submit("move", move(round));
    ++number;
    submit("stop", stop());
    ack(1, number++);
    complete(1, number - 1);
  }
  EXPECT_LE(link_->commands_in_camera(), 4U);
}

TEST_F(LinkTest, CameraWithoutAnyInquiryIsFoundByInterfaceClear) {
  link_ = std::make_unique<Link>(*this, *this, 1, LinkOptions{});
  link_->start(now_);
  pass(1100 * ms);
  EXPECT_EQ(count("81 09 04 00 FF"), 2U);
  EXPECT_EQ(count("81 01 00 01 FF"), 1U);
  reply({0x90, 0x50, 0xff});
  EXPECT_TRUE(was_told("up"));
}

TEST_F(LinkTest, CameraThatNeverAnsweredAnInquiryIsNotLostForIt) {
  link_ = std::make_unique<Link>(*this, *this, 1, LinkOptions{});
  link_->start(now_);
  reply({0x90, 0x50, 0xff});
  for (int round = 0; round < 10; ++round) {
    link_->inquire(InquiryKind::zoom_position, now_);
    pass(600 * ms);
  }
  EXPECT_FALSE(was_told("lost"));
  EXPECT_EQ(link_->state(), Link::State::up);
}

TEST_F(LinkTest, FocusDriveWithoutAckIsNotRepeatedAfterItsStop) {
  start_udp();
  const Packet drive = focus_drive(1, FocusDirection::far, 3);
  submit("far", {.packet = drive, .group = Group::focus, .motion = true, .continuous = true});
  submit("stop", {.packet = focus_stop(1), .group = Group::focus, .stop = true});
  ack(1, 1);
  pass(900 * ms);
  EXPECT_EQ(count("81 01 04 08 23 FF"), 1U);
}

TEST_F(LinkTest, SwitchesOfLostCompletionsMakeRoomAfterASecond) {
  start_udp();
  submit("first", {.packet = focus_one_push(1)});
  ack(1, 0);
  submit("second", {.packet = night_mode(1, true)});
  ack(2, 1);
  submit("third", zoom());
  EXPECT_EQ(sent_.size(), 2U);
  pass(1001 * ms);
  EXPECT_EQ(sent_.size(), 3U);
}

TEST_F(LinkTest, AnswerToARepeatedInquiryFromBeforeACommandIsNotTaken) {
  start_udp();
  link_->inquire(InquiryKind::zoom_position, now_);
  pass(50 * ms);
  submit("zoom", zoom());
  ack(1, 1);
  pass(100 * ms);
  EXPECT_EQ(sent_.back().sequence, 0U);
  told_.clear();
  reply({0x90, 0x50, 0, 0, 0, 1, 0xff}, 0);
  EXPECT_TRUE(told_.empty());
  EXPECT_EQ(sent_.back().sequence, 2U) << "asked again";
  reply({0x90, 0x50, 0, 0, 0, 2, 0xff}, 2);
  EXPECT_TRUE(was_told("answer 00 00 00 02"));
}

TEST_F(LinkTest, AbnormalSequenceNumberWithoutHeaderSendsNoReset) {
  start({.loses_packets = true});
  submit("move", move());
  link_->control(Bytes{control_error, error_sequence_number}, 0, now_);
  EXPECT_EQ(count("01"), 0U);
  EXPECT_EQ(sent_.size(), 1U);
}

TEST_F(LinkTest, MoveDoesNotWaitForAStopThatIsRefused) {
  start_udp();
  submit("stop", stop());
  submit("move", move());
  EXPECT_EQ(sent_.size(), 1U);
  error(1, error_not_executable, 0);
  EXPECT_TRUE(was_told(std::string("stop: ") + text_of(Outcome::not_executable)));
  EXPECT_EQ(sent_.size(), 2U);
}

TEST_F(LinkTest, RefusalsOfTwoStopsWithoutNumbersAreThoseOfBoth) {
  start_serial();
  submit("pan", stop());
  submit("zoom", {.packet = zoom_stop(1), .group = Group::zoom, .stop = true});
  error(1, error_not_executable);
  error(1, error_not_executable);
  submit("move", move());
  submit("direct", zoom());
  EXPECT_TRUE(was_told(std::string("pan: ") + text_of(Outcome::not_executable)));
  EXPECT_TRUE(was_told(std::string("zoom: ") + text_of(Outcome::not_executable)));
}

TEST_F(LinkTest, AckHeldForAStopThatWasGivenUpDoesNotConfirmLaterStops) {
  start({.loses_packets = true});
  submit("first", stop());
  pass(1950 * ms);
  submit("second", {.packet = zoom_stop(1), .group = Group::zoom, .stop = true});
  pass(1 * ms);
  ack(1);
  pass(60 * ms);
  ASSERT_TRUE(was_told(std::string("first: ") + text_of(Outcome::no_answer)));
  ack(2);
  complete(2);
  complete(1);
  ASSERT_TRUE(was_told("second accepted"));
  pass(5000 * ms);
  submit("pan", stop());
  submit("zoom", {.packet = zoom_stop(1), .group = Group::zoom, .stop = true});
  pass(1 * ms);
  ack(1);
  EXPECT_FALSE(was_told("pan accepted"));
  EXPECT_FALSE(was_told("zoom accepted"));
}

TEST_F(LinkTest, AckHeldForAStopThatWasRefusedDoesNotConfirmLaterStops) {
  start({.loses_packets = true});
  const Command zoom_stops = {.packet = zoom_stop(1), .group = Group::zoom, .stop = true};
  submit("first", stop());
  submit("second", zoom_stops);
  ack(1);
  error(0, error_not_executable);
  submit("move", move());
  ASSERT_TRUE(was_told(std::string("first: ") + text_of(Outcome::not_executable)));
  ack(2);
  complete(2);
  ASSERT_TRUE(was_told("second accepted"));
  ack(1);
  complete(1);
  submit("pan", stop());
  submit("zoom", zoom_stops);
  ack(1);
  EXPECT_FALSE(was_told("pan accepted"));
  EXPECT_FALSE(was_told("zoom accepted"));
}

TEST_F(LinkTest, LostAckOfACommandDelaysNoLaterOne) {
  start_serial();
  submit("first", focus_command());
  pass(510 * ms);
  ack(1);
  complete(1);
  submit("second", focus_command());
  ack(1);
  EXPECT_TRUE(was_told("second accepted"));
}

TEST_F(LinkTest, LostAckOnDatagramsDelaysOneLaterCommandOnly) {
  start({.loses_packets = true});
  submit("first", focus_command());
  pass(110 * ms);
  ack(1);
  complete(1);
  submit("second", focus_command());
  ack(1);
  pass(110 * ms);
  ack(1);
  complete(1);
  ASSERT_TRUE(was_told("second accepted"));
  submit("third", focus_command());
  ack(1);
  EXPECT_TRUE(was_told("third accepted"));
}

}  // namespace
}  // namespace visca
