// src/transport/probes.h - static probes (USDT) for bpftrace, perf and gdb: "ptz:frame_sent" and "ptz:frame_received".
//
// Each has four arguments: descriptor, message id, body, length of the body. A probe that nothing has attached to is
// one instruction without effect. Probes fire for whole frames, in servers and clients of the command channel.
#pragma once

#ifdef PTZ_WITH_PROBES
#include <sys/sdt.h>
#define PTZ_PROBE_FRAME(name, fd, message_id, body, length) \
  DTRACE_PROBE4(ptz, name, (fd), (message_id), (body), (length))
#else
#define PTZ_PROBE_FRAME(name, fd, message_id, body, length) static_cast<void>(0)
#endif
