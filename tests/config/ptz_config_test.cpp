#include "ptz_config.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "faults.h"
#include "file_calls.h"
#include "fixtures.h"
#include "fresh_process.h"
#include "handles.h"
#include "interpose.h"
#include "syslog_capture.h"

namespace {

using WholeFileWrite = gboolean(const gchar *path, const gchar *data, gsize length, GError **error);
std::function<WholeFileWrite> write_instead;

}  // namespace

INTERPOSE(gboolean, file_util_set_contents_synced,
          (const gchar *path, const gchar *data, gsize length, GError **error)) {
  return write_instead ? write_instead(path, data, length, error)
                       : REAL(file_util_set_contents_synced)(path, data, length, error);
}

namespace {

using namespace ptz_test;
using Error = std::unique_ptr<GError, FreeWith<g_error_free>>;
using KeyFile = std::unique_ptr<GKeyFile, FreeWith<g_key_file_unref>>;
namespace fs = std::filesystem;

constexpr gboolean untouched = 77;

struct Opened {
  KeyFile key_file;
  gboolean compatible = untouched;
  Error error;
};

Opened open_config(const std::string &path, gint major, gint minor) {
  Opened opened;
  GError *error = nullptr;
  opened.key_file.reset(ptz_config_init_key_file(path.c_str(), major, minor, &opened.compatible, &error));
  opened.error.reset(error);
  return opened;
}

std::string text_of(const KeyFile &key_file) {
  const Text text(g_key_file_to_data(key_file.get(), nullptr, nullptr));
  return text.get();
}

using Names = std::vector<std::string>;

struct DriverConfig : testing::Test {
  TempDir dir;
  std::string path = dir.file("driver.conf");
  SyslogCapture log;
  GlibLogCapture glib;

  ~DriverConfig() override {
    // Results and errors only: this module writes nothing anywhere else.
    EXPECT_TRUE(log.lines().empty());
    EXPECT_TRUE(glib.messages().empty()) << glib.messages()[0].text;
    write_instead = {};
  }

