// Recordings: what is written is read back, and files that are hostile, cut or foreign are refused with the packet.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

#include "temp_dir.h"
#include "wire_frames.h"

namespace {

using namespace ptz_test;
using ptzctl::read_recording;
using ptzctl::RecordedFrame;
using ptzctl::Recording;
using ptzctl::RecordingWriter;

struct WireRecording : testing::Test {
  TempDir dir;
  const std::string path = dir.file("recording.pcapng");

  [[nodiscard]] std::string bytes() const {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  void put(const std::string &contents) const { std::ofstream(path, std::ios::binary) << contents; }
  [[nodiscard]] std::optional<Recording> read(std::string &problem) const {
    return read_recording(path.c_str(), problem);
  }
  [[nodiscard]] std::string problem() const {
    std::string problem;
    EXPECT_FALSE(read(problem));
    return problem;
  }
  void save_two_frames() const {
    MadeUpRecording made;
    made.request(request_of(ask_name));
    made.reply(name_reply("sim-driver"));
    made.save(path);
  }
};

TEST_F(WireRecording, FramesAreReadBackAsWritten) {
  MadeUpRecording made;
  RecordedFrame &request = made.request(request_of(ask_name), 7);
  request.past = true;
  request.lost = 3;
  request.uid = G_MAXUINT32;
  request.pid = -1;
  made.reply({1, 2, 3}, 7).unsent = true;
  made.save(path);
  std::string problem;
  const auto recording = read(problem);
  ASSERT_TRUE(recording) << problem;
  EXPECT_EQ(recording->warning, "");
  ASSERT_EQ(recording->frames.size(), 2U);
  for (std::size_t i = 0; i < 2; ++i) {
    const RecordedFrame &written = made.frames()[i], &frame = recording->frames[i];
    EXPECT_EQ(frame.number, i + 1);
    EXPECT_EQ(frame.time_ns, written.time_ns);
    EXPECT_EQ(
        std::tie(frame.is_reply, frame.past, frame.unsent, frame.client, frame.pid, frame.uid, frame.lost, frame.bytes),
        std::tie(written.is_reply, written.past, written.unsent, written.client, written.pid, written.uid, written.lost,
                 written.bytes));
  }
}

TEST_F(WireRecording, FileIsForItsOwnerOnly) {
  const mode_t before = umask(0);
  save_two_frames();
  umask(before);
  struct stat file = {};
  ASSERT_EQ(stat(path.c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 0777U, 0600U);
}

TEST_F(WireRecording, ReplacementIsANewFile) {
  put("mine");
  const std::string earlier = dir.file("earlier");
  std::filesystem::create_hard_link(path, earlier);
  ASSERT_TRUE(RecordingWriter::create(path.c_str(), true));
  std::ifstream file(earlier, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), "mine");
  EXPECT_EQ(bytes(), "");
}

TEST_F(WireRecording, FileStaysIfItsReplacementCannotBeMade) {
  const std::string folder = dir.file("folder");
  std::filesystem::create_directory(folder);
  EXPECT_FALSE(RecordingWriter::create(folder.c_str(), true));
  EXPECT_EQ(errno, EISDIR);
  EXPECT_TRUE(std::filesystem::is_directory(folder));
}

TEST_F(WireRecording, LinkIsNotFollowed) {
  const std::string target = dir.file("target");
  std::ofstream(target) << "mine";
  std::filesystem::create_symlink(target, path);
  EXPECT_FALSE(RecordingWriter::create(path.c_str(), true));
  EXPECT_EQ(errno, ELOOP);
  EXPECT_EQ(std::filesystem::file_size(target), 4U);
}

TEST_F(WireRecording, PipeWithoutAReaderIsAnError) {
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_FALSE(RecordingWriter::create(path.c_str(), true));
  EXPECT_EQ(errno, ENXIO);
}

TEST_F(WireRecording, ReplacedFileThatOthersCouldReadIsForItsOwnerOnly) {
  put("old and longer than a recording without frames, which is why this text is here at all, and it goes on and on");
  ASSERT_EQ(chmod(path.c_str(), 0644), 0);
  ASSERT_TRUE(RecordingWriter::create(path.c_str(), true));
  struct stat file = {};
  ASSERT_EQ(stat(path.c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 0777U, 0600U);
  EXPECT_EQ(file.st_size, 0);
}

TEST_F(WireRecording, ExistingFileIsNotReplacedUnlessAsked) {
  put("mine");
  EXPECT_FALSE(RecordingWriter::create(path.c_str(), false));
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(bytes(), "mine");
}

TEST_F(WireRecording, FullDiskIsReportedAndNothingMoreIsWritten) {
  auto writer = RecordingWriter::create("/dev/full", true);
  ASSERT_TRUE(writer);
  writer->begin({});
  EXPECT_EQ(writer->error(), ENOSPC);
}

// In a process of its own: the limit on the size of files is one of the process.
int write_until_limit(const std::string &path, rlim_t limit) {
  std::signal(SIGXFSZ, SIG_IGN);
  const rlimit size = {limit, limit};
  setrlimit(RLIMIT_FSIZE, &size);
  MadeUpRecording made;
  const RecordedFrame frame = made.request(request_of(ask_name));
  auto writer = RecordingWriter::create(path.c_str(), true);
  writer->begin({});
  int written = 0;
  while (writer->error() == 0 && written < 100) {
    writer->write(frame, "");
    if (writer->error() == 0) ++written;
  }
  writer->write(frame, "");  // has no effect
  return writer->error() == EFBIG ? written : 101;
}

TEST_F(WireRecording, PacketThatFitsInPartOnlyIsCutOffAgain) {
  const pid_t child = fork();
  if (child == 0) _exit(write_until_limit(path, 1000));
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  std::string problem;
  const auto recording = read(problem);
  ASSERT_TRUE(recording) << problem;
  EXPECT_EQ(recording->warning, "");
  EXPECT_EQ(recording->frames.size(), static_cast<std::size_t>(WEXITSTATUS(status)));
  EXPECT_GT(recording->frames.size(), 3U);
}

TEST_F(WireRecording, FileCutWithinTheLastPacketIsReadUpToThere) {
  save_two_frames();
  const std::string whole = bytes();
  put(whole.substr(0, whole.size() - 5));
  std::string problem;
  const auto recording = read(problem);
  ASSERT_TRUE(recording) << problem;
  EXPECT_EQ(recording->frames.size(), 1U);
  EXPECT_TRUE(recording->warning.starts_with("the file ends within packet 2, the frames before it are used"))
      << recording->warning;
}

TEST_F(WireRecording, FileCutAnywhereIsReadOrRefused) {
  save_two_frames();
  const std::string whole = bytes();
  for (std::size_t size = 0; size < whole.size(); ++size) {
    put(whole.substr(0, size));
    std::string problem;
    const auto recording = read(problem);
    if (recording) {
      EXPECT_LT(recording->frames.size(), 2U);
    } else {
      EXPECT_NE(problem, "");
    }
  }
}

TEST_F(WireRecording, FileWithChangedBytesIsReadOrRefused) {
  save_two_frames();
  const std::string whole = bytes();
  std::mt19937 random(1);
  for (int i = 0; i < 500; ++i) {
    std::string changed = whole;
    for (int n = 0; n < 3; ++n) changed[random() % changed.size()] = static_cast<char>(random());
    put(changed);
    std::string problem;
    const auto recording = read(problem);
    EXPECT_EQ(recording.has_value(), problem.empty());
    for (const RecordedFrame &frame : recording ? recording->frames : std::vector<RecordedFrame>()) {
      EXPECT_GE(frame.bytes.size(), ptzctl::frame_header_size);
      EXPECT_GE(frame.time_ns, 0);
    }
  }
}

TEST_F(WireRecording, MissingFileIsRefused) { EXPECT_NE(problem().find("No such file"), std::string::npos); }

TEST_F(WireRecording, TextFileIsRefused) {
  put("frame 1, Query position: position.pan 1000 became 1200\n");
  EXPECT_NE(problem().find("unknown file format"), std::string::npos);
}

TEST_F(WireRecording, EmptyFileIsRefused) {
  put("");
  EXPECT_NE(problem(), "");
}

TEST_F(WireRecording, CaptureOfOtherLinkTypeIsRefused) {
  save_two_frames();
  std::string changed = bytes();
  changed[changed.find("\x93\0\0\0", 0, 4)] = 1;  // Ethernet
  put(changed);
  EXPECT_EQ(problem(), "it is no recording of frames: its link type is 1, not 147");
}

// The data of the second packet with other bytes at an offset.
struct ChangedPacket {
  std::size_t offset;
  std::string bytes, problem;
};
struct WireRecordingPacket : WireRecording, testing::WithParamInterface<ChangedPacket> {};

TEST_P(WireRecordingPacket, IsRefusedWithItsNumber) {
  save_two_frames();
  std::string changed = bytes();
  const std::size_t data = changed.find("PTZ1", changed.find("PTZ1") + 1);
  changed.replace(data + GetParam().offset, GetParam().bytes.size(), GetParam().bytes);
  put(changed);
  EXPECT_EQ(problem(), GetParam().problem);
}

INSTANTIATE_TEST_SUITE_P(Changed, WireRecordingPacket,
                         testing::Values(ChangedPacket{0, "PTZ2", "packet 2 does not begin with \"PTZ1\""},
                                         ChangedPacket{4, "\x02", "packet 2 has the direction 2"}));

TEST_F(WireRecording, PacketWithoutRoomForAFrameIsRefused) {
  save_two_frames();
  std::string changed = bytes();
  const std::size_t data = changed.find("PTZ1", changed.find("PTZ1") + 1);
  changed[data - 8] = 31;  // captured length
  changed[data - 4] = 31;  // length
  put(changed);
  EXPECT_EQ(problem(), "packet 2 is too short for a frame");
}

TEST_F(WireRecording, PacketThatWasCapturedInPartIsRefused) {
  save_two_frames();
  std::string changed = bytes();
  const std::size_t data = changed.find("PTZ1", changed.find("PTZ1") + 1);
  changed[data - 4] = 100;
  put(changed);
  EXPECT_EQ(problem(), "packet 2 has 48 of 100 bytes");
}

TEST(WireRecordedFrame, IsWellFramedIfTheHeaderHasItsLength) {
  RecordedFrame frame;
  frame.bytes = ptzctl::frame_of(5, std::vector<guint8>{1, 2, 3});
  EXPECT_TRUE(frame.is_well_framed());
  EXPECT_EQ(frame.message_id(), 5U);
  frame.bytes.push_back(4);
  EXPECT_FALSE(frame.is_well_framed());
  frame.bytes = ptzctl::frame_of(5, std::vector<guint8>(3000));
  EXPECT_FALSE(frame.is_well_framed());
}

}  // namespace
