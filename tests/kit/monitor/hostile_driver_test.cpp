// PTZKitMonitor and a monitor socket that sends anything.
#include <sys/socket.h>

#include <random>

#include "monitored_driver.h"

namespace {

// Little-endian, as on the wire.
class Packet {
  std::string bytes_;

 public:
  Packet(std::uint16_t kind, std::uint16_t flags, std::uint32_t serial) { put(kind).put(flags).put(serial); }
  template <typename T>
  Packet &put(T value) {
    for (std::size_t i = 0; i < sizeof value; ++i)
      bytes_ += static_cast<char>(static_cast<std::uint64_t>(value) >> (8 * i));
    return *this;
  }
  Packet &text(const std::string &text) {
    put(static_cast<std::uint16_t>(text.size()));
    bytes_ += text;
    return *this;
  }
  Packet &counters(std::uint32_t buckets = 2) {
    for (std::uint64_t value = 1; value <= 6; ++value) put(value);
    put(std::uint32_t{0}).put(buckets);
    for (std::uint32_t i = 0; i < MIN(buckets, 2U); ++i) put(i);
    return *this;
  }
  [[nodiscard]] const std::string &bytes() const { return bytes_; }
};

constexpr std::uint16_t driver_figures = 0x101, client_figures = 0x102, end_of_figures = 0x103, frame = 0x104;

Packet driver_packet(std::uint32_t serial = 1) {
  Packet packet(driver_figures, 0, serial);
  packet.put(std::int64_t{2}).put(std::int64_t{1}).put(std::int32_t{3}).put(std::uint32_t{4});
  packet.put(std::uint32_t{5}).put(std::uint32_t{6}).text("name").text("program").text("socket").text("1.2");
  return packet;
}
Packet client_packet(std::uint32_t serial = 1) {
  Packet packet(client_figures, 0, serial);
  packet.put(std::uint32_t{1}).put(std::int32_t{2}).put(std::uint32_t{3}).put(std::int64_t{4});
  packet.put(std::int64_t{5}).put(std::int32_t{6}).text("/bin/\xff");
  return packet;
}
Packet frame_packet(const std::string &program, std::size_t body_length) {
  Packet packet(frame, 1, 0);
  for (int i = 0; i < 3; ++i) packet.put(std::int64_t{7});
  for (int i = 0; i < 4; ++i) packet.put(std::uint32_t{8});
  packet.text(program);
  for (std::size_t i = 0; i < body_length; ++i) packet.put('b');
  return packet;
}

class HostileDriver : public testing::Test {
 protected:
  ptz_test::TempDir dir_;
  const std::string path_ = dir_.file("socket");
  const ptz_test::Listener listener_{path_ + ".monitor", SOCK_SEQPACKET};
  const ptz_test::GlibLogCapture log_;
  Monitor monitor_{path_};
  ptz_test::Descriptor driver_;

