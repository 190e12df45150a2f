// The exchange with one camera.
#include "link_fixture.h"

namespace visca {

namespace {

TEST_F(LinkTest, CommandIsAcceptedByItsAckAndEndedByItsCompletion) {
  start_serial();
  submit("move", move());
  ASSERT_EQ(sent_.size(), 1U);
  ack(1);
  EXPECT_EQ(told_, std::vector<std::string>{"move accepted"});
  complete(1);
  EXPECT_EQ(told_, (std::vector<std::string>{"move accepted", "move ended"}));
  EXPECT_EQ(link_->commands_in_camera(), 0U);
}

TEST_F(LinkTest, NoMoreThanTwoCommandsAreInTheCamera) {
  start_udp();
  submit("move", move());
  submit("zoom", zoom());
  submit("focus", {.packet = focus_one_push(1)});
  EXPECT_EQ(sent_.size(), 2U);
  ack(1, 0);
  ack(2, 1);
  EXPECT_EQ(sent_.size(), 2U);
  complete(2, 1);
  ASSERT_EQ(sent_.size(), 3U);
  EXPECT_EQ(sent_[2].bytes, "81 01 04 18 01 FF");
}

TEST_F(LinkTest, CompletionsComeInAnyOrder) {
  start_udp();
  submit("move", move());
  submit("zoom", zoom());
  ack(2, 1);
  ack(1, 0);
  complete(2, 1);
  complete(1, 0);
  EXPECT_EQ(told_, (std::vector<std::string>{"zoom accepted", "move accepted", "zoom ended", "move ended"}));
}

TEST_F(LinkTest, InquiryIsSentWhileBothSocketsAreBusy) {
  start_serial();
  submit("move", move());
  ack(1);
  submit("zoom", zoom());
  ack(2);
  link_->inquire(InquiryKind::pan_tilt_position, now_);
  EXPECT_EQ(sent_.back().bytes, "81 09 06 12 FF");
  reply({0x90, 0x50, 0, 0, 0, 1, 0, 0, 0, 2, 0xff});
  EXPECT_TRUE(was_told("answer 00 00 00 01 00 00 00 02"));
}

TEST_F(LinkTest, ReplacedMoveIsCancelledBeforeTheNextOneIsSent) {
  start_serial();
  submit("first", move(1));
  ack(1);
  submit("second", move(2));
  EXPECT_EQ(sent_.back().bytes, "81 21 FF");
  error(1, error_cancelled);
  EXPECT_EQ(sent_.back().bytes, "81 01 06 02 01 01 00 00 00 02 00 00 00 00 FF");
  EXPECT_TRUE(was_told("first ended: replaced by a later order"));
}

TEST_F(LinkTest, MoveIsSentAfterACancelWithoutAnswer) {
  start_serial();
  submit("first", move(1));
  ack(1);
  submit("second", move(2));
  pass(cancel_limit_us);
  EXPECT_EQ(sent_.back().bytes, "81 01 06 02 01 01 00 00 00 02 00 00 00 00 FF");
}

TEST_F(LinkTest, QueuedMoveIsReplacedByALaterOne) {
  start_serial();
  submit("first", move(1));
  submit("second", move(2));
  submit("third", move(3));
  EXPECT_TRUE(was_told("second: replaced by a later order"));
  EXPECT_EQ(sent_.size(), 1U);
  ack(1);
  error(1, error_cancelled);
  EXPECT_EQ(sent_.back().bytes, "81 01 06 02 01 01 00 00 00 03 00 00 00 00 FF");
}

TEST_F(LinkTest, StopOvertakesQueuedMoves) {
  start_serial();
  submit("first", move(1));
  submit("second", move(2));
  submit("stop", stop());
  EXPECT_EQ(sent_.back().bytes, stop_bytes);
  EXPECT_TRUE(was_told("second: replaced by a later order"));
}

TEST_F(LinkTest, StopIsRepeatedEvery100MsUntilItIsAcknowledged) {
  start_serial();
  submit("stop", stop());
  pass(450 * ms);
  EXPECT_EQ(count(stop_bytes), 5U);
  for (std::size_t index = 1; index < sent_.size(); ++index) {
    EXPECT_EQ(sent_[index].when_us - sent_[index - 1].when_us, repeat_stop_us);
  }
  ack(1);
  pass(500 * ms);
  EXPECT_EQ(count(stop_bytes), 5U);
  EXPECT_TRUE(was_told("stop accepted"));
}

TEST_F(LinkTest, StopWithoutAckHasFailedAfterTwoSeconds) {
  start_serial();
  submit("stop", stop());
  pass(stop_limit_us - 1 * ms);
  EXPECT_FALSE(was_told("stop: the camera does not answer"));
  pass(1 * ms);
  EXPECT_TRUE(was_told("stop: the camera does not answer"));
  EXPECT_EQ(count(stop_bytes), 20U);
}

TEST_F(LinkTest, SecondStopIsAcknowledgedWithTheFirst) {
  start_udp();
  submit("first", stop());
  submit("second", stop());
  EXPECT_EQ(count(stop_bytes), 1U);
  EXPECT_TRUE(told_.empty());
  ack(1, 0);
  EXPECT_EQ(told_, (std::vector<std::string>{"first accepted", "second accepted"}));
}

TEST_F(LinkTest, RepeatedStopHasTheSameSequenceNumber) {
  start_udp();
  submit("stop", stop());
  pass(250 * ms);
  ASSERT_EQ(sent_.size(), 3U);
  EXPECT_EQ(sent_[2].sequence, sent_[0].sequence);
}

TEST_F(LinkTest, StopGetsASocketByACancelOfItsMove) {
  start_udp();
  submit("move", move());
  submit("zoom", zoom());
  ack(1, 0);
  ack(2, 1);
  submit("stop", stop());
  EXPECT_EQ(sent_.back().bytes, "81 21 FF");
  error(1, error_cancelled, 2);
  EXPECT_EQ(sent_.back().bytes, stop_bytes);
}

TEST_F(LinkTest, StopIsSentSoonEvenIfNoSocketGetsFree) {
  start_udp();
  submit("move", move());
  submit("zoom", zoom());
  submit("stop", stop());
  pass(100 * ms);
  EXPECT_EQ(count(stop_bytes), 1U);
}

TEST_F(LinkTest, MoveThatTheStopReplacedIsCancelled) {
  start_udp();
  submit("move", move());
  ack(1, 0);
  submit("stop", stop());
  EXPECT_EQ(sent_.back().bytes, stop_bytes);
  ack(2, 1);
  EXPECT_EQ(sent_.back().bytes, "81 21 FF");
}

TEST_F(LinkTest, MoveThatIsAcknowledgedAfterItsStopIsStoppedAgain) {
  start_udp();
  submit("move", move());
  submit("stop", stop());
  ack(1, 1);
  complete(1, 1);
  ack(2, 0);
  EXPECT_EQ(count(stop_bytes), 2U);
  EXPECT_EQ(count("81 22 FF"), 1U);
}

TEST_F(LinkTest, ReplacedMoveWithoutAckIsNotRepeatedAfterAStop) {
  start_udp();
  submit("move", move());
  submit("stop", stop());
  ack(1, 1);
  pass(2000 * ms);
  EXPECT_EQ(count("81 01 06 02 01 01 00 00 06 04 00 00 00 00 FF"), 1U);
}

TEST_F(LinkTest, MoveAfterAStopWaitsUntilTheStopIsAcknowledged) {
  start_udp();
  submit("stop", stop());
  submit("move", move());
  EXPECT_EQ(sent_.size(), 1U);
  ack(1, 0);
  EXPECT_EQ(sent_.size(), 2U);
}

TEST_F(LinkTest, StopIsSentWhileTheCameraIsSilent) {
  start_serial();
  link_->stop();
  link_->start(now_);
  submit("move", move());
  EXPECT_TRUE(was_told("move: the camera does not answer"));
  submit("stop", stop());
  EXPECT_EQ(sent_.back().bytes, stop_bytes);
}

TEST_F(LinkTest, BufferFullIsTriedAgain) {
  start_serial();
  submit("move", move());
  error(0, error_buffer_full);
  EXPECT_TRUE(told_.empty());
  pass(60 * ms);
  EXPECT_EQ(sent_.size(), 2U);
  ack(1);
  EXPECT_TRUE(was_told("move accepted"));
}

TEST_F(LinkTest, BufferThatStaysFullIsEmptiedByCancels) {
  start_serial();
  submit("move", move());
  error(0, error_buffer_full);
  pass(60 * ms);
  error(0, error_buffer_full);
  EXPECT_EQ(count("81 21 FF"), 1U);
  EXPECT_EQ(count("81 22 FF"), 1U);
}

TEST_F(LinkTest, BufferThatStaysFullFailsTheCommand) {
  start_serial();
  submit("move", move());
  for (int round = 0; round < 80 && told_.empty(); ++round) {
    error(0, error_buffer_full);
    pass(60 * ms);
  }
  EXPECT_TRUE(was_told("move: the camera is busy with other commands"));
}

TEST_F(LinkTest, RefusalFailsTheCommand) {
  start_serial();
  submit("move", move());
  error(1, error_not_executable);
  submit("zoom", zoom());
  error(0, error_syntax);
  ASSERT_EQ(told_.size(), 2U);
  EXPECT_EQ(told_[0], std::string("move: ") + text_of(Outcome::not_executable));
  EXPECT_EQ(told_[1], std::string("zoom: ") + text_of(Outcome::bad_syntax));
}

TEST_F(LinkTest, RefusedStopIsTriedAgainWithANewNumber) {
  start_udp();
  submit("stop", stop());
  error(1, error_not_executable, 0);
  pass(100 * ms);
  ASSERT_EQ(sent_.size(), 2U);
  EXPECT_EQ(sent_[1].sequence, 1U);
  ack(1, 1);
  EXPECT_TRUE(was_told("stop accepted"));
}

TEST_F(LinkTest, LostCompletionIsSeenByTheNextAckOfTheSocket) {
  start_serial();
  submit("zoom", zoom());
  ack(1);
  pass(1000 * ms);
  submit("move", move());
  ack(1);
  EXPECT_TRUE(was_told("zoom ended"));
  EXPECT_EQ(link_->commands_in_camera(), 1U);
}

TEST_F(LinkTest, LostCompletionIsMadeUpForByRest) {
  start_serial();
  submit("move", move());
  ack(1);
  link_->confirm_rest(Group::pan_tilt, now_);
  EXPECT_TRUE(was_told("move ended"));
  EXPECT_EQ(link_->commands_in_camera(), 0U);
}

TEST_F(LinkTest, LostCompletionEndsByTimeOut) {
  start_serial();
  submit("move", move());
  ack(1);
  pass(31'000 * ms);
  EXPECT_TRUE(was_told("move ended"));
}

TEST_F(LinkTest, CompletionWithoutAckIsBoth) {
  start_serial();
  submit("move", move());
  complete(1);
  EXPECT_EQ(told_, (std::vector<std::string>{"move accepted", "move ended"}));
}

TEST_F(LinkTest, SecondCompletionOfASocketDoesNotConfirmAStop) {
  start_serial();
  submit("move", move());
  ack(1);
  complete(1);
  submit("stop", stop());
  complete(1);
  EXPECT_FALSE(was_told("stop accepted"));
  pass(100 * ms);
  EXPECT_EQ(count(stop_bytes), 2U);
}

TEST_F(LinkTest, CompletionForAnEmptySocketIsIgnored) {
  start_serial();
  complete(2);
  ack(1);
  EXPECT_TRUE(told_.empty());
  submit("move", move());
  EXPECT_EQ(sent_.size(), 1U);
}

TEST_F(LinkTest, CommandWithoutAckIsRepeated) {
  start_udp();
  submit("move", move());
  pass(350 * ms);
  EXPECT_EQ(sent_.size(), 4U);
  EXPECT_EQ(sent_[3].sequence, 0U);
}

TEST_F(LinkTest, RelativeMoveIsNotRepeatedWithoutSequenceNumbers) {
  start({.loses_packets = true});
  submit("relative", relative());
  pass(900 * ms);
  EXPECT_EQ(sent_.size(), 1U);
}

TEST_F(LinkTest, CommandThatTheCameraNeverAcknowledgesIsAcceptedIfTheCameraLives) {
  start_serial();
  submit("home", {.packet = pan_tilt_home(1), .group = Group::pan_tilt, .motion = true});
  pass(600 * ms);
  link_->inquire(InquiryKind::power, now_);
  reply({0x90, 0x50, 0x02, 0xff});
  pass(600 * ms);
  EXPECT_TRUE(was_told("home accepted"));
  told_.clear();
  submit("home", {.packet = pan_tilt_home(1), .group = Group::pan_tilt, .motion = true});
  pass(200 * ms);
  EXPECT_TRUE(was_told("home accepted")) << "known by now";
}

TEST_F(LinkTest, SilentCameraFailsCommandsAndIsProbed) {
  start_udp();
  submit("move", move());
  pass(1300 * ms);
  EXPECT_TRUE(was_told("move: the camera does not answer"));
  EXPECT_TRUE(was_told("lost"));
  EXPECT_NE(link_->state(), Link::State::up);
  sent_.clear();
  pass(3000 * ms);
  EXPECT_GE(count("81 09 04 00 FF"), 3U);
  reply({0x90, 0x50, 0x02, 0xff}, 17);
  EXPECT_TRUE(was_told("up"));
  EXPECT_EQ(count("81 01 06 02 01 01 00 00 06 04 00 00 00 00 FF"), 0U) << "an old move came back";
}

TEST_F(LinkTest, SequenceNumbersCountFromZeroAfterReset) {
  link_ = std::make_unique<Link>(*this, *this, 1, LinkOptions{.has_header = true, .loses_packets = true});
  link_->start(now_);
  ASSERT_EQ(sent_.size(), 1U);
  EXPECT_EQ(sent_[0].bytes, "01");
  EXPECT_EQ(sent_[0].type, PayloadType::control);
  EXPECT_EQ(sent_[0].sequence, 0U);
  link_->control(Bytes{control_reset}, 0, now_);
  submit("move", move());
  link_->inquire(InquiryKind::power, now_);
  ASSERT_EQ(sent_.size(), 3U);
  EXPECT_EQ(sent_[1].type, PayloadType::command);
  EXPECT_EQ(sent_[1].sequence, 0U);
  EXPECT_EQ(sent_[2].type, PayloadType::inquiry);
  EXPECT_EQ(sent_[2].sequence, 1U);
}

TEST_F(LinkTest, ResetWithoutAnswerIsRepeatedThenDoneWithout) {
  link_ = std::make_unique<Link>(*this, *this, 1, LinkOptions{.has_header = true, .loses_packets = true});
  link_->start(now_);
  pass(350 * ms);
  EXPECT_EQ(count("01"), 3U);
  EXPECT_EQ(count("81 09 04 00 FF"), 1U);
  reply({0x90, 0x50, 0x02, 0xff}, 0);
  EXPECT_TRUE(was_told("up"));
}

TEST_F(LinkTest, AbnormalSequenceNumberIsAnsweredByResetAndTheMessageAgain) {
  start_udp();
  for (std::uint32_t number = 0; number < 3; ++number) {
    submit("zoom", zoom());
    ack(1, number);
    complete(1, number);
  }
  sent_.clear();
  submit("move", move());
  link_->control(Bytes{control_error, error_sequence_number}, 3, now_);
  ASSERT_EQ(sent_.size(), 3U);
  EXPECT_EQ(sent_[1].type, PayloadType::control);
  EXPECT_EQ(sent_[2].sequence, 0U);
  ack(1, 0);
  EXPECT_TRUE(was_told("move accepted"));
}

TEST_F(LinkTest, AbnormalSequenceNumberOfARepeatedRelativeMoveMeansThatItWasExecuted) {
  start_udp();
  submit("zoom", zoom());
  ack(1, 0);
  submit("relative", relative());
  pass(150 * ms);
  ASSERT_EQ(count("81 01 06 03 01 01 00 00 00 01 00 00 00 00 FF"), 2U);
  link_->control(Bytes{control_error, error_sequence_number}, 1, now_);
  EXPECT_TRUE(was_told("relative accepted"));
  pass(2000 * ms);
  EXPECT_EQ(count("81 01 06 03 01 01 00 00 00 01 00 00 00 00 FF"), 2U);
}

TEST_F(LinkTest, RepliesThatAlwaysHaveNumber1AreMatchedByOrder) {
  start_udp();
  for (int round = 0; round < 5; ++round) {
    submit("zoom", zoom());
    ack(1, 1);
    complete(1, 1);
    link_->inquire(InquiryKind::zoom_position, now_);
    reply({0x90, 0x50, 1, 0, 0, 0, 0xff}, 1);
    pass(700 * ms);
  }
  EXPECT_GE(std::ranges::count(told_, std::string("zoom accepted")), 4);
  EXPECT_GE(std::ranges::count(told_, std::string("answer 01 00 00 00")), 4);
}

TEST_F(LinkTest, LateAnswerOfAnotherInquiryIsNotTaken) {
  start_serial();
  link_->inquire(InquiryKind::pan_tilt_position, now_);
  pass(600 * ms);
  EXPECT_TRUE(was_told("no answer"));
  link_->inquire(InquiryKind::zoom_position, now_);
  reply({0x90, 0x50, 0, 0, 0, 1, 0, 0, 0, 2, 0xff});
  reply({0x90, 0x50, 1, 0, 0, 0, 0xff});
  EXPECT_EQ(told_.back(), "answer 01 00 00 00");
}

TEST_F(LinkTest, LateReplyWithAnOldNumberIsIgnored) {
  start_udp();
  submit("zoom", zoom());
  ack(1, 0);
  complete(1, 0);
  submit("stop", stop());
  ack(1, 0);
  EXPECT_FALSE(was_told("stop accepted"));
  ack(1, 1);
  EXPECT_TRUE(was_told("stop accepted"));
}

TEST_F(LinkTest, ContinuousMovesFollowEachOtherWithoutCancel) {
  start_udp();
  for (Byte speed = 1; speed <= 3; ++speed) {
    submit("drive", drive(speed));
    ack(1, speed - 1);
  }
  EXPECT_EQ(count("81 21 FF"), 0U);
  EXPECT_EQ(sent_.size(), 3U);
}

TEST_F(LinkTest, ContinuousMoveDoesNotWaitForTheAckOfAnother) {
  start_udp();
  submit("first", drive(1));
  submit("second", drive(2));
  EXPECT_EQ(sent_.size(), 2U);
  pass(50 * ms);
  ack(1, 0);
  ack(2, 1);
  EXPECT_TRUE(was_told("second accepted"));
}

TEST_F(LinkTest, ClosedTransportFailsEverything) {
  start_serial();
  submit("move", move());
  submit("zoom", zoom());
  link_->stop();
  EXPECT_TRUE(was_told("move: there is no connection to the camera"));
  EXPECT_TRUE(was_told("zoom: there is no connection to the camera"));
  EXPECT_TRUE(was_told("lost"));
  submit("stop", stop());
  EXPECT_TRUE(was_told("stop: there is no connection to the camera"));
  EXPECT_EQ(link_->deadline(now_), INT64_MAX);
}

TEST_F(LinkTest, AtRestItHasNothingToDo) {
  start_udp();
  submit("move", move());
  ack(1, 0);
  complete(1, 0);
  EXPECT_EQ(link_->deadline(now_), INT64_MAX);
}

}  // namespace
}  // namespace visca
