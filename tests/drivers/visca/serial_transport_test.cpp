// The serial transport with a pseudo-terminal.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/file.h>

#include <cerrno>

#include "interpose.h"
#include "transport.h"

namespace {

int lock_error = 0;  // 0: the lock is taken

}  // namespace

INTERPOSE(int, flock, (int fd, int operation)) {
  if (lock_error == 0) return REAL(flock)(fd, operation);
  errno = lock_error;
  return -1;
}

namespace visca {
namespace {

class SerialTransportTest : public testing::Test, public TransportUser {
 protected:
  UniqueFd other_end_{posix_openpt(O_RDWR | O_NOCTTY)};
  bool is_open_ = false;
  std::string reason_;

  void transport_is_open() override { is_open_ = true; }
  void transport_is_closed(const std::string &reason) override { reason_ = reason; }
  void on_bytes(ByteSpan) override {}

  void open(int error) {
    ASSERT_EQ(grantpt(other_end_.get()), 0);
    ASSERT_EQ(unlockpt(other_end_.get()), 0);
    lock_error = error;
    const Address address = {.kind = TransportKind::serial, .host = ptsname(other_end_.get())};
    const auto transport = make_serial_transport(address, *this);
    transport->open();
    lock_error = 0;
  }
};

TEST_F(SerialTransportTest, OpenWithFreeTerminalOpens) {
  open(0);
  EXPECT_TRUE(is_open_) << reason_;
}

TEST_F(SerialTransportTest, OpenWithTerminalOfAnotherDriverSaysSo) {
  open(EWOULDBLOCK);
  EXPECT_FALSE(is_open_);
  EXPECT_NE(reason_.find("another driver uses it"), std::string::npos) << reason_;
}

TEST_F(SerialTransportTest, OpenWithoutLockIsAnError) {
  open(ENOLCK);
  EXPECT_FALSE(is_open_);
  EXPECT_NE(reason_.find("it cannot be locked: "), std::string::npos) << reason_;
}

}  // namespace
}  // namespace visca
