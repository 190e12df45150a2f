#include <fcntl.h>
#include <sys/file.h>
#include <termios.h>

#include <cerrno>

#include "transport.h"

namespace visca {

namespace {

speed_t speed_of(unsigned baud) {
  switch (baud) {
    case 2400:
      return B2400;
    case 4800:
      return B4800;
    case 19200:
      return B19200;
    case 38400:
      return B38400;
    case 57600:
      return B57600;
    case 115200:
      return B115200;
    default:
      return B9600;
  }
}

// 8 data bits, no parity, 1 stop bit, no flow control. Modem lines are ignored: many cables do not have them.
bool set_up(int fd, unsigned baud) {
  termios settings = {};
  if (tcgetattr(fd, &settings) != 0) return false;
  cfmakeraw(&settings);
  settings.c_cflag &= ~static_cast<tcflag_t>(CSTOPB | PARENB | CRTSCTS | HUPCL);
  settings.c_cflag |= CLOCAL | CREAD;
  settings.c_iflag &= ~static_cast<tcflag_t>(IXON | IXOFF | IXANY);
  settings.c_cc[VMIN] = 1;
  settings.c_cc[VTIME] = 0;
  cfsetispeed(&settings, speed_of(baud));
  cfsetospeed(&settings, speed_of(baud));
  return tcsetattr(fd, TCSANOW, &settings) == 0 && tcflush(fd, TCIOFLUSH) == 0;
}

class SerialTransport final : public Transport {
  const Address address_;
  TransportUser &user_;
  Stream stream_;

 public:
  SerialTransport(const Address &address, TransportUser &user) : address_(address), user_(user), stream_(user) {}

  void open() override {
    UniqueFd fd(::open(address_.host.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    // A lock of the file goes with its holder; TIOCEXCL would outlive a driver that was killed if the other end of a
    // pseudo-terminal keeps it open.
    if (fd && flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
      const std::string reason =
          errno == EWOULDBLOCK ? "another driver uses it" : std::string("it cannot be locked: ") + g_strerror(errno);
      return user_.transport_is_closed(address_.host + ": " + reason);
    }
    if (!fd || !set_up(fd.get(), address_.baud)) {
      return user_.transport_is_closed(address_.host + ": " + g_strerror(errno));
    }
    stream_.start(std::move(fd));
    user_.transport_is_open();
  }
  void close() override { stream_.close(); }
  void write(ByteSpan bytes) override { stream_.write(bytes); }
};

}  // namespace

std::unique_ptr<Transport> make_serial_transport(const Address &address, TransportUser &user) {
  return std::make_unique<SerialTransport>(address, user);
}

}  // namespace visca
