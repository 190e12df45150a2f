#include <pcap/pcap.h>

#include <cstring>

#include "plain_text.h"
#include "recording.h"

namespace ptzctl {

namespace {

using Capture = tools::Handle<pcap_t, pcap_close>;

constexpr std::size_t pseudo_header_size = 24;
constexpr int link_type = DLT_USER0;

guint32 little_endian_at(const guint8 *bytes) {
  guint32 value = 0;
  std::memcpy(&value, bytes, sizeof value);
  return GUINT32_FROM_LE(value);
}

// What is wrong with the packet; empty if it is a frame.
std::string problem_with(const pcap_pkthdr &header, const guint8 *data) {
  if (header.caplen != header.len) {
    return "has " + std::to_string(header.caplen) + " of " + std::to_string(header.len) + " bytes";
  }
  if (header.caplen < pseudo_header_size + frame_header_size) return "is too short for a frame";
  if (header.caplen > pseudo_header_size + G_MAXUINT16) return "is too long for a frame";
  if (std::memcmp(data, "PTZ1", 4) != 0) return "does not begin with \"PTZ1\"";
  if (data[4] > 1) return "has the direction " + std::to_string(data[4]);
  return "";
}

RecordedFrame frame_from(const pcap_pkthdr &header, const guint8 *data) {
  RecordedFrame frame;
  // libpcap gives nanoseconds in the place of microseconds.
  frame.time_ns = gint64{header.ts.tv_sec} * 1'000'000'000 + header.ts.tv_usec;
  frame.is_reply = data[4] == 1;
  frame.past = (data[5] & 1) != 0;
  frame.unsent = (data[5] & 2) != 0;
  frame.client = little_endian_at(data + 8);
  frame.pid = static_cast<gint32>(little_endian_at(data + 12));
  frame.uid = little_endian_at(data + 16);
  frame.lost = little_endian_at(data + 20);
  frame.bytes.assign(data + pseudo_header_size, data + header.caplen);
  return frame;
}

// libpcap has no code for a file that ends too early.
bool is_cut(const char *error) { return std::strstr(error, "truncated") != nullptr; }

// Times beyond these would overflow a number of nanoseconds.
bool is_time_sensible(const pcap_pkthdr &header) {
  return header.ts.tv_sec >= 0 && header.ts.tv_sec < G_MAXINT64 / 1'000'000'000 && header.ts.tv_usec >= 0 &&
         header.ts.tv_usec < 1'000'000'000;
}

std::optional<Recording> read_packets(pcap_t *capture, std::string &problem) {
  Recording recording;
  for (guint32 number = 1;; ++number) {
    pcap_pkthdr *header = nullptr;
    const guint8 *data = nullptr;
    const int result = pcap_next_ex(capture, &header, &data);
    if (result == PCAP_ERROR_BREAK) return recording;  // the end of the file
    if (result != 1) {
      const std::string reason = tools::plain_text(pcap_geterr(capture));
      const std::string at = "packet " + std::to_string(number);
      if (is_cut(pcap_geterr(capture))) {
        recording.warning = "the file ends within " + at + ", the frames before it are used: " + reason;
        return recording;
      }
      problem = at + ": " + reason;
      return std::nullopt;
    }
    std::string wrong = problem_with(*header, data);
    if (wrong.empty() && !is_time_sensible(*header)) wrong = "has a time that cannot be";
    if (!wrong.empty()) {
      problem = "packet " + std::to_string(number) + " " + wrong;
      return std::nullopt;
    }
    recording.frames.push_back(frame_from(*header, data));
    recording.frames.back().number = number;
  }
}

}  // namespace

std::optional<Recording> read_recording(const char *path, std::string &problem) {
  char error[PCAP_ERRBUF_SIZE] = "";
  const Capture capture(pcap_open_offline_with_tstamp_precision(path, PCAP_TSTAMP_PRECISION_NANO, error));
  if (capture == nullptr) {
    const std::string text = error, before = std::string(path) + ": ";
    problem = tools::plain_text(text.starts_with(before) ? text.substr(before.size()) : text);
    return std::nullopt;
  }
  if (const int type = pcap_datalink(capture.get()); type != link_type) {
    problem = "it is no recording of frames: its link type is " + std::to_string(type) + ", not 147";
    return std::nullopt;
  }
  return read_packets(capture.get(), problem);
}

}  // namespace ptzctl
