// tests/kit/registry/entry_files.h - entries of the registry that a test writes, locks and lists.
#pragma once
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ptz_kit.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fixtures.h"
#include "peers.h"

namespace registry_test {

struct Unref {
  void operator()(GPtrArray *array) const { g_ptr_array_unref(array); }
  void operator()(PTZKitRegistry *registry) const { g_object_unref(registry); }
  void operator()(PTZKitRegistryEntry *entry) const { ptz_kit_registry_entry_free(entry); }
  void operator()(GError *error) const { g_error_free(error); }
};
template <typename T>
using Owned = std::unique_ptr<T, Unref>;

inline bool lock_for_writing(int fd) {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

class Registry : public testing::Test {
 protected:
  ptz_test::TempDir dir_;
  const std::string folder_ = dir_.file("drivers");
  Owned<PTZKitRegistry> registry_{ptz_kit_registry_new(folder_.c_str())};
  std::vector<ptz_test::Descriptor> held_;

  void SetUp() override { ASSERT_EQ(mkdir(folder_.c_str(), 0700), 0); }

  // A socket that listens until the test ends.
  std::string listen_at(const std::string &name) {
    const std::string path = dir_.file(name);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    held_.emplace_back(socket(AF_UNIX, SOCK_STREAM, 0));
    EXPECT_EQ(bind(held_.back().get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    EXPECT_EQ(listen(held_.back().get(), 1), 0);
    return path;
  }

  struct Fields {
    std::string name = "head";
    std::string socket;
    unsigned instance = 0;
    bool locked = true;
    std::map<std::string, std::string> instead = {};  // of the value, by key
  };
  void write_entry(const std::string &file, const Fields &fields) {
    struct stat status = {};
    EXPECT_EQ(stat(fields.socket.c_str(), &status), 0);
    std::map<std::string, std::string> values = {{"Name", '"' + fields.name + '"'},
                                                 {"Socket", '"' + fields.socket + '"'},
                                                 {"Program", "\"/usr/bin/head\""},
                                                 {"Process", "4711"},
                                                 {"Instance", std::to_string(fields.instance)},
                                                 {"Protocol", "1"},
                                                 {"Since", "1700000000000000"},
                                                 {"Device", std::to_string(status.st_dev)},
                                                 {"Inode", std::to_string(status.st_ino)}};
    for (const auto &[key, value] : fields.instead) values[key] = value;
    const std::string path = folder_ + "/" + file;
    std::ofstream stream(path);
    stream << "[Driver]\n";
    for (const auto &[key, value] : values) stream << key << '=' << value << '\n';
    stream.close();
    if (!fields.locked) return;
    held_.emplace_back(open(path.c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_TRUE(lock_for_writing(held_.back().get()));
  }

  Owned<GPtrArray> list() {
    GError *error = nullptr;
    Owned<GPtrArray> list(ptz_kit_registry_list(registry_.get(), &error));
    EXPECT_EQ(error, nullptr) << error->message;
    return list;
  }
  static const PTZKitRegistryEntry &at(const Owned<GPtrArray> &list, guint index) {
    return *static_cast<const PTZKitRegistryEntry *>(list->pdata[index]);
  }
};

}  // namespace registry_test
