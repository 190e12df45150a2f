// faults/faulty_answers.h - the answers of the simulated driver, with one fault.
#pragma once
#include <ptz_serialize.h>

#include <optional>
#include <string>
#include <utility>

#include "../owners.h"
#include "../sim_driver.h"
#include "fault_list.h"

namespace sim {

using Body = std::string;

[[nodiscard]] gint32 command_of(const Body &body);
// A body that holds the command word alone.
[[nodiscard]] Body bare(gint32 command);
[[nodiscard]] Body refusal(PTZKitErrorCode code, const char *text);

template <auto write>
[[nodiscard]] Body written(const auto &message) {
  const Array body(ptz_serialize_create_array());
  write(&message, body.get(), nullptr);
  return {body->data, body->len};
}
// Null if the body is not this message.
template <auto read, auto release>
[[nodiscard]] auto message_in(const Body &body) {
  auto *const message = read(reinterpret_cast<const guint8 *>(body.data()), body.size(), nullptr);
  return Owned<std::remove_pointer_t<decltype(message)>, release>(message);
}
#define MESSAGE_IN(name, body) (message_in<ptz_kit_##name##_read, ptz_kit_##name##_free>(body))

// What an answer may depend on, of the client that asks.
struct Asker {
  unsigned number;
  unsigned requests;  // with this one
  gint32 first_command;
};

// Asks a driver that is right and has no socket. A fault changes the request before or the reply after that, or leaves
// the driver out. It shows only in what the check of its name does, and some need odd conditions to keep to that.
class FaultyAnswers {
  Object<PTZKitDriver> driver_;
  int share_ = 0;                                                 // of its speed at which a continuous motion runs
  std::optional<std::pair<std::size_t, gint32>> false_position_;  // of an axis, told once
  std::optional<gint32> false_speed_;
  bool to_preset_ = false;

  // Each returns nothing if its command has no fault here.
  std::optional<Body> refuse_or_ignore(gint32 command, const Body &request);
  std::optional<Body> order(gint32 command, const Body &request);
  std::optional<Body> move(const Body &request);
  std::optional<Body> malformed_move(const Body &request);
  std::optional<Body> absolute(PTZKitMoveRequest &wanted, std::size_t axis);
  std::optional<Body> relative(PTZKitMoveRequest &wanted, std::size_t axis);
  std::optional<Body> continuous(PTZKitMoveRequest &wanted, std::size_t axis);
  std::optional<Body> move_command(const Body &request);
  std::optional<Body> stop(const Body &request);
  std::optional<Body> goto_preset(const Body &request);
  std::optional<Body> list_presets(const Body &request);
  std::optional<Body> store_preset(const Body &request);

  // The right reply, changed.
  Body query(const Asker &asker, gint32 command, const Body &request);
  Body query_position(const Asker &asker, const Body &reply);
  Body query_speed(const Body &reply);
  Body capabilities(const Asker &asker, const Body &reply);
  Body right(const Body &request);

 public:
  // Takes a driver that is started.
  explicit FaultyAnswers(Object<PTZKitDriver> driver) : driver_(std::move(driver)) {}
  [[nodiscard]] bool moving();
  [[nodiscard]] const Head &head() { return head_of(driver_.get()); }
  [[nodiscard]] bool going_to_preset() { return to_preset_ && moving(); }
  // Nothing if the driver keeps silent.
  std::optional<Body> answer(const Asker &asker, const Body &request);
};

}  // namespace sim