  static KeyFile key_file(const std::string &text) {
    KeyFile result(g_key_file_new());
    EXPECT_TRUE(g_key_file_load_from_data(result.get(), text.data(), text.size(), G_KEY_FILE_NONE, nullptr));
    return result;
  }
  // True where the store succeeds; otherwise it must have set an error.
  static bool store(const std::string &path, const KeyFile &key_file, Error *reason = nullptr) {
    GError *error = nullptr;
    const bool stored = ptz_config_store_key_file(path.c_str(), key_file.get(), &error);
    EXPECT_EQ(stored, error == nullptr);
    const Error owned(error);
    if (reason != nullptr && error != nullptr) reason->reset(g_error_copy(error));
    return stored;
  }
  [[nodiscard]] Names entries() const {
    Names names;
    for (const auto &entry : fs::directory_iterator(dir.path())) names.push_back(entry.path().filename());
    return names;
  }
};

// --- opening ----------------------------------------------------------------------------------------------------

TEST_F(DriverConfig, WithoutAFileThereIsOnlyAHeader) {
  const auto opened = open_config(path, 2, 3);
  ASSERT_TRUE(opened.key_file);
  EXPECT_EQ(opened.compatible, TRUE);
  EXPECT_FALSE(opened.error);
  EXPECT_EQ(text_of(opened.key_file), "[Header]\nVersionMajor=2\nVersionMinor=3\n");
  EXPECT_FALSE(fs::exists(path)) << "nothing is written yet";
}

TEST_F(DriverConfig, WithoutAFolderThereIsOnlyAHeaderToo) {
  const auto opened = open_config(dir.file("missing/driver.conf"), -1, 0);
  ASSERT_TRUE(opened.key_file);
  EXPECT_EQ(opened.compatible, TRUE);
  EXPECT_EQ(text_of(opened.key_file), "[Header]\nVersionMajor=-1\nVersionMinor=0\n");
  EXPECT_FALSE(fs::exists(dir.file("missing")));
}

TEST_F(DriverConfig, NeitherOutputIsNeeded) {
  EXPECT_TRUE(KeyFile(ptz_config_init_key_file(path.c_str(), 1, 0, nullptr, nullptr)));
  write_file(path, "[Header]\nVersionMajor=1\nVersionMinor=0\n");
  EXPECT_TRUE(KeyFile(ptz_config_init_key_file(path.c_str(), 1, 0, nullptr, nullptr)));
  write_file(path, "[Header]\nVersionMajor=1\n");
  EXPECT_FALSE(KeyFile(ptz_config_init_key_file(path.c_str(), 1, 0, nullptr, nullptr)));
  write_file(path, "nothing");
  EXPECT_FALSE(KeyFile(ptz_config_init_key_file(path.c_str(), 1, 0, nullptr, nullptr)));
}

struct Version {
  gint major;
  gint minor;
  gboolean compatible;
};
void PrintTo(const Version &version, std::ostream *out) { *out << version.major << '.' << version.minor; }

struct DriverConfigVersions : DriverConfig, testing::WithParamInterface<Version> {};

TEST_P(DriverConfigVersions, AFileOf2Point3) {
  const std::string content = "[Header]\nVersionMajor=2\nVersionMinor=3\n\n[Preset1]\nPan=10\n";
  write_file(path, content);
  const auto opened = open_config(path, GetParam().major, GetParam().minor);
  ASSERT_TRUE(opened.key_file) << "also where it is not compatible";
  EXPECT_EQ(opened.compatible, GetParam().compatible);
  EXPECT_FALSE(opened.error);
  EXPECT_EQ(text_of(opened.key_file), content);
  EXPECT_EQ(read_file(path), content);
}

INSTANTIATE_TEST_SUITE_P(, DriverConfigVersions,
                         testing::Values(Version{2, 1, TRUE}, Version{2, 3, TRUE}, Version{2, 4, FALSE},
                                         Version{3, 3, FALSE}, Version{1, 3, FALSE}, Version{3, 1, FALSE},
                                         Version{2, -1, TRUE}, Version{2, 0, TRUE}));

TEST_F(DriverConfig, CommentsAreNotKept) {
  write_file(path, "# one\n[Header]\n# two\nVersionMajor=1\nVersionMinor=0\n# three\n[Own]\nKey=a\n");
  const auto opened = open_config(path, 1, 0);
  ASSERT_TRUE(opened.key_file);
  EXPECT_EQ(text_of(opened.key_file).find('#'), std::string::npos);
}

struct Broken {
  const char *content;
  GKeyFileError code;
};
void PrintTo(const Broken &broken, std::ostream *out) { *out << Text(g_strescape(broken.content, nullptr)).get(); }

struct BrokenDriverConfig : DriverConfig, testing::WithParamInterface<Broken> {};

TEST_P(BrokenDriverConfig, IsAnErrorAndStaysAsItIs) {
  write_file(path, GetParam().content);
  const auto opened = open_config(path, 1, 0);
  EXPECT_FALSE(opened.key_file);
  EXPECT_EQ(opened.compatible, untouched);
  ASSERT_TRUE(opened.error);
  EXPECT_EQ(opened.error->domain, G_KEY_FILE_ERROR);
  EXPECT_EQ(opened.error->code, GetParam().code);
  EXPECT_EQ(read_file(path), GetParam().content);
}

INSTANTIATE_TEST_SUITE_P(
    , BrokenDriverConfig,
    testing::Values(Broken{"[Header]\nVersionMajor=1\n", G_KEY_FILE_ERROR_KEY_NOT_FOUND},
                    Broken{"[Header]\nVersionMinor=1\n", G_KEY_FILE_ERROR_KEY_NOT_FOUND},
                    Broken{"[Header]\n", G_KEY_FILE_ERROR_KEY_NOT_FOUND},
                    Broken{"[Other]\nKey=1\n", G_KEY_FILE_ERROR_GROUP_NOT_FOUND},
                    Broken{"", G_KEY_FILE_ERROR_GROUP_NOT_FOUND},
                    Broken{"[Header]\nVersionMajor=one\nVersionMinor=0\n", G_KEY_FILE_ERROR_INVALID_VALUE},
                    Broken{"[Header]\nVersionMajor=1\nVersionMinor=\n", G_KEY_FILE_ERROR_INVALID_VALUE},
                    Broken{"[Header]\nVersionMajor=1\nVersionMinor=0x1\n", G_KEY_FILE_ERROR_INVALID_VALUE},
                    Broken{"[Header]\nVersionMajor=99999999999\nVersionMinor=0\n", G_KEY_FILE_ERROR_INVALID_VALUE},
                    Broken{"[Header]\nVersionMajor=1\nVersionMinor=0\n[Pre", G_KEY_FILE_ERROR_PARSE},
                    Broken{"VersionMajor=1\n", G_KEY_FILE_ERROR_GROUP_NOT_FOUND},
                    Broken{"\xFF\xFE\x01%s%n\n", G_KEY_FILE_ERROR_PARSE}));

TEST_F(DriverConfig, BothHeaderNumbersBrokenIsOneError) {
  write_file(path, "[Header]\nVersionMajor=a\nVersionMinor=b\n");
  const auto opened = open_config(path, 1, 0);
  EXPECT_FALSE(opened.key_file);
  EXPECT_TRUE(opened.error);
}

TEST_F(DriverConfig, AnUnreadableFileIsTheLoadersError) {
  write_file(path, "[Header]\nVersionMajor=1\nVersionMinor=0\n");
  const FileFault fault(Failing::open, EACCES, {.path = path});
  const auto opened = open_config(path, 1, 0);
  EXPECT_FALSE(opened.key_file);
  EXPECT_EQ(opened.compatible, untouched);
  ASSERT_TRUE(opened.error);
  EXPECT_TRUE(g_error_matches(opened.error.get(), G_FILE_ERROR, G_FILE_ERROR_ACCES)) << opened.error->message;
}

TEST_F(DriverConfig, AFolderIsAnError) {
  const auto descriptors = open_descriptors();
  const auto opened = open_config(dir.path(), 1, 0);
  EXPECT_FALSE(opened.key_file);
  EXPECT_TRUE(opened.error);
  EXPECT_EQ(opened.compatible, untouched);
  EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(DriverConfig, APipeIsAnErrorAndNoHang) {
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  const auto opened = open_config(path, 1, 0);
  EXPECT_FALSE(opened.key_file);
  EXPECT_TRUE(opened.error);
  EXPECT_EQ(opened.compatible, untouched);
}

TEST_F(DriverConfig, ADeviceIsAnError) {
  for (const std::string device : {"/dev/zero", "/dev/null"}) {
    const auto opened = open_config(device, 1, 0);
    EXPECT_FALSE(opened.key_file) << device;
    EXPECT_TRUE(opened.error) << device;
  }
}

TEST_F(DriverConfig, ALinkToNothingIsNoFile) {
  fs::create_symlink(dir.file("nowhere"), path);
  const auto opened = open_config(path, 1, 0);
  EXPECT_TRUE(opened.key_file);
  EXPECT_EQ(opened.compatible, TRUE);
}

// --- storing ----------------------------------------------------------------------------------------------------

TEST_F(DriverConfig, WhatIsStoredIsOpenedAgain) {
  auto opened = open_config(path, 2, 3);
  g_key_file_set_string(opened.key_file.get(), "Preset1", "Name", "caf\xC3\xA9 \"%s\"\n");
  EXPECT_TRUE(store(path, opened.key_file));
  const auto again = open_config(path, 2, 3);
  ASSERT_TRUE(again.key_file);
  EXPECT_EQ(again.compatible, TRUE);
  EXPECT_EQ(text_of(again.key_file), text_of(opened.key_file));
  EXPECT_EQ(entries(), Names{"driver.conf"});
}

TEST_F(DriverConfig, AnOldFileIsReplacedAsAWhole) {
  write_file(path, std::string(100'000, '#'));
  EXPECT_TRUE(store(path, key_file("[A]\nB=c\n")));
  EXPECT_EQ(read_file(path), "[A]\nB=c\n");
}

TEST_F(DriverConfig, TheErrorIsNotNeeded) {
  EXPECT_TRUE(ptz_config_store_key_file(path.c_str(), key_file("[A]\nB=c\n").get(), nullptr));
  EXPECT_FALSE(ptz_config_store_key_file(dir.path().c_str(), key_file("[A]\nB=c\n").get(), nullptr));
}

TEST_F(DriverConfig, TheTextGoesThroughThePlatformsFileUtility) {
  std::string seen_path, seen_data;
  gboolean result = TRUE;
  write_instead = [&](const gchar *to, const gchar *data, gsize length, GError **error) {
    seen_path = to;
    seen_data.assign(data, length);
    if (!result) g_set_error_literal(error, G_FILE_ERROR, G_FILE_ERROR_NOSPC, "the disk is %s full");
    return result;
  };
  const auto content = key_file("[A]\nB=c\n");
  EXPECT_TRUE(store(path, content));
  EXPECT_EQ(seen_path, path);
  EXPECT_EQ(seen_data, "[A]\nB=c\n");
  EXPECT_FALSE(fs::exists(path));
  result = FALSE;
  Error error;
  EXPECT_FALSE(store(path, content, &error));
  ASSERT_TRUE(error);
  EXPECT_TRUE(g_error_matches(error.get(), G_FILE_ERROR, G_FILE_ERROR_NOSPC));
  EXPECT_STREQ(error->message, "the disk is %s full");
}

TEST_F(DriverConfig, MissingFoldersAreMadeWithTheirParents) {
  const auto old_mask = umask(0);
  const auto deep = dir.file("a/b/c/driver.conf");
  EXPECT_TRUE(store(deep, key_file("[A]\nB=c\n")));
  umask(old_mask);
  EXPECT_EQ(read_file(deep), "[A]\nB=c\n");
  for (const char *folder : {"a", "a/b", "a/b/c"}) {
    struct stat attributes {};
    ASSERT_EQ(stat(dir.file(folder).c_str(), &attributes), 0);
    EXPECT_EQ(attributes.st_mode & 07777, 0775U) << folder;
  }
}

TEST_F(DriverConfig, AFolderThatIsThereKeepsItsMode) {
  const auto folder = dir.file("folder");
  fs::create_directory(folder);
  fs::permissions(folder, fs::perms::owner_all);
  EXPECT_TRUE(store(folder + "/driver.conf", key_file("[A]\nB=c\n")));
  EXPECT_EQ(fs::status(folder).permissions(), fs::perms::owner_all);
}

TEST_F(DriverConfig, AFolderThatCannotBeMadeIsTheWritersError) {
  write_file(dir.file("file"), "");
  Error error;
  EXPECT_FALSE(store(dir.file("file/driver.conf"), key_file("[A]\nB=c\n"), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain, G_FILE_ERROR);
}

TEST_F(DriverConfig, APathWithoutAFolderIsInTheCurrentOne) {
  in_fresh_process([this] {
    fs::current_path(dir.path());
    EXPECT_TRUE(store("driver.conf", key_file("[A]\nB=c\n")));
    EXPECT_EQ(open_config("driver.conf", 1, 0).error->code, G_KEY_FILE_ERROR_GROUP_NOT_FOUND);
    EXPECT_TRUE(store("folder/driver.conf", key_file("[A]\nB=c\n")));
  });
  EXPECT_EQ(read_file(path), "[A]\nB=c\n");
  EXPECT_EQ(read_file(dir.file("folder/driver.conf")), "[A]\nB=c\n");
}

TEST_F(DriverConfig, AKeyFileWithoutGroupsRemovesTheFile) {
  write_file(path, "[A]\nB=c\n");
  EXPECT_TRUE(store(path, key_file("")));
  EXPECT_FALSE(fs::exists(path));
  EXPECT_TRUE(store(path, key_file(""))) << "nothing to remove is no failure";
}

TEST_F(DriverConfig, AKeyFileWithoutGroupsMakesTheFolderAllTheSame) {
  EXPECT_TRUE(store(dir.file("new/driver.conf"), key_file("")));
  EXPECT_TRUE(fs::is_directory(dir.file("new")));
  EXPECT_FALSE(fs::exists(dir.file("new/driver.conf")));
}

TEST_F(DriverConfig, AKeyFileWithoutGroupsIsNotWritten) {
  write_instead = [](const gchar *, const gchar *, gsize, GError **) -> gboolean {
    ADD_FAILURE() << "written";
    return TRUE;
  };
  EXPECT_TRUE(store(path, key_file("")));
}

TEST_F(DriverConfig, AGroupWithoutKeysIsStored) {
  EXPECT_TRUE(store(path, key_file("[Empty]\n")));
  EXPECT_EQ(read_file(path), "[Empty]\n");
}

// --- a store that fails leaves the old file whole ---------------------------------------------------------------

struct FailingStore : DriverConfig {
  const std::string old_content = "[Header]\nVersionMajor=1\nVersionMinor=0\n";
  KeyFile big = key_file("[Header]\nVersionMajor=1\nVersionMinor=1\n[Data]\nKey=" + std::string(200'000, 'x') + "\n");

  FailingStore() { write_file(path, old_content); }
  void expect_failure(GFileError code) {
    const auto descriptors = open_descriptors();
    Error error;
    EXPECT_FALSE(store(path, big, &error));
    ASSERT_TRUE(error);
    EXPECT_TRUE(g_error_matches(error.get(), G_FILE_ERROR, code)) << error->message;
    EXPECT_EQ(read_file(path), old_content);
    EXPECT_EQ(entries(), Names{"driver.conf"}) << "nothing half-written is left";
    EXPECT_EQ(open_descriptors(), descriptors);
  }
};

TEST_F(FailingStore, OnADiskThatIsFull) {
  const Fault fault(Call::write, ENOSPC);
  expect_failure(G_FILE_ERROR_NOSPC);
  EXPECT_GT(fault.hits(), 0);
}

TEST_F(FailingStore, OnADiskThatFillsUpHalfway) {
  int writes = 0;
  const Interposer full([&](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call != Call::write) return std::nullopt;
    if (++writes > 1) return Outcome{-1, ENOSPC};
    attempt.argument = 4096;
    return std::nullopt;
  });
  expect_failure(G_FILE_ERROR_NOSPC);
  EXPECT_EQ(writes, 2);
}

TEST_F(FailingStore, OnADiskThatCannotFlush) {
  const FileFault fault(Failing::fsync, EIO);
  expect_failure(G_FILE_ERROR_IO);
  EXPECT_GT(fault.hits(), 0) << "the file is flushed before it takes the old one's place";
}

TEST_F(FailingStore, WithoutASpareDescriptor) {
  const FileFault fault(Failing::open, EMFILE);
  Error error;
  EXPECT_FALSE(store(path, big, &error));
  ASSERT_TRUE(error);
  EXPECT_TRUE(g_error_matches(error.get(), G_FILE_ERROR, G_FILE_ERROR_MFILE)) << error->message;
}

TEST_F(FailingStore, WhereFilesMayNotGrowAsMuch) {
  in_fresh_process([this] {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{65'536, 65'536};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    expect_failure(G_FILE_ERROR_FAILED);
  });
  EXPECT_EQ(read_file(path), old_content);
}

TEST_F(FailingStore, OnAPathThatIsAFolder) {
  const auto folder = dir.file("folder");
  fs::create_directory(folder);
  Error error;
  EXPECT_FALSE(store(folder, big, &error));
  EXPECT_TRUE(error);
  EXPECT_TRUE(fs::is_directory(folder));
}

}  // namespace
