// broken_answers.h - the answers of the simulated driver, with one fault.
#pragma once
#include <optional>
#include <string>
#include <string_view>

#include "driver.h"

namespace broken {

using namespace example;

// The one fault of this process, named as the check that is to find it; empty for none.
extern std::string fault_name;
inline bool fault(std::string_view name) { return fault_name == name; }

// What an answer may depend on, of the client that asks.
struct Asker {
  unsigned number;
  unsigned requests;  // with this one
  gint32 first_command;
};

class Answers {
  Driver driver_;
  int share_ = 0;                                                 // of its speed at which a continuous motion runs
  std::optional<std::pair<std::size_t, gint32>> false_position_;  // of an axis, told once
  std::optional<gint32> false_speed_;
  bool to_preset_ = false;

  std::optional<Body> move(const Body &request);
  std::optional<Body> move_command(const Body &request);
  std::optional<Body> preset(gint32 command, const Body &request);
  Body query(const Asker &asker, gint32 command, const Body &request);
  Body right(const Body &request);

 public:
  Answers();
  bool moving();
  [[nodiscard]] const Head &head() { return driver_.head(); }
  bool going_to_preset() { return to_preset_ && moving(); }
  // None where the driver keeps silent.
  std::optional<Body> answer(const Asker &asker, const Body &request);
};

gint32 command_of(const Body &body);

}  // namespace broken
