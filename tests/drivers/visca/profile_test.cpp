// Scales, zoom tables and addresses.
#include "profile.h"

#include <gtest/gtest.h>

#include "address.h"

namespace visca {

namespace {

TEST(Profile, ThereIsAGenericOne) {
  const auto profile = find_profile("generic");
  ASSERT_TRUE(profile);
  EXPECT_EQ(profile->pan.maximum, 0x08db);
  EXPECT_EQ(profile->pan.minimum, static_cast<std::int16_t>(0xf725));
  EXPECT_EQ(profile->tilt.minimum, static_cast<std::int16_t>(0xfe70));
  EXPECT_EQ(profile->tilt.maximum, 0x04b0);
  EXPECT_FALSE(find_profile("none"));
}

TEST(AxisScale, TurnsDegreesIntoStepsAndBack) {
  const AxisScale scale = find_profile("steps-14.4")->pan;
  EXPECT_EQ(scale.steps_of(17000), 2448);
  EXPECT_EQ(scale.steps_of(-17000), -2448);
  EXPECT_EQ(scale.steps_of(99999), 2448);
  EXPECT_EQ(scale.hundredths_of(144), 1000);
}

TEST(AxisScale, SpeedStepIsAShareOfTheHighestAndAtLeast1) {
  const AxisScale scale = find_profile("generic")->pan;
  EXPECT_EQ(scale.speed_step(1), 0x18);
  EXPECT_EQ(scale.speed_step(0.5), 0x0c);
  EXPECT_EQ(scale.speed_step(0.001), 1);
  EXPECT_EQ(scale.speed_step(5), 0x18);
}

TEST(ZoomTable, InterpolatesBetweenItsEntries) {
  const ZoomTable zoom = find_profile("generic")->zoom;
  EXPECT_EQ(zoom.position_of(100), 0);
  EXPECT_EQ(zoom.position_of(200), 0x1606);
  EXPECT_EQ(zoom.position_of(1800), 0x4000);
  EXPECT_EQ(zoom.position_of(150), 0x0b03);
  EXPECT_EQ(zoom.position_of(5000), 0x4000);
  EXPECT_EQ(zoom.magnification_of(0x1606), 200);
  EXPECT_EQ(zoom.magnification_of(0x0b03), 150);
  EXPECT_EQ(zoom.magnification_of(0x5000), 1800);
}

TEST(ZoomTable, EachMagnificationSurvivesTheRoundTrip) {
  const ZoomTable zoom = find_profile("generic")->zoom;
  for (std::int32_t magnification = zoom.least(); magnification <= zoom.most(); ++magnification) {
    EXPECT_NEAR(zoom.magnification_of(zoom.position_of(magnification)), magnification, 1);
  }
}

TEST(ZoomTable, IsReadFromText) {
  std::string problem;
  const auto zoom = ZoomTable::parse("1=0, 2.5 = 0x1000, 10=16384", problem);
  ASSERT_TRUE(zoom) << problem;
  EXPECT_EQ(zoom->most(), 1000);
  EXPECT_EQ(zoom->position_of(250), 0x1000);
}

TEST(ZoomTable, RefusesOtherText) {
  for (const char *text : {"", "1=0", "1=0, 1=5", "2=0, 1=5", "1=5, 2=0", "1, 2", "x=1, 2=3", "1=0, 2=70000"}) {
    std::string problem;
    EXPECT_FALSE(ZoomTable::parse(text, problem)) << text;
    EXPECT_NE(problem, "") << text;
  }
}

struct AddressCase {
  const char *text;
  TransportKind kind;
  const char *host;
  unsigned port, baud;
};

TEST(ParseAddress, TakesEachTransport) {
  const AddressCase cases[] = {
      {"serial:/dev/ttyUSB0", TransportKind::serial, "/dev/ttyUSB0", 0, 9600},
      {"serial:/dev/ttyS1?baud=38400", TransportKind::serial, "/dev/ttyS1", 0, 38400},
      {"udp:camera", TransportKind::udp, "camera", 52381, 9600},
      {"udp:192.0.2.1:5000", TransportKind::udp, "192.0.2.1", 5000, 9600},
      {"udp:[2001:db8::1]:5000", TransportKind::udp, "2001:db8::1", 5000, 9600},
      {"udp-raw:[2001:db8::1]", TransportKind::udp_raw, "2001:db8::1", 1259, 9600},
      {"udp-raw:2001:db8::1", TransportKind::udp_raw, "2001:db8::1", 1259, 9600},
      {"tcp:camera.example", TransportKind::tcp, "camera.example", 5678, 9600},
  };
  for (const AddressCase &each : cases) {
    std::string problem;
    const auto address = parse_address(each.text, problem);
    ASSERT_TRUE(address) << each.text << ": " << problem;
    EXPECT_EQ(address->kind, each.kind) << each.text;
    EXPECT_EQ(address->host, each.host) << each.text;
    EXPECT_EQ(address->port, each.port) << each.text;
    EXPECT_EQ(address->baud, each.baud) << each.text;
  }
}

TEST(ParseAddress, SaysWhatIsWrong) {
  for (const char *text :
       {"", "camera", "http:camera", "udp:", "udp:camera:0", "udp:camera:70000", "udp:camera:port", "udp:[::1",
        "udp:[::1]x", "serial:", "serial:/dev/ttyS0?baud=1", "serial:/dev/ttyS0?parity=n"}) {
    std::string problem;
    EXPECT_FALSE(parse_address(text, problem)) << text;
    EXPECT_NE(problem, "") << text;
  }
}

}  // namespace
}  // namespace visca
