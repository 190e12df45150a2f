#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "recording.h"

namespace ptzctl {

namespace {

constexpr guint32 section_header = 0x0A0D0D0A, interface_description = 1, enhanced_packet = 6;
constexpr guint16 option_end = 0, option_comment = 1, option_application = 4, option_if_name = 2, option_resolution = 9;
constexpr guint16 link_type = 147;

// The numbers of a section are in the byte order of the machine that writes it.
template <typename T>
void put(std::string &to, T value) {
  to.append(reinterpret_cast<const char *>(&value), sizeof value);
}

void pad(std::string &to) { to.append(-to.size() % 4, '\0'); }

void put_option(std::string &to, guint16 code, const std::string &value) {
  const std::string kept = value.substr(0, 0xFFF0);
  put(to, code);
  put(to, static_cast<guint16>(kept.size()));
  to += kept;
  pad(to);
}

void end_options(std::string &to) {
  put(to, option_end);
  put(to, guint16{0});
}

std::string block_of(guint32 type, const std::string &contents) {
  std::string block;
  const auto length = static_cast<guint32>(contents.size() + 3 * sizeof(guint32));
  put(block, type);
  put(block, length);
  block += contents;
  put(block, length);
  return block;
}

void put_little_endian(std::string &to, guint32 value) { put(to, GUINT32_TO_LE(value)); }

std::string packet_of(const RecordedFrame &frame) {
  std::string packet = "PTZ1";
  packet += static_cast<char>(frame.is_reply ? 1 : 0);
  packet += static_cast<char>((frame.past ? 1 : 0) | (frame.unsent ? 2 : 0));
  packet.append(2, '\0');
  put_little_endian(packet, frame.client);
  put_little_endian(packet, static_cast<guint32>(frame.pid));
  put_little_endian(packet, frame.uid);
  put_little_endian(packet, frame.lost);
  return packet.append(reinterpret_cast<const char *>(frame.bytes.data()), frame.bytes.size());
}

std::string text_of(const RecordingOrigin &origin) {
  return "driver " + origin.driver + "\nprogram " + origin.program + "\nlibrary version " + origin.library_version +
         "\nprotocol version " + std::to_string(origin.protocol_version);
}

}  // namespace

namespace {

// A pipe without a reader is an error, and does not block.
int open_special(const char *path) {
  const int fd = open(path, O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd >= 0) fcntl(fd, F_SETFL, O_WRONLY);
  return fd;
}

// The file of before may be readable by others or belong to another user, so a new file takes its name.
int open_in_place_of(const char *path) {
  std::string temporary = std::string(path) + ".XXXXXX";
  const int fd = mkostemp(temporary.data(), O_CLOEXEC);
  if (fd < 0 || rename(temporary.c_str(), path) == 0) return fd;
  const int error = errno;
  unlink(temporary.c_str());
  close(fd);
  errno = error;
  return -1;
}

}  // namespace

std::optional<RecordingWriter> RecordingWriter::create(const char *path, bool is_replaced) {
  struct stat file = {};
  const bool exists = lstat(path, &file) == 0;
  tools::UniqueFd fd(!is_replaced || !exists ? open(path, O_WRONLY | O_CREAT | O_CLOEXEC | O_EXCL, S_IRUSR | S_IWUSR)
                     : S_ISREG(file.st_mode) ? open_in_place_of(path)
                                             : open_special(path));
  if (!fd) return std::nullopt;
  return RecordingWriter(std::move(fd));
}

void RecordingWriter::write_block(const std::string &block) {
  std::size_t written = 0;
  while (error_ == 0 && written < block.size()) {
    const ssize_t count = ::write(fd_, block.data() + written, block.size() - written);
    if (count >= 0) {
      written += static_cast<std::size_t>(count);
    } else if (errno != EINTR) {
      error_ = errno;
    }
  }
  if (error_ == 0 || written == 0) return;
  const off_t end = lseek(fd_, 0, SEEK_CUR);
  const off_t start = end - static_cast<off_t>(written);
  // A pipe cannot be cut: its reader meets the cut packet.
  if (end >= 0 && ftruncate(fd_, start) == 0) lseek(fd_, start, SEEK_SET);
}

void RecordingWriter::begin(const RecordingOrigin &origin) {
  std::string section;
  put(section, guint32{0x1A2B3C4D});
  put(section, guint16{1});
  put(section, guint16{0});
  put(section, gint64{-1});  // the length of the section is not known
  put_option(section, option_comment, text_of(origin));
  put_option(section, option_application, origin.tool);
  end_options(section);
  std::string interface;
  put(interface, link_type);
  put(interface, guint16{0});
  put(interface, guint32{0});  // packets are never cut
  put_option(interface, option_if_name, origin.driver);
  put_option(interface, option_resolution, "\x09");  // nanoseconds
  end_options(interface);
  write_block(block_of(section_header, section) + block_of(interface_description, interface));
}

void RecordingWriter::write(const RecordedFrame &frame, const std::string &comment) {
  const std::string packet = packet_of(frame);
  const auto time = static_cast<guint64>(std::max<gint64>(frame.time_ns, 0));
  const auto length = static_cast<guint32>(packet.size());
  std::string block;
  put(block, guint32{0});  // the only interface
  put(block, static_cast<guint32>(time >> 32));
  put(block, static_cast<guint32>(time));
  put(block, length);
  put(block, length);
  block += packet;
  pad(block);
  if (!comment.empty()) {
    put_option(block, option_comment, comment);
    end_options(block);
  }
  write_block(block_of(enhanced_packet, block));
}

}  // namespace ptzctl
