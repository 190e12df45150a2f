// recording.h - recordings of the frames between clients and one driver: pcapng files of link type 147 (USER0).
//
// The data of a packet is a pseudo header of 24 bytes, then the frame as on the socket:
//
//   0   4  "PTZ1"
//   4   1  direction: 0 request, 1 reply
//   5   1  flags: 1 older than the recording, 2 a reply that could not be sent
//   6   2  0
//   8   4  number of the client's connection
//   12  4  its process, 0 if unknown
//   16  4  its user, 0xffffffff if unknown
//   20  4  frames lost before this one
//
// Numbers are little-endian, except for those of the frame's header, which are in the machine's byte order.
#pragma once
#include <glib.h>

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "handles.h"

namespace ptzctl {

constexpr std::size_t frame_header_size = 8, most_frame_bytes = 2560;

struct RecordedFrame {
  guint32 number = 0;  // of the packet in the file, from 1
  gint64 time_ns = 0;  // since 1970
  bool is_reply = false, past = false, unsent = false;
  guint32 client = 0;
  gint32 pid = 0;
  guint32 uid = G_MAXUINT32;
  guint32 lost = 0;
  std::vector<guint8> bytes;  // the frame with its header; at least as long as a header

  [[nodiscard]] guint32 length() const;  // that the header has
  // Whether the bytes are one frame.
  [[nodiscard]] bool is_well_framed() const { return length() == bytes.size() && !has_malformed_length(); }
  // No frame has such a length: a driver closes the connection of a client that sends it.
  [[nodiscard]] bool has_malformed_length() const {
    return length() < frame_header_size || length() > most_frame_bytes;
  }
  [[nodiscard]] guint32 message_id() const;
  [[nodiscard]] std::span<const guint8> body() const { return std::span(bytes).subspan(frame_header_size); }
};

// A frame with a header for this body.
[[nodiscard]] std::vector<guint8> frame_of(guint32 message_id, std::span<const guint8> body);

// What a recording says of the driver and of the tool.
struct RecordingOrigin {
  std::string driver, program, library_version, tool;
  guint32 protocol_version = 0;
};

// Every packet is written at once by one call, so that what a killed recorder leaves can be read. Nothing more is
// written after a failure: a packet of which the disk has taken a part only is cut off again.
class RecordingWriter {
  tools::UniqueFd owned_;
  int fd_;
  int error_ = 0;

  void write_block(const std::string &block);

 public:
  // Of a file for its owner alone. Null with errno if it cannot be made; EEXIST if there is one, unless it is replaced.
  [[nodiscard]] static std::optional<RecordingWriter> create(const char *path, bool is_replaced);
  explicit RecordingWriter(tools::UniqueFd owned) : owned_(std::move(owned)), fd_(owned_.get()) {}
  explicit RecordingWriter(int borrowed) : fd_(borrowed) {}
  void begin(const RecordingOrigin &origin);
  void write(const RecordedFrame &frame, const std::string &comment);
  // errno of the first failure; 0 if all was written.
  [[nodiscard]] int error() const { return error_; }
};

struct Recording {
  std::vector<RecordedFrame> frames;
  std::string warning;  // the file ends within a packet, after these frames; empty if it is whole
};

// Nothing, with the problem, if the file cannot be read or is no recording. "-" is standard input.
[[nodiscard]] std::optional<Recording> read_recording(const char *path, std::string &problem);

}  // namespace ptzctl
