// reply_comparison.h - the differences between a recorded reply and the one that was received, field by field.
#pragma once
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "message_description.h"
#include "subcommand.h"

namespace ptzctl {

struct Difference {
  std::string field;                       // "position.pan"; empty if it is about the whole reply
  std::string recorded, received;          // as people read them
  [[nodiscard]] std::string text() const;  // "position.pan 1000 became 1200"
};
using Differences = std::vector<Difference>;
using BodyBytes = std::span<const guint8>;

class ReplyComparison {
  const MessageDescription &description_;
  Words ignored_;
  gint64 tolerance_ = 0;
  bool is_exact_ = false;

  [[nodiscard]] bool is_ignored(const std::string &command, const std::string &path) const;
  [[nodiscard]] bool has_axis_unit(const std::string &command, const std::string &path) const;

 public:
  explicit ReplyComparison(const MessageDescription &description) : description_(description) {}
  // A field, or the beginning of one, such as "position", "position.pan" or "query_position.position". False if no
  // reply has such a field; the words are those that are possible.
  [[nodiscard]] bool ignore(const std::string &field, Words &possible);
  // By how much positions and speeds may differ, in hundredths.
  void tolerate(gint64 hundredths) { tolerance_ = hundredths; }
  // Compares what a moving head says of itself, too.
  void be_exact() { is_exact_ = true; }

  [[nodiscard]] Differences differences(BodyBytes recorded, BodyBytes received) const;
  // Whether the head was at rest in the recording and has not come to rest yet.
  [[nodiscard]] bool is_rest_due(BodyBytes recorded, BodyBytes received) const;
};

}  // namespace ptzctl
