// src/transport/frame_reader.h - reads from a descriptor what a FrameAssembler wants.
#pragma once
#include <unistd.h>

#include "transport/frame_assembler.h"

namespace ptz::frame {

struct Reception {
  enum class Outcome {
    incomplete,
    complete,
    malformed,
    end_of_stream,
    failed,  // errno is that of read(2); EAGAIN if there is nothing to read yet
  };
  Outcome outcome;
  gsize count;     // bytes that this call has read, whatever the outcome
  bool in_header;  // the last read asked for the length of the frame
};

// Makes at most two reads: four bytes until the length is known, then the rest of the frame. Bytes that were read
// before a failure are kept.
[[nodiscard]] inline Reception receive_frame(FrameAssembler &assembler, int fd) {
  using Outcome = Reception::Outcome;
  gsize total = 0;
  for (bool in_header = assembler.awaits_length();; in_header = false) {
    const auto wanted = assembler.wanted();
    if (wanted.empty()) return {Outcome::malformed, total, in_header};  // the public fields were overwritten
    const ssize_t count = read(fd, wanted.data(), wanted.size());
    if (count < 0) return {Outcome::failed, total, in_header};
    if (count == 0) return {Outcome::end_of_stream, total, in_header};
    total += static_cast<gsize>(count);
    switch (assembler.take(static_cast<gsize>(count))) {
      case FrameAssembler::Progress::malformed:
        return {Outcome::malformed, total, in_header};
      case FrameAssembler::Progress::complete:
        return {Outcome::complete, total, in_header};
      case FrameAssembler::Progress::incomplete:
        if (!in_header || assembler.awaits_length()) return {Outcome::incomplete, total, in_header};
    }
  }
}

}  // namespace ptz::frame
