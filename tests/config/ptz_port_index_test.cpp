#include "ptz_port_index.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <filesystem>
#include <limits>
#include <string>

#include "file_calls.h"
#include "fixtures.h"
#include "fresh_process.h"
#include "syslog_capture.h"

namespace {

using namespace ptz_test;

const std::string fixed_path = "/usr/share/ptz/port_mapping.conf";
const std::string message = "ptz_port_index_load_mapping_file: Failed to load mappings file " + fixed_path + ": ";

// The module keeps what it has loaded until the process ends, so every test asks it in a process of its own.
struct PortIndex : testing::Test {
  TempDir dir;
  std::string path = dir.file("mapping");
  Redirect redirect{fixed_path, path};

  void with(std::string_view content, const std::function<void()> &checks) const {
    write_file(path, content);
    in_fresh_process([&] {
      const SyslogCapture log;
      const GlibLogCapture glib;
      checks();
      EXPECT_TRUE(log.lines().empty());
      EXPECT_TRUE(glib.messages().empty());
    });
  }
  static void expect_one_line_per_call(std::string_view reason) {
    for (const auto translate : {ptz_port_index_comport2portmanager, ptz_port_index_portmanager2comport,
                                 ptz_port_index_comport2serialport, ptz_port_index_serialport2comport}) {
      const SyslogCapture log;
      EXPECT_EQ(translate(1), -1);
      ASSERT_EQ(log.lines().size(), 1U);
      EXPECT_EQ(log.lines()[0].priority, LOG_ERR);
      EXPECT_EQ(log.lines()[0].text.rfind(message + std::string(reason), 0), 0U) << log.lines()[0].text;
    }
  }
};

TEST_F(PortIndex, EachDirectionHasItsGroup) {
  with(
      "[Comport2Portmanager]\n1=10\n[Portmanager2Comport]\n1=20\n[Comport2Serialport]\n1=30\n[Serialport2Comport]\n1="
      "40\n",
      [] {
        EXPECT_EQ(ptz_port_index_comport2portmanager(1), 10);
        EXPECT_EQ(ptz_port_index_portmanager2comport(1), 20);
        EXPECT_EQ(ptz_port_index_comport2serialport(1), 30);
        EXPECT_EQ(ptz_port_index_serialport2comport(1), 40);
      });
}

TEST_F(PortIndex, NoManagersMapsEveryNumberToItself) {
  with("[Comport2Portmanager]\nNoManagers=\n1=10\n[Portmanager2Comport]\nNoManagers=no\n[Comport2Serialport]\n7=8\n",
       [] {
         EXPECT_EQ(ptz_port_index_comport2portmanager(7), 7);
         EXPECT_EQ(ptz_port_index_comport2portmanager(1), 1) << "also where there is a key for it";
         EXPECT_EQ(ptz_port_index_comport2portmanager(-3), -3);
         EXPECT_EQ(ptz_port_index_comport2portmanager(std::numeric_limits<gint32>::min()),
                   std::numeric_limits<gint32>::min());
         EXPECT_EQ(ptz_port_index_portmanager2comport(7), 7);
         EXPECT_EQ(ptz_port_index_comport2serialport(7), 8) << "it counts in its own group only";
         EXPECT_EQ(ptz_port_index_comport2serialport(9), -1);
       });
}

TEST_F(PortIndex, AMissingKeyOrGroupIsNoMapping) {
  with("[Comport2Portmanager]\n1=10\n", [] {
    EXPECT_EQ(ptz_port_index_comport2portmanager(2), -1);
    EXPECT_EQ(ptz_port_index_portmanager2comport(1), -1);
  });
}

TEST_F(PortIndex, AnEmptyFileHasNoMappings) {
  with("", [] { EXPECT_EQ(ptz_port_index_comport2portmanager(1), -1); });
}

TEST_F(PortIndex, NumbersAreLookedUpByTheirDecimalText) {
  with("[Comport2Portmanager]\n-1=11\n0=12\n-2147483648=13\n2147483647=14\n07=15\n+8=16\n", [] {
    EXPECT_EQ(ptz_port_index_comport2portmanager(-1), 11);
    EXPECT_EQ(ptz_port_index_comport2portmanager(0), 12);
    EXPECT_EQ(ptz_port_index_comport2portmanager(std::numeric_limits<gint32>::min()), 13);
    EXPECT_EQ(ptz_port_index_comport2portmanager(std::numeric_limits<gint32>::max()), 14);
    EXPECT_EQ(ptz_port_index_comport2portmanager(7), -1);
    EXPECT_EQ(ptz_port_index_comport2portmanager(8), -1);
  });
}

TEST_F(PortIndex, AValueThatIsNoIntegerIsNoMapping) {
  with("[Comport2Portmanager]\n1=one\n2=\n3=3x\n4=99999999999\n5=-5\n6=\xFF\n7= 70 \n8=0x8\n9=\\q\n", [] {
    for (const gint32 number : {1, 2, 3, 4, 6, 8, 9})
      EXPECT_EQ(ptz_port_index_comport2portmanager(number), -1) << number;
    EXPECT_EQ(ptz_port_index_comport2portmanager(5), -5);
    EXPECT_EQ(ptz_port_index_comport2portmanager(7), 70);
  });
}

TEST_F(PortIndex, TheFileIsLoadedOnceAndKept) {
  with("[Comport2Portmanager]\n1=10\n", [this] {
    EXPECT_EQ(ptz_port_index_comport2portmanager(1), 10);
    write_file(path, "[Comport2Portmanager]\n1=11\n");
    EXPECT_EQ(ptz_port_index_comport2portmanager(1), 10);
    std::filesystem::remove(path);
    EXPECT_EQ(ptz_port_index_comport2portmanager(1), 10);
  });
}

TEST_F(PortIndex, AMissingFileIsLoggedByEveryCallUntilThereIsOne) {
  in_fresh_process([this] {
    expect_one_line_per_call("No such file or directory");
    write_file(path, "[Comport2Portmanager]\n1=10\n");
    const SyslogCapture log;
    EXPECT_EQ(ptz_port_index_comport2portmanager(1), 10);
    EXPECT_TRUE(log.lines().empty());
  });
}

TEST_F(PortIndex, OfAFileThatDoesNotParseNothingIsKept) {
  in_fresh_process([this] {
    write_file(path, "[Comport2Portmanager]\n1=10\nNoManagers=yes\n%s%n garbage\n");
    expect_one_line_per_call("Key file contains line");
    write_file(path, "[Comport2Portmanager]\n2=20\n");
    EXPECT_EQ(ptz_port_index_comport2portmanager(1), -1);
    EXPECT_EQ(ptz_port_index_comport2portmanager(2), 20);
  });
}

TEST_F(PortIndex, AnUnreadableFileIsLogged) {
  in_fresh_process([this] {
    write_file(path, "[Comport2Portmanager]\n1=10\n");
    const FileFault fault(Failing::open, EACCES, {.path = fixed_path});
    expect_one_line_per_call("Permission denied");
  });
}

TEST_F(PortIndex, AFolderIsLogged) {
  in_fresh_process([this] {
    std::filesystem::create_directory(path);
    const auto descriptors = open_descriptors();
    expect_one_line_per_call("");
    EXPECT_EQ(open_descriptors(), descriptors);
  });
}

TEST_F(PortIndex, APipeIsLoggedAndNoHang) {
  in_fresh_process([this] {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    expect_one_line_per_call("");
  });
}

TEST_F(PortIndex, BinaryFilesAreRefusedOrHoldNothing) {
  for (const std::string &content :
       {std::string("\0\0\0", 3), std::string("[Comport2Portmanager]\n1\0=10\n", 28),
        std::string("[Comport2Portmanager]\n1=1\0\n", 27), std::string("[Comport2"), std::string("\xFF\xFE[\0", 4)}) {
    in_fresh_process([&] {
      write_file(path, content);
      const GlibLogCapture glib;
      ptz_port_index_comport2portmanager(2);
      EXPECT_EQ(ptz_port_index_comport2portmanager(2), -1);
      EXPECT_TRUE(glib.messages().empty());
    });
  }
}

}  // namespace