  void SetUp() override {
    ASSERT_EQ(monitor_.open(), "");
    driver_ = listener_.accept();
    ASSERT_TRUE(driver_);
  }
  void TearDown() override { EXPECT_EQ(log_.criticals(), 0U); }
  void send(const std::string &packet) {
    ASSERT_EQ(::send(driver_.get(), packet.data(), packet.size(), MSG_NOSIGNAL), static_cast<ssize_t>(packet.size()));
  }
  void send(const Packet &packet) { send(packet.bytes()); }
  std::string figures(Variant *result = nullptr) {
    GError *error = nullptr;
    Variant figures(ptz_kit_monitor_get_figures(monitor_.get(), 50, nullptr, &error));
    EXPECT_EQ(figures == nullptr, error != nullptr);
    if (result != nullptr) *result = std::move(figures);
    return Monitor::text_of(error);
  }
  const std::string malformed_ = kit_error(PTZ_KIT_ERROR_MALFORMED);
};

TEST_F(HostileDriver, FiguresOfWellFormedPacketsAreRead) {
  send(driver_packet().counters());
  send(client_packet().counters().put('x'));  // of a later version
  send(Packet(end_of_figures, 0, 1));
  Variant figures;
  EXPECT_EQ(this->figures(&figures), "");
  EXPECT_EQ(text_in(figures.get(), "library-version"), "1.2");
  EXPECT_EQ(number_in(figures.get(), "timeouts"), 6);
  const auto clients = clients_in(figures.get());
  ASSERT_EQ(clients.size(), 1U);
  EXPECT_EQ(text_in(clients[0].get(), "program"), "/bin/\uFFFD");
  EXPECT_EQ(number_in(clients[0].get(), "last-command"), 6);
}

TEST_F(HostileDriver, FiguresOfEachShorterPacketAreMalformed) {
  const std::string driver = driver_packet().counters().bytes();
  const std::string client = client_packet().counters().bytes();
  guint32 serial = 0;
  for (const std::string *whole : {&driver, &client}) {
    for (std::size_t length = 8; length < whole->size(); ++length) {
      ++serial;
      const auto with_serial = [=](std::string packet) {
        packet.replace(4, 4, reinterpret_cast<const char *>(&serial), 4);
        return packet;
      };
      if (whole == &client) send(with_serial(driver));
      send(with_serial(whole->substr(0, length)));
      send(with_serial(Packet(end_of_figures, 0, 1).bytes()));
      ASSERT_EQ(figures(), malformed_) << length;
      ASSERT_EQ(monitor_.open(), "");
      driver_ = listener_.accept();
    }
  }
}

TEST_F(HostileDriver, FiguresWithoutPacketOfDriverAreMalformed) {
  send(Packet(end_of_figures, 0, 1));
  EXPECT_EQ(figures(), malformed_);
  EXPECT_EQ(figures(), kit_error(PTZ_KIT_ERROR_NOT_CONNECTED));
  EXPECT_TRUE(ptz_test::run_until([&] { return monitor_.closed == 1; }));
}

TEST_F(HostileDriver, FiguresWithClientBeforeDriverAreMalformed) {
  send(client_packet().counters());
  EXPECT_EQ(figures(), malformed_);
}

TEST_F(HostileDriver, FiguresWithTwoDriversAreMalformed) {
  send(driver_packet().counters());
  send(driver_packet().counters());
  EXPECT_EQ(figures(), malformed_);
}

TEST_F(HostileDriver, FiguresWithMoreBucketsThanBytesAreMalformed) {
  send(driver_packet().counters(0x40000001));
  EXPECT_EQ(figures(), malformed_);
}

TEST_F(HostileDriver, PacketWithoutHeaderIsMalformed) {
  send(std::string("abc"));
  EXPECT_EQ(figures(), malformed_);
}

TEST_F(HostileDriver, PacketLargerThanTheBufferIsMalformed) {
  send(std::string(100'000, '\1'));
  EXPECT_EQ(figures(), malformed_);
}

TEST_F(HostileDriver, AnswerToEarlierRequestIsSkipped) {
  EXPECT_EQ(figures(), kit_error(PTZ_KIT_ERROR_TIMED_OUT));
  send(driver_packet(1).counters());
  send(Packet(end_of_figures, 0, 1));
  send(driver_packet(2).counters());
  send(Packet(end_of_figures, 0, 2));
  EXPECT_EQ(figures(), "");
}

TEST_F(HostileDriver, PacketOfUnknownKindIsSkipped) {
  send(Packet(0x7777, 1, 1).text("later"));
  send(driver_packet().counters());
  send(Packet(end_of_figures, 0, 1));
  EXPECT_EQ(figures(), "");
}

TEST_F(HostileDriver, DriverThatSendsWithoutEndTimesOut) {
  struct Flood {
    int fd;
    gint stop = 0;
  } flood{driver_.get(), 0};
  GThread *thread = g_thread_new(
      "flood",
      [](gpointer data) -> gpointer {
        auto &self = *static_cast<Flood *>(data);
        const std::string packet = frame_packet("/bin/x", 4).bytes();
        while (g_atomic_int_get(&self.stop) == 0)
          ::send(self.fd, packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        return nullptr;
      },
      &flood);
  EXPECT_EQ(figures(), kit_error(PTZ_KIT_ERROR_TIMED_OUT));
  g_atomic_int_set(&flood.stop, 1);
  g_thread_join(thread);
  ptz_test::run_pending();
  EXPECT_LE(monitor_.frames.size(), 30'000U);
}

TEST_F(HostileDriver, EndDuringFiguresIsLost) {
  send(driver_packet().counters());
  driver_.reset();
  EXPECT_EQ(figures(), kit_error(PTZ_KIT_ERROR_LOST));
  EXPECT_EQ(monitor_.closed, 0);
  EXPECT_TRUE(ptz_test::run_until([&] { return monitor_.closed == 1; }));
}

TEST_F(HostileDriver, CancelledCancellableEndsTheWait) {
  GCancellable *cancellable = g_cancellable_new();
  GThread *thread = g_thread_new(
      "cancel",
      [](gpointer data) -> gpointer {
        g_usleep(20'000);
        g_cancellable_cancel(static_cast<GCancellable *>(data));
        return nullptr;
      },
      cancellable);
  GError *error = nullptr;
  EXPECT_EQ(ptz_kit_monitor_get_figures(monitor_.get(), 60'000, cancellable, &error), nullptr);
  EXPECT_EQ(Monitor::text_of(error), io_error(G_IO_ERROR_CANCELLED));
  g_thread_join(thread);
  g_object_unref(cancellable);
}

TEST_F(HostileDriver, FrameOfEachShorterPacketClosesTheConnection) {
  const std::string whole = frame_packet("/bin/x", 0).bytes();
  for (std::size_t length = 1; length < whole.size(); ++length) {
    send(whole.substr(0, length));
    ASSERT_TRUE(ptz_test::run_until([&] { return monitor_.closed == static_cast<int>(length); })) << length;
    ASSERT_EQ(monitor_.open(), "");
    driver_ = listener_.accept();
  }
  EXPECT_TRUE(monitor_.frames.empty());
}

TEST_F(HostileDriver, FrameWithBodyLongerThanAnyClosesTheConnection) {
  send(frame_packet("/bin/x", PTZ_SOCKET_BODY_MAX));
  ASSERT_TRUE(ptz_test::run_until([&] { return monitor_.frames.size() == 1; }));
  send(frame_packet("/bin/x", PTZ_SOCKET_BODY_MAX + 1));
  EXPECT_TRUE(ptz_test::run_until([&] { return monitor_.closed == 1; }));
  EXPECT_EQ(monitor_.frames.size(), 1U);
}

TEST_F(HostileDriver, ProgramThatIsNoUtf8IsMadeValid) {
  send(frame_packet("/bin/\xff", 0));
  ASSERT_TRUE(ptz_test::run_until([&] { return monitor_.frames.size() == 1; }));
  EXPECT_STREQ(monitor_.frames[0]->program, "/bin/\uFFFD");
}

TEST_F(HostileDriver, RandomPacketsDoNoHarm) {
  std::mt19937 random(1);
  for (int round = 0; round < 2000; ++round) {
    std::string packet = round % 3 == 0   ? frame_packet("/bin/x", random() % 20).bytes()
                         : round % 3 == 1 ? driver_packet().counters().bytes()
                                          : client_packet().counters().bytes();
    for (unsigned changes = random() % 4; changes > 0; --changes)
      packet[random() % packet.size()] = static_cast<char>(random());
    packet.resize(random() % 2 == 0 ? packet.size() : 1 + random() % packet.size());
    const int closed = monitor_.closed;
    send(packet);
    ptz_test::run_pending();
    if (monitor_.closed == closed) continue;
    ASSERT_EQ(monitor_.open(), "");
    driver_ = listener_.accept();
  }
}

}  // namespace
