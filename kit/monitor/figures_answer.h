// kit/monitor/figures_answer.h - the dictionary of ptz_kit_monitor_get_figures(), from the packets of the answer.
#pragma once
#include <gio/gio.h>

#include "handles.h"
#include "monitor/packet.h"

namespace ptz_kit {

class FiguresAnswer {
  GVariantDict driver_;
  GVariantBuilder clients_;
  guint client_count_ = 0;
  guint64 lost_ = 0;
  bool has_driver_ = false;

  [[nodiscard]] bool read_driver(PacketReader &reader);
  [[nodiscard]] bool read_client(PacketReader &reader);

 public:
  FiguresAnswer();
  FiguresAnswer(const FiguresAnswer &) = delete;
  ~FiguresAnswer();

  // False if the packet is malformed or not in its place. The reader is behind the header.
  [[nodiscard]] bool take(PacketKind kind, PacketReader &reader);
  void set_lost(guint64 lost) { lost_ = lost; }
  // The dictionary, after the last packet; null if there was none of the driver.
  [[nodiscard]] GVariant *finish();
};

}  // namespace ptz_kit
