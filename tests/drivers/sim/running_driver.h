// tests/drivers/sim/running_driver.h - a driver of a simulated head that has no socket.
#pragma once
#include "messages.h"
#include "sim_driver.h"

namespace sim_test {

class RunningDriver : public testing::Test {
 protected:
  sim::Object<PTZKitDriver> driver_{sim::new_driver()};

  void start() { ASSERT_TRUE(ptz_kit_driver_start(driver_.get(), nullptr)); }
  // Instead of the driver that there was.
  void make() { driver_.reset(sim::new_driver()); }
  void TearDown() override { ptz_kit_driver_stop(driver_.get()); }

  Body answer(const Body &request) {
    const sim::Bytes bytes(g_bytes_new(request.data(), request.size()));
    const sim::Bytes reply(ptz_kit_driver_answer(driver_.get(), bytes.get()));
    gsize length = 0;
    const auto *data = static_cast<const char *>(g_bytes_get_data(reply.get(), &length));
    return {data, length};
  }
};

}  // namespace sim_test
