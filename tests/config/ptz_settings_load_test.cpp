#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "faults.h"
#include "file_calls.h"
#include "fixtures.h"
#include "fresh_process.h"
#include "kv_records.h"
#include "peers.h"
#include "ptz_settings.h"
#include "settings.h"
#include "syslog_capture.h"

namespace {

using namespace ptz_test;
using namespace std::chrono_literals;

std::vector<LogLine> error_lines(std::initializer_list<std::string> texts) {
  std::vector<LogLine> lines;
  for (const auto &text : texts) lines.push_back({LOG_ERR, text});
  return lines;
}

// --- finding files ----------------------------------------------------------------------------------------------

struct SettingsFiles : SettingsTest {
  SyslogCapture log;

  // A name that makes the path of a file in the folder this long.
  std::string path_of_length(std::size_t length) const {
    return dir.file(std::string(length - dir.file("").size(), 'n'));
  }
};

TEST_F(SettingsFiles, NullPatternIsRefused) {
  const GlibLogCapture criticals;
  EXPECT_EQ(ptz_settings_find_config_files(nullptr, TRUE), nullptr);
  EXPECT_EQ(criticals.failed_check("ptz_settings_find_config_files", "files != NULL"), 1U);
  EXPECT_EQ(criticals.messages().size(), 1U);
}

TEST_F(SettingsFiles, MatchesComeInTheOrderOfAListing) {
  const Names expected{file("a.conf", ""), file("b.conf", ""), file("c.conf", "")};
  file("d.other", "");
  EXPECT_EQ(find(dir.file("*.conf")), expected);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SettingsFiles, TheCommandIsAListingOfThePatternRead) {
  const Commands commands;
  find(file("a.conf", ""));
  EXPECT_EQ(commands.started(), (std::vector<Commands::Command>{{"ls -1 " + dir.file("a.conf"), "r"}}));
}

TEST_F(SettingsFiles, ThePatternIsExpandedByTheShell) {
  const auto spaced = file("with space.conf", "");
  const auto plain = file("plain.conf", "");
  EXPECT_EQ(find("'" + spaced + "'"), Names{spaced});
  EXPECT_EQ(find(dir.file("[pq]lain.conf")), Names{plain});
  EXPECT_EQ(find("$(echo " + plain + ")"), Names{plain});
}

TEST_F(SettingsFiles, APatternWithAPercentSignIsTakenAsItIs) {
  const auto path = file("100%s%n.conf", "");
  EXPECT_EQ(find(path), Names{path});
  EXPECT_EQ(find(dir.file("%d%s-missing"), TRUE), std::nullopt);
  EXPECT_EQ(log.lines(),
            error_lines({"ptz_settings_find_config_files: Files not found: '" + dir.file("%d%s-missing") + "'"}));
}

TEST_F(SettingsFiles, NoMatchIsLoggedOnlyWhenAReportIsWanted) {
  EXPECT_EQ(find(dir.file("*.conf"), FALSE), std::nullopt);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(find(dir.file("*.conf"), TRUE), std::nullopt);
  EXPECT_EQ(log.lines(),
            error_lines({"ptz_settings_find_config_files: Files not found: '" + dir.file("*.conf") + "'"}));
}

TEST_F(SettingsFiles, SeveralWordsAreAllListed) {
  const auto first = file("a.conf", "");
  const auto second = file("b.conf", "");
  EXPECT_EQ(find(second + " " + first), (Names{first, second}));
}

TEST_F(SettingsFiles, OneMissingWordDiscardsTheMatchesOfTheOthers) {
  const auto present = file("a.conf", "");
  const auto pattern = present + " " + dir.file("missing.conf");
  EXPECT_EQ(find(pattern, TRUE), std::nullopt);
  EXPECT_EQ(log.lines(), error_lines({"ptz_settings_find_config_files: Files not found: '" + pattern + "'"}));
}

TEST_F(SettingsFiles, AFolderIsListedByTheNamesInIt) {
  file("inner.conf", "");
  EXPECT_EQ(find(dir.path()), Names{"inner.conf"});
}

TEST_F(SettingsFiles, AnEmptyListingIsAnEmptyVector) { EXPECT_EQ(find(dir.path()), Names{}); }

TEST_F(SettingsFiles, ANameOf198CharactersIsWhole) {
  const auto path = file(std::filesystem::path(path_of_length(198)).filename(), "");
  EXPECT_EQ(find(path), Names{path});
}

TEST_F(SettingsFiles, OfANameOf199CharactersOnlyTheLineEndIsLeft) {
  const auto path = file(std::filesystem::path(path_of_length(199)).filename(), "");
  EXPECT_EQ(find(path), Names{""});
}

TEST_F(SettingsFiles, OfALongerNameOnlyItsLastChunkIsLeft) {
  const auto path = file(std::filesystem::path(path_of_length(230)).filename(), "");
  EXPECT_EQ(find(path), Names{path.substr(199)});
  const auto longest = path_of_length(199) + "/" + std::string(198 + 199 - 199, 'x');
  std::filesystem::create_directory(path_of_length(199));
  write_file(longest, "");
  EXPECT_EQ(find(longest), Names{longest.substr(2 * std::size_t{199})});
}

struct SettingsFileCounts : SettingsFiles, testing::WithParamInterface<int> {};

TEST_P(SettingsFileCounts, EveryMatchIsReturned) {
  Names expected;
  for (int i = 0; i < GetParam(); ++i) expected.push_back(file(std::to_string(1000 + i), ""));
  EXPECT_EQ(find(dir.file("*")), expected);
}

INSTANTIATE_TEST_SUITE_P(AroundTheRoomForTwenty, SettingsFileCounts, testing::Values(1, 19, 20, 21, 39, 40, 41, 100));

TEST_F(SettingsFiles, TextAfterTheLastLineEndIsNoName) {
  const Commands commands([](const std::string &) { return "printf 'a\\nb\\nrest'"; });
  EXPECT_EQ(find("pattern"), (Names{"a", "b"}));
}

TEST_F(SettingsFiles, NamesReadBeforeAFailureAreDiscarded) {
  const Commands commands([](const std::string &) { return "printf 'a\\nb\\n'; exit 2"; });
  EXPECT_EQ(find("%s pattern", FALSE), std::nullopt);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(find("%s pattern", TRUE), std::nullopt);
  EXPECT_EQ(log.lines(), error_lines({"ptz_settings_find_config_files: Files not found: '%s pattern'"}));
}

TEST_F(SettingsFiles, AListingEndedByASignalFoundNothing) {
  const Commands commands([](const std::string &) { return "printf 'a\\n'; kill -9 $$"; });
  EXPECT_EQ(find("pattern", TRUE), std::nullopt);
  EXPECT_EQ(log.lines(), error_lines({"ptz_settings_find_config_files: Files not found: 'pattern'"}));
}

TEST_F(SettingsFiles, AListingThatCannotBeStartedIsLogged) {
  const FileFault fault(Failing::start, EMFILE);
  const FileFault wait(Failing::wait, ECHILD);
  EXPECT_EQ(find("some %d pattern", FALSE), std::nullopt);
  EXPECT_EQ(log.lines(), error_lines({"ptz_settings_find_config_files: Error listing files: 'some %d pattern'"}));
  EXPECT_EQ(wait.hits(), 0) << "a pipe that was never opened is closed";
}

TEST_F(SettingsFiles, AListingWhoseEndIsUnknownIsLoggedWithoutAReportToo) {
  file("a.conf", "");
  const FileFault fault(Failing::wait, ECHILD);
  EXPECT_EQ(find(dir.file("*"), FALSE), std::nullopt);
  EXPECT_EQ(log.lines(),
            error_lines({"ptz_settings_find_config_files: Unexpected error listing files: '" + dir.file("*") + "'"}));
}

TEST_F(SettingsFiles, AProcessThatIgnoresItsChildrenLearnsNothing) {
  file("a.conf", "");
  in_fresh_process([this] {
    std::signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(find(dir.file("*"), FALSE), std::nullopt);
    EXPECT_EQ(log.lines(),
              error_lines({"ptz_settings_find_config_files: Unexpected error listing files: '" + dir.file("*") + "'"}));
  });
}

TEST_F(SettingsFiles, FailingToGrowClosesThePipeAndReturnsNothing) {
  for (int i = 0; i < 50; ++i) file(std::to_string(i), "");
  const auto descriptors = open_descriptors();
  for (const int skip : {0, 1}) {
    const FileFault fault(Failing::grow, ENOMEM, {.skip = skip});
    const SyslogCapture lines;
    EXPECT_EQ(find(dir.file("*"), FALSE), std::nullopt) << skip;
    EXPECT_EQ(lines.lines(),
              error_lines({"ptz_settings_find_config_files: Error allocating memory, no conf files matching '" +
                           dir.file("*") + "' will be loaded"}))
        << skip;
  }
  EXPECT_EQ(open_descriptors(), descriptors);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was not waited for";
}

TEST_F(SettingsFiles, NoDescriptorAndNoChildIsLeft) {
  file("a.conf", "");
  const auto descriptors = open_descriptors();
  find(dir.file("*"));
  find(dir.file("missing"));
  EXPECT_EQ(open_descriptors(), descriptors);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

// --- what all group loaders do ----------------------------------------------------------------------------------

enum class Loader { parsed, parsed_ext, key_file, shell };

std::string name_of(const testing::TestParamInfo<Loader> &info) {
  return std::vector{"Parsed", "ParsedExt", "KeyFile", "Shell"}.at(static_cast<std::size_t>(info.param));
}

struct Source {
  std::string path;
  gboolean mandatory = TRUE;
};

struct Loading : SettingsTest, testing::WithParamInterface<Loader> {
  SyslogCapture log;

  static bool load_with(Loader loader, const std::vector<Source> &files, const std::vector<Source> &patterns) {
    std::vector<PTZSettingsFile> plain[2];
    std::vector<PTZSettingsFileExt> extended[2];
    for (const int kind : {0, 1}) {
      for (const auto &[path, mandatory] : kind == 0 ? files : patterns) {
        plain[kind].push_back({path.c_str(), mandatory});
        extended[kind].push_back({path.c_str(), mandatory, TRUE});
      }
    }
    switch (loader) {
      case Loader::parsed:
        return ptz_settings_load_config(Plain(plain[0]).get(), Plain(plain[1]).get());
      case Loader::parsed_ext:
        return ptz_settings_load_config_ext(Extended(extended[0]).get(), Extended(extended[1]).get());
      case Loader::key_file:
        return ptz_settings_load_config_gkf(Plain(plain[0]).get(), Plain(plain[1]).get());
      default:
        return ptz_settings_shell_load_config(Plain(plain[0]).get());
    }
  }
  bool load(const std::vector<Source> &files, const std::vector<Source> &patterns = {}) const {
    return load_with(GetParam(), files, patterns);
  }
  bool is_shell() const { return GetParam() == Loader::shell; }
  // A file in which the key "Key" (of the group "Group", where there are groups) has the value.
  std::string value_file(const std::string &name, const std::string &value, const std::string &key = "Key") const {
    return file(name, (is_shell() ? "" : "[Group]\n") + key + "=" + value + "\n");
  }
  std::optional<std::string> value(const std::string &key = "Key") const {
    return is_shell() ? shell_setting(key) : setting("Group", key);
  }
};

INSTANTIATE_TEST_SUITE_P(, Loading,
                         testing::Values(Loader::parsed, Loader::parsed_ext, Loader::key_file, Loader::shell), name_of);

TEST_P(Loading, AFileIsLoaded) {
  EXPECT_TRUE(load({{value_file("a", "one")}}));
  EXPECT_EQ(value(), "one");
  EXPECT_TRUE(log.lines().empty());
}

TEST_P(Loading, ALaterFileOverridesAnEarlierOne) {
  EXPECT_TRUE(load({{value_file("b", "one")}, {value_file("c", "two")}, {value_file("a", "three")}}));
  EXPECT_EQ(value(), "three");
}

TEST_P(Loading, FilesAreAddedUp) {
  EXPECT_TRUE(load({{value_file("a", "one", "First")}, {value_file("b", "two", "Second")}}));
  EXPECT_EQ(value("First"), "one");
  EXPECT_EQ(value("Second"), "two");
}

TEST_P(Loading, AFileWithoutALineEndDoesNotRunIntoTheNext) {
  const std::string head = is_shell() ? "" : "[Group]\n";
  EXPECT_TRUE(load({{file("a", head + "First=one")}, {file("b", head + "Second=two")}}));
  EXPECT_EQ(value("First"), "one");
  EXPECT_EQ(value("Second"), "two");
}

TEST_P(Loading, LoadingAgainReplacesWhatWasThere) {
  EXPECT_TRUE(load({{value_file("a", "one", "First")}}));
  EXPECT_TRUE(load({{value_file("b", "two", "Second")}}));
  EXPECT_EQ(value("First"), std::nullopt);
  EXPECT_EQ(value("Second"), "two");
  EXPECT_TRUE(load({{value_file("b", "two", "Second")}}));
  EXPECT_EQ(value("Second"), "two");
}

TEST_P(Loading, AMissingOptionalFileIsSkippedSilently) {
  EXPECT_TRUE(load({{dir.file("missing"), FALSE}, {value_file("a", "one")}, {dir.file("gone"), FALSE}}));
  EXPECT_EQ(value(), "one");
  EXPECT_TRUE(log.lines().empty());
}

TEST_P(Loading, AMissingMandatoryFileFailsTheLoad) {
  EXPECT_FALSE(load({{dir.file("missing")}, {value_file("a", "one")}}));
  EXPECT_EQ(value(), std::nullopt);
  EXPECT_EQ(log.lines(), error_lines({"could not open file '" + dir.file("missing") + "': No such file or directory"}));
}

TEST_P(Loading, AFailedReloadKeepsNothingOfTheOldStore) {
  ASSERT_TRUE(load({{value_file("a", "one")}}));
  EXPECT_FALSE(load({{dir.file("missing")}}));
  EXPECT_EQ(value(), std::nullopt);
}

TEST_P(Loading, AnUnreadableFileFailsTheLoadWhereItIsMandatory) {
  const auto path = value_file("locked", "one");
  const FileFault fault(Failing::open, EACCES, {.path = path});
  EXPECT_TRUE(load({{path, FALSE}, {value_file("b", "two")}}));
  EXPECT_EQ(value(), "two");
  EXPECT_TRUE(log.lines().empty());
  EXPECT_FALSE(load({{path}}));
  EXPECT_EQ(log.lines(), error_lines({"could not open file '" + path + "': Permission denied"}));
}

TEST_P(Loading, APathOfPercentSignsIsNoFormat) {
  const auto missing = dir.file("%s%n%d");
  EXPECT_FALSE(load({{missing}}));
  EXPECT_EQ(log.lines(), error_lines({"could not open file '" + missing + "': No such file or directory"}));
  EXPECT_TRUE(load({{value_file("100%n%s", "one")}}));
  EXPECT_EQ(value(), "one");
}

// Moves GLib's clock only: standard futures, which other tests wait for, do not bear a moved monotonic clock.
std::atomic<gint64> moved_us = 0;
void advance_glib_clock(std::int64_t milliseconds) { moved_us += milliseconds * 1000; }

struct LoadingPipes : Loading {
  std::string pipe = dir.file("pipe");
  LoadingPipes() { EXPECT_EQ(mkfifo(pipe.c_str(), 0600), 0); }

  // Lets every wait for the pipe end at once after as many as these, as though its time had passed.
  static Interposer::Handler impatient(int waits = 0) {
    return [waits](Attempt &attempt) mutable -> std::optional<Outcome> {
      if (attempt.call != Call::poll || waits-- > 0) return std::nullopt;
      EXPECT_GT(attempt.argument, 0);
      EXPECT_LE(attempt.argument, 10'000);
      return Outcome{0};
    };
  }
  // Ends once the writer has opened the pipe; its descriptor.
  Descriptor open_to_write() const { return Descriptor(open(pipe.c_str(), O_WRONLY | O_CLOEXEC)); }
};

INSTANTIATE_TEST_SUITE_P(, LoadingPipes,
                         testing::Values(Loader::parsed, Loader::parsed_ext, Loader::key_file, Loader::shell), name_of);

TEST_P(LoadingPipes, OneIsReadUntilItsWriterHasGone) {
  auto loaded = std::async(std::launch::async, [this] { return load({{pipe}}); });
  Descriptor writer = open_to_write();
  const std::string text = is_shell() ? "Key=one\n" : "[Group]\nKey=one\n";
  for (const char c : text) {
    ASSERT_EQ(write(writer.get(), &c, 1), 1);
    std::this_thread::yield();
  }
  EXPECT_EQ(loaded.wait_for(20ms), std::future_status::timeout) << "the pipe has a writer still";
  auto asked = std::async(std::launch::async, [this] { return value(); });
  EXPECT_EQ(asked.wait_for(20ms), std::future_status::timeout) << "who asks must wait for the whole load";
  writer.reset();
  EXPECT_TRUE(loaded.get());
  EXPECT_EQ(asked.get(), "one");
  EXPECT_TRUE(log.lines().empty());
}

TEST_P(LoadingPipes, OneThatNobodyWritesToCannotBeOpened) {
  {
    const Interposer no_time(impatient());
    EXPECT_FALSE(load({{pipe}}));
  }
  EXPECT_EQ(log.lines(), error_lines({"could not open file '" + pipe + "': Connection timed out"}));
  // The lock is free again.
  EXPECT_TRUE(load({{value_file("a", "one")}}));
  EXPECT_EQ(value(), "one");
}

TEST_P(LoadingPipes, AnOptionalOneThatNobodyWritesToIsSkipped) {
  const Interposer no_time(impatient());
  EXPECT_TRUE(load({{pipe, FALSE}, {value_file("a", "one")}}));
  EXPECT_EQ(value(), "one");
  EXPECT_TRUE(log.lines().empty());
}

TEST_P(LoadingPipes, AWriterThatStaysEndsInAFailure) {
  const Descriptor reader(open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  const Descriptor writer = open_to_write();
  ASSERT_EQ(write(writer.get(), "#\n", 2), 2);
  const bool reads_when_opening = GetParam() == Loader::parsed || GetParam() == Loader::parsed_ext;
  const Interposer no_time(impatient(reads_when_opening ? 1 : 2));
  EXPECT_FALSE(load({{pipe}}));
  EXPECT_EQ(log.lines(), error_lines({(reads_when_opening ? "could not open file '" : "failed reading file '") + pipe +
                                      "': Connection timed out"}));
}

// Pipes that hold a setting each. A writer leaves only once its pipe has been read empty: a reader that comes later is
// not told of the end by poll(2).
struct FullPipes {
  std::vector<Descriptor> readers, writers;
  std::vector<Source> sources;

  FullPipes(const TempDir &dir, int count, const std::string &head) {
    for (int number = 0; number < count; ++number) {
      const std::string path = dir.file("full" + std::to_string(number));
      const std::string text = head + "Key" + std::to_string(number) + "=one\n";
      EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
      readers.emplace_back(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
      writers.emplace_back(open(path.c_str(), O_WRONLY | O_CLOEXEC));
      EXPECT_EQ(write(writers.back().get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
      sources.push_back({path});
    }
  }
  void before_poll(int fd) {
    int bytes = 0;
    if (ioctl(fd, FIONREAD, &bytes) != 0 || bytes > 0) return;
    std::erase_if(writers, [fd](const Descriptor &writer) {
      struct stat polled = {}, written = {};
      return fstat(fd, &polled) == 0 && fstat(writer.get(), &written) == 0 && polled.st_ino == written.st_ino;
    });
  }
};

TEST_P(LoadingPipes, OpeningAndReadingOfAllPipesOfALoadShareOneDeadline) {
  FullPipes pipes(dir, 3, is_shell() ? "" : "[Group]\n");
  std::vector<std::int64_t> waits_ms;
  {
    const Interposer each_wait_takes_a_second([&](Attempt &attempt) -> std::optional<Outcome> {
      if (attempt.call != Call::poll) return std::nullopt;
      waits_ms.push_back(attempt.argument);
      pipes.before_poll(attempt.fd);
      advance_glib_clock(1000);
      return std::nullopt;
    });
    EXPECT_TRUE(load(pipes.sources));
  }
  ASSERT_GE(waits_ms.size(), 6U) << "one for the bytes and one for the end of each";
  EXPECT_GT(waits_ms[0], 9'000);
  for (std::size_t i = 0; i < waits_ms.size(); ++i) {
    EXPECT_LE(waits_ms[i], std::max<std::int64_t>(10'000 - 1000 * static_cast<std::int64_t>(i), 0));
  }
  for (const char *key : {"Key0", "Key1", "Key2"}) EXPECT_EQ(value(key), "one");
}

TEST_P(LoadingPipes, PipesAfterTheDeadlineAreReadIfTheyAreReadyAndNotWaitedFor) {
  const std::string second = dir.file("second");
  ASSERT_EQ(mkfifo(second.c_str(), 0600), 0);
  FullPipes full(dir, 1, is_shell() ? "" : "[Group]\n");
  std::vector<std::int64_t> waits_ms;
  const Interposer time_passes([&](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call != Call::poll) return std::nullopt;
    waits_ms.push_back(attempt.argument);
    full.before_poll(attempt.fd);
    advance_glib_clock(std::exchange(attempt.argument, 0));
    return std::nullopt;
  });
  EXPECT_TRUE(load({{pipe, FALSE}, {second, FALSE}, full.sources[0], {value_file("a", "one")}}));
  EXPECT_EQ(value(), "one");
  EXPECT_EQ(value("Key0"), "one");
  ASSERT_GE(waits_ms.size(), 4U);
  EXPECT_GT(waits_ms[0], 9'000);
  for (std::size_t i = 1; i < waits_ms.size(); ++i) EXPECT_EQ(waits_ms[i], 0);
  EXPECT_TRUE(log.lines().empty());
  waits_ms.clear();
  const auto descriptors = open_descriptors();
  EXPECT_FALSE(load({{pipe}}));
  ASSERT_EQ(waits_ms.size(), 1U);
  EXPECT_GT(waits_ms[0], 9'000) << "each load has a deadline of its own";
  EXPECT_EQ(log.lines(), error_lines({"could not open file '" + pipe + "': Connection timed out"}));
  EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_P(LoadingPipes, AnEndlessWriterEndsInAFailure) {
  auto loaded = std::async(std::launch::async, [this] { return load({{pipe}}); });
  const Descriptor writer = open_to_write();
  const std::string lines(65'536, '\n');
  const auto handler = std::signal(SIGPIPE, SIG_IGN);  // which the write after the load's end would bring
  std::size_t sent = 0;
  while (loaded.wait_for(0s) == std::future_status::timeout) {
    const auto count = write(writer.get(), lines.data(), lines.size());
    if (count < 0) break;
    sent += static_cast<std::size_t>(count);
  }
  std::signal(SIGPIPE, handler);
  EXPECT_FALSE(loaded.get());
  EXPECT_GT(sent, 16'777'216U);
  EXPECT_LT(sent, 2 * 16'777'216U);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_TRUE(log.lines()[0].text.ends_with(" file '" + pipe + "': File too large")) << log.lines()[0].text;
}

TEST_P(Loading, AnEndlessDeviceEndsInAFailure) {
  EXPECT_FALSE(load({{"/dev/zero"}}));
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].text.rfind("could not open file '/dev/zero': ", 0), 0U) << log.lines()[0].text;
}

TEST_P(Loading, TheNullDeviceIsAnEmptyFile) {
  EXPECT_TRUE(load({{"/dev/null"}, {value_file("a", "one")}}));
  EXPECT_EQ(value(), "one");
}

TEST_P(Loading, AFolderEndsInAFailure) {
  const auto folder = dir.file("folder");
  std::filesystem::create_directory(folder);
  EXPECT_FALSE(load({{folder}}));
  ASSERT_EQ(log.lines().size(), 1U);
  const bool channel = GetParam() == Loader::key_file || is_shell();
  EXPECT_EQ(log.lines()[0], (LogLine{LOG_ERR, std::string(channel ? "failed reading" : "could not open") + " file '" +
                                                  folder + "': Is a directory"}));
  EXPECT_TRUE(load({{value_file("a", "one")}}));
}

TEST_P(Loading, NoDescriptorIsLeftOpen) {
  const auto good = value_file("good", "one");
  const auto bad = file("bad", "no key\n[");
  const auto latin = value_file("latin", "\xE9");
  std::filesystem::create_directory(dir.file("folder"));
  const auto descriptors = open_descriptors();
  load({{good}, {latin}});
  load({{good}, {bad}});
  load({{good}, {dir.file("folder")}});
  load({{good}, {dir.file("missing")}});
  EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_P(Loading, AnEmptyFileHoldsNothing) {
  EXPECT_TRUE(load({{file("empty", "")}}));
  EXPECT_EQ(value(), std::nullopt);
  EXPECT_TRUE(log.lines().empty());
}

TEST_P(Loading, CommentsAndBlankLinesAreAllowed) {
  EXPECT_TRUE(
      load({{file("a", std::string("# comment\n\n") + (is_shell() ? "" : "[Group]\n") + "#Key=zero\n\nKey=one\n")}}));
  EXPECT_EQ(value(), "one");
}

TEST_P(Loading, BinaryFilesLeaveTheProcessAliveAndTheLockFree) {
  std::string bytes;
  for (int i = 0; i < 4096; ++i) bytes.push_back(static_cast<char>(i * 37 ^ i >> 3));
  const GlibLogCapture glib;
  for (const std::string &content :
       {bytes, std::string("\0", 1), std::string("[Group]\nKey=o\0ne\nOther=two\n", 27),
        std::string("[Gro\0up]\nKey=one\n", 17), std::string("\xFF\xFE[\0G\0", 7),
        std::string("[Group]\nK\0ey=one\n", 17), std::string(100'000, '\0'), std::string(100'000, '['),
        std::string("[Group]\nKey=\xC3"), std::string("\xEF\xBB\xBF[Group]\nKey=one\n")}) {
    const SyslogCapture lines;
    const bool loaded = load({{file("binary", content)}});
    EXPECT_EQ(lines.lines().size(), loaded ? 0U : 1U);
    value();
  }
  EXPECT_TRUE(glib.messages().empty()) << glib.messages()[0].text;
  EXPECT_TRUE(load({{value_file("a", "one")}}));
  EXPECT_EQ(value(), "one");
}

TEST_P(Loading, AVeryLongLineIsWhole) {
  const std::string text(300'000, 'x');
  EXPECT_TRUE(load({{value_file("long", text)}}));
  EXPECT_EQ(value(), text);
}

TEST_P(Loading, ReadersWaitUntilTheLoadIsFinished) {
  const auto path = value_file("a", "one");
  const Hold hold(path);
  auto load_result = std::async(std::launch::async, [&] { return load({{path}}); });
  hold.wait_until_reached();
  auto read_result = std::async(std::launch::async, [&] { return value(); });
  EXPECT_EQ(read_result.wait_for(50ms), std::future_status::timeout);
  hold.let_go();
  EXPECT_TRUE(load_result.get());
  EXPECT_EQ(read_result.get(), "one");
}

// --- loaders with patterns --------------------------------------------------------------------------------------

struct PatternLoading : Loading {};

INSTANTIATE_TEST_SUITE_P(, PatternLoading, testing::Values(Loader::parsed, Loader::parsed_ext, Loader::key_file),
                         name_of);

TEST_P(PatternLoading, FilesFoundByPatternsOverrideTheListedPaths) {
  const auto listed = value_file("z", "listed");
  value_file("a.conf", "found");
  EXPECT_TRUE(load({{listed}}, {{dir.file("*.conf")}}));
  EXPECT_EQ(value(), "found");
}

TEST_P(PatternLoading, AmongTheMatchesTheLastInListingOrderWins) {
  value_file("c.conf", "last");
  value_file("a.conf", "first");
  value_file("b.conf", "middle");
  EXPECT_TRUE(load({}, {{dir.file("*.conf")}}));
  EXPECT_EQ(value(), "last");
}

TEST_P(PatternLoading, ALaterPatternOverridesAnEarlierOne) {
  value_file("z.conf", "first pattern");
  value_file("a.cfg", "second pattern");
  EXPECT_TRUE(load({}, {{dir.file("*.conf")}, {dir.file("*.cfg")}}));
  EXPECT_EQ(value(), "second pattern");
}

TEST_P(PatternLoading, APatternWithoutMatchesIsLoggedWhereItIsMandatory) {
  const auto path = value_file("a", "one");
  EXPECT_TRUE(load({{path}}, {{dir.file("*.conf"), FALSE}}));
  EXPECT_TRUE(log.lines().empty());
  EXPECT_TRUE(load({{path}}, {{dir.file("*.conf"), TRUE}}));
  EXPECT_EQ(value(), "one");
  EXPECT_EQ(log.lines(),
            error_lines({"ptz_settings_find_config_files: Files not found: '" + dir.file("*.conf") + "'"}));
}

TEST_P(PatternLoading, TheFlagOfAPatternAppliesToEveryFileThatItFinds) {
  value_file("a.conf", "one");
  const auto locked = value_file("b.conf", "two");
  const FileFault fault(Failing::open, EACCES, {.path = locked});
  EXPECT_TRUE(load({}, {{dir.file("*.conf"), FALSE}}));
  EXPECT_EQ(value(), "one");
  EXPECT_FALSE(load({}, {{dir.file("*.conf"), TRUE}}));
  EXPECT_EQ(log.lines(), error_lines({"could not open file '" + locked + "': Permission denied"}));
}

TEST_P(PatternLoading, ANameCutAt199CharactersIsAFileThatDoesNotExist) {
  const auto path = dir.file(std::string(199 - dir.file("").size(), 'n'));
  write_file(path, "[Group]\nKey=one\n");
  const auto other = value_file("other", "two");
  EXPECT_TRUE(load({{other}}, {{dir.file("n*"), FALSE}}));
  EXPECT_EQ(value(), "two");
  EXPECT_FALSE(load({{other}}, {{dir.file("n*"), TRUE}}));
  EXPECT_EQ(log.lines(), error_lines({"could not open file '': No such file or directory"}));
}

TEST_P(PatternLoading, ManyFilesAreLoadedInOrder) {
  std::vector<Source> listed;
  for (int i = 0; i < 45; ++i)
    listed.push_back({value_file("listed" + std::to_string(i), "x", "L" + std::to_string(i))});
  for (int i = 0; i < 45; ++i)
    value_file(std::to_string(100 + i) + ".conf", std::to_string(i), "P" + std::to_string(i));
  EXPECT_TRUE(load(listed, {{dir.file("*.conf")}}));
  for (int i = 0; i < 45; ++i) {
    EXPECT_EQ(value("L" + std::to_string(i)), "x");
    EXPECT_EQ(value("P" + std::to_string(i)), std::to_string(i));
  }
}

TEST_P(PatternLoading, FailingToGrowTheListLeavesTheStoreAbsent) {
  const auto path = value_file("a", "one");
  ASSERT_TRUE(load({{path}}));
  const FileFault fault(Failing::grow, ENOMEM);
  EXPECT_FALSE(load(std::vector<Source>(50, {path})));
  const std::string function =
      GetParam() == Loader::key_file ? "ptz_settings_load_config_gkf" : "ptz_settings_load_config_ext";
  EXPECT_EQ(log.lines(), error_lines({function + ": Error allocating memory, conf files will not be loaded"}));
  EXPECT_EQ(value(), std::nullopt);
  EXPECT_FALSE(ptz_settings_has_custom_group("Group"));
}

TEST_P(PatternLoading, FailingToGrowForTheMatchesFailsTheLoadToo) {
  for (int i = 0; i < 15; ++i) value_file(std::to_string(10 + i) + ".conf", "one");
  const auto path = value_file("a", "one");
  const FileFault fault(Failing::grow, ENOMEM, {.skip = 1});  // the list grows a second time
  const bool loaded = load(std::vector<Source>(10, {path}), {{dir.file("*.conf")}});
  EXPECT_EQ(fault.hits(), 1);
  EXPECT_FALSE(loaded);
  EXPECT_EQ(value(), std::nullopt);
}

TEST_P(PatternLoading, ReadersWaitForTheListing) {
  value_file("a.conf", "one");
  std::atomic<bool> listing = false;
  std::promise<void> go_on;
  const Commands commands([&, blocked = go_on.get_future().share()](const std::string &command) {
    listing = true;
    blocked.wait();
    return command;
  });
  auto load_result = std::async(std::launch::async, [&] { return load({}, {{dir.file("*.conf")}}); });
  while (!listing) std::this_thread::yield();
  auto group = std::async(std::launch::async, [] { return ptz_settings_has_custom_group("Group") != FALSE; });
  auto keys = std::async(std::launch::async, [] { return names_of(ptz_settings_get_custom_group("Group")); });
  EXPECT_EQ(group.wait_for(30ms), std::future_status::timeout);
  EXPECT_EQ(keys.wait_for(30ms), std::future_status::timeout);
  // The shell store has a lock of its own.
  EXPECT_EQ(shell_setting("Key"), std::nullopt);
  EXPECT_TRUE(load_shell("Key=shell\n"));
  EXPECT_EQ(shell_setting("Key"), "shell");
  go_on.set_value();
  EXPECT_TRUE(load_result.get());
  EXPECT_TRUE(group.get());
  EXPECT_EQ(keys.get(), Names{"Key"});
}

// --- the parsed store -------------------------------------------------------------------------------------------

struct ParsedStore : SettingsTest {
  SyslogCapture log;

  static bool load(const std::string &path, gboolean mandatory = TRUE, gboolean convert = TRUE) {
    return ptz_settings_load_config_ext(Extended{{path.c_str(), mandatory, convert}}.get(), nullptr) != FALSE;
  }
};

TEST_F(ParsedStore, NoFilesAtAllAreAnEmptyStore) {
  ASSERT_TRUE(load_parsed("[Group]\nKey=one\n"));
  EXPECT_TRUE(ptz_settings_load_config(nullptr, nullptr));
  EXPECT_EQ(setting("Group", "Key"), std::nullopt);
  EXPECT_TRUE(ptz_settings_load_config_ext(nullptr, nullptr));
  EXPECT_TRUE(ptz_settings_load_config(Plain{}.get(), Plain{}.get()));
  EXPECT_TRUE(ptz_settings_load_config_ext(Extended{}.get(), Extended{}.get()));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(ParsedStore, WhatEarlierFilesHeldStaysAfterAFailure) {
  const auto first = file("first", "[Group]\nKey=one\n");
  const auto last = file("last", "[Group]\nKey=three\nLate=yes\n");
  const auto missing = dir.file("missing");
  const Plain files{{first.c_str(), TRUE}, {missing.c_str(), TRUE}, {last.c_str(), TRUE}};
  EXPECT_FALSE(ptz_settings_load_config(files.get(), nullptr));
  EXPECT_EQ(setting("Group", "Key"), "one");
  EXPECT_EQ(setting("Group", "Late"), std::nullopt);
}

TEST_F(ParsedStore, EveryOpenedFileIsClosed) {
  const auto first = file("first", "[Group]\nKey=one\n");
  const auto second = file("second", "[Group]\nKey=two\n");
  const auto missing = dir.file("missing");
  const ReaderLog reader;
  const Plain files{{first.c_str(), TRUE}, {missing.c_str(), FALSE}, {second.c_str(), TRUE}};
  EXPECT_TRUE(ptz_settings_load_config(files.get(), nullptr));
  EXPECT_EQ(reader.opened(), (Names{first, second}));
  EXPECT_EQ(reader.closed(), 2U);
}

TEST_F(ParsedStore, TheReaderGetsTheFilesInTheirOrder) {
  const auto a = file("a.conf", "");
  const auto b = file("b.conf", "");
  const auto listed = file("z", "");
  const auto pattern = dir.file("*.conf");
  const ReaderLog reader;
  EXPECT_TRUE(ptz_settings_load_config(Plain{{listed.c_str(), TRUE}}.get(), Plain{{pattern.c_str(), TRUE}}.get()));
  EXPECT_EQ(reader.opened(), (Names{listed, a, b}));
}

TEST_F(ParsedStore, Latin1IsConvertedWhereThatIsWanted) {
  const auto path = file("latin", "[Group]\nKey=caf\xE9\nPlain=tea\n");
  EXPECT_TRUE(load(path, TRUE, TRUE));
  EXPECT_EQ(setting("Group", "Key"), "caf\xC3\xA9");
  EXPECT_EQ(setting("Group", "Plain"), "tea");
}

TEST_F(ParsedStore, ThePlainLoaderConverts) {
  const auto listed = file("latin", "[Group]\nKey=\xE9\n");
  const auto found = file("latin.conf", "[Group]\nOther=\xE9\n");
  EXPECT_TRUE(ptz_settings_load_config(Plain{{listed.c_str(), TRUE}}.get(), Plain{{found.c_str(), TRUE}}.get()));
  EXPECT_EQ(setting("Group", "Key"), "\xC3\xA9");
  EXPECT_EQ(setting("Group", "Other"), "\xC3\xA9");
}

TEST_F(ParsedStore, Utf8IsNotConvertedAgain) {
  EXPECT_TRUE(load(file("utf8", "[Group]\nKey=caf\xC3\xA9\n"), TRUE, TRUE));
  EXPECT_EQ(setting("Group", "Key"), "caf\xC3\xA9");
}

TEST_F(ParsedStore, WithoutConversionNothingIsConverted) {
  const FileFault conversions(Failing::convert);
  EXPECT_TRUE(load(file("latin", "[Group]\nKey=\xE9\nPlain=tea\n"), TRUE, FALSE));
  EXPECT_EQ(conversions.hits(), 0);
  EXPECT_EQ(setting("Group", "Key"), std::nullopt) << "no text";
  EXPECT_EQ(setting("Group", "Plain"), "tea");
  EXPECT_EQ(names_of(ptz_settings_get_custom_group("Group")), (Names{"Key", "Plain"}));
}

TEST_F(ParsedStore, TheFlagOfAPatternSaysWhetherItsFilesAreConverted) {
  const auto path = file("latin.conf", "[Group]\nKey=\xE9\n");
  EXPECT_TRUE(ptz_settings_load_config_ext(nullptr, Extended{{path.c_str(), TRUE, TRUE}}.get()));
  EXPECT_EQ(setting("Group", "Key"), "\xC3\xA9");
  EXPECT_TRUE(ptz_settings_load_config_ext(nullptr, Extended{{path.c_str(), TRUE, FALSE}}.get()));
  EXPECT_EQ(setting("Group", "Key"), std::nullopt);
}

TEST_F(ParsedStore, AFailedConversionIsLoggedAndClosesTheReader) {
  const auto path = file("latin%s", "[Group]\nBefore=one\nKey=\xE9\nAfter=two\n");
  const ReaderLog reader;
  const FileFault fault(Failing::convert);
  EXPECT_FALSE(load(path));
  EXPECT_EQ(log.lines(),
            error_lines({"could not convert file '" + path + "' from ISO-8859-1: " + std::string(conversion_message)}));
  EXPECT_EQ(reader.opened().size(), 1U);
  EXPECT_EQ(reader.closed(), 1U);
  EXPECT_EQ(setting("Group", "Before"), "one");
  EXPECT_EQ(setting("Group", "After"), std::nullopt);
}

TEST_F(ParsedStore, AFailedConversionWithoutAReasonIsLoggedWithoutOne) {
  const auto path = file("latin", "[Group]\nKey=\xE9\n");
  const FileFault fault(Failing::convert_mute);
  EXPECT_FALSE(load(path));
  EXPECT_EQ(log.lines(), error_lines({"could not convert file '" + path + "' from ISO-8859-1: (NULL)"}));
}

TEST_F(ParsedStore, ARecordWithoutAValueIsAnEmptySetting) {
  const FakeReader reader({{"Group", "Key", std::nullopt}, {"Group", "Other", "two"}});
  EXPECT_TRUE(load("any"));
  EXPECT_EQ(setting("Group", "Key"), "");
  EXPECT_EQ(setting("Group", "Other"), "two");
}

TEST_F(ParsedStore, ALaterRecordReplacesAnEarlierOne) {
  const FakeReader reader({{"Group", "Key", "one"}, {"Other", "Key", "x"}, {"Group", "Key", "two"}});
  EXPECT_TRUE(load("any"));
  EXPECT_EQ(setting("Group", "Key"), "two");
  EXPECT_EQ(names_of(ptz_settings_get_custom_group("Group")), Names{"Key"});
}

TEST_F(ParsedStore, OddGroupsAndKeysCostNoCriticalAndNotTheRest) {
  const GlibLogCapture glib;
  std::vector<Record> records;
  for (const char *odd : {"",   "[",    "]",    "a[b",  "a]b",  "a=b",   "=",    " ",  " a",   "a ", "\n",  "a\nb",
                          "\t", "\x01", "\x7F", "\xE9", "\xC3", "a[de]", "[de]", "a[", "%s%n", "#",  "a\\b"}) {
    records.push_back({odd, "Key", "value"});
    records.push_back({"Group", odd, "value"});
    records.push_back({odd, odd, odd});
    records.push_back({odd, odd, std::nullopt});
  }
  records.push_back({std::nullopt, "Key", "value"});
  records.push_back({"Group", std::nullopt, "value"});
  records.push_back({std::nullopt, std::nullopt, std::nullopt});
  records.push_back({"Group", "Last", "seen"});
  const FakeReader reader(records);
  EXPECT_TRUE(load("any"));
  EXPECT_EQ(setting("Group", "Last"), "seen");
  for (const auto &key : names_of(ptz_settings_get_custom_group("Group")).value_or(Names{})) setting("Group", key);
  EXPECT_TRUE(glib.messages().empty()) << glib.messages()[0].text;
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(ParsedStore, AKeyMayEndInALocale) {
  const GlibLogCapture glib;
  std::vector<Record> records{
      {"Group", "Name", "camera"}, {"Group", "Name[de]", "Kamera"}, {"Group", "Name[sr@Latn_RS.a-1]", "kamera"}};
  for (const char *odd : {"Name[de", "Name[]x", "][de]", "Name[d e]", "Name[de]x", "Name [de]", "[de]", "Name[de][en]",
                          "Name[[de]]", "Na]me[de]"}) {
    records.push_back({"Group", odd, "value"});
  }
  const FakeReader reader(records);
  EXPECT_TRUE(load("any"));
  EXPECT_EQ(setting("Group", "Name"), "camera");
  EXPECT_EQ(setting("Group", "Name[de]"), "Kamera");
  EXPECT_EQ(setting("Group", "Name[sr@Latn_RS.a-1]"), "kamera");
  EXPECT_EQ(names_of(ptz_settings_get_custom_group("Group"))->size(), 3U);
  EXPECT_TRUE(glib.messages().empty()) << glib.messages()[0].text;
}

TEST_F(ParsedStore, ValuesOfManyLinesAreKept) {
  const FakeReader reader({{"Group", "Key", "one\n[Other]\nKey=two"}, {"Group", "After", "x"}});
  EXPECT_TRUE(load("any"));
  EXPECT_EQ(setting("Group", "Key"), "one\n[Other]\nKey=two");
  EXPECT_FALSE(ptz_settings_has_custom_group("Other"));
}

TEST_F(ParsedStore, FilesOfAnotherKindHaveKeysBeforeAnyGroup) {
  EXPECT_TRUE(load(file("flat", "root.PTZ.Limit.Speed=\"100\"\nDriver.Name='cam'\nroot.Brand=velk\n")));
  EXPECT_EQ(setting("PTZ.Limit", "Speed"), "100");
  EXPECT_EQ(setting("root.PTZ.Limit", "Speed"), "100");
  EXPECT_EQ(setting("Driver", "Name"), "cam");
  EXPECT_EQ(text_of(ptz_settings_get_vp("root.Brand")), "velk");
}

// --- the key-file store -----------------------------------------------------------------------------------------

struct KeyFileStore : SettingsTest {
  SyslogCapture log;
};

TEST_F(KeyFileStore, NoFileReadAtAllIsAFailure) {
  ASSERT_TRUE(load_key_file("[Group]\nKey=one\n"));
  const auto missing = dir.file("missing");
  EXPECT_FALSE(ptz_settings_load_config_gkf(Plain{{missing.c_str(), FALSE}}.get(), nullptr));
  EXPECT_EQ(log.lines(), error_lines({"ptz_settings_load_config_gkf: no data to read"}));
  EXPECT_FALSE(ptz_settings_has_custom_group("Group"));
  EXPECT_FALSE(ptz_settings_load_config_gkf(nullptr, nullptr));
  EXPECT_FALSE(ptz_settings_load_config_gkf(Plain{}.get(), Plain{}.get()));
  EXPECT_EQ(log.count(LOG_ERR, "ptz_settings_load_config_gkf: no data to read"), 3U);
}

TEST_F(KeyFileStore, AGroupGoesOnInALaterFile) {
  const auto first = file("first", "[One]\nA=1\n[Two]\nA=2\n");
  const auto second = file("second", "B=3\n[One]\nB=4\nA=5\n");
  EXPECT_TRUE(ptz_settings_load_config_gkf(Plain{{first.c_str(), TRUE}, {second.c_str(), TRUE}}.get(), nullptr));
  EXPECT_EQ(setting("One", "A"), "5");
  EXPECT_EQ(setting("One", "B"), "4");
  EXPECT_EQ(setting("Two", "A"), "2");
  EXPECT_EQ(setting("Two", "B"), "3") << "the files are one text";
}

TEST_F(KeyFileStore, TextThatDoesNotParseLeavesAnEmptyStore) {
  EXPECT_FALSE(load_key_file("[Group]\nKey=one\nno key\n"));
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].priority, LOG_ERR);
  EXPECT_EQ(log.lines()[0].text.rfind("could not load settings: Key file contains line", 0), 0U) << log.lines()[0].text;
  EXPECT_NE(log.lines()[0].text.find("no key"), std::string::npos);
  EXPECT_FALSE(ptz_settings_has_custom_group("Group")) << "a group before the bad line";
  EXPECT_EQ(setting("Group", "Key"), std::nullopt);
}

TEST_F(KeyFileStore, AKeyBeforeAnyGroupDoesNotParse) {
  EXPECT_FALSE(load_key_file("Key=one\n"));
  EXPECT_EQ(log.lines(), error_lines({"could not load settings: Key file does not start with a group"}));
}

TEST_F(KeyFileStore, ANonParsingFileSpoilsTheOthersToo) {
  const auto good = file("good", "[Group]\nKey=one\n");
  const auto bad = file("bad", "%s%n garbage\n");
  EXPECT_FALSE(ptz_settings_load_config_gkf(Plain{{good.c_str(), TRUE}, {bad.c_str(), FALSE}}.get(), nullptr));
  EXPECT_FALSE(ptz_settings_has_custom_group("Group"));
  EXPECT_EQ(log.containing("%s%n garbage"), 1U);
}

TEST_F(KeyFileStore, NothingIsConverted) {
  const FileFault conversions(Failing::convert);
  EXPECT_TRUE(load_key_file("[Group]\nKey=caf\xE9\nPlain=tea\n"));
  EXPECT_EQ(conversions.hits(), 0);
  EXPECT_EQ(setting("Group", "Key"), std::nullopt) << "no text";
  EXPECT_EQ(setting("Group", "Plain"), "tea");
}

TEST_F(KeyFileStore, TranslationsAreNotKept) {
  EXPECT_TRUE(load_key_file("[Group]\nName=camera\nName[xx]=kamera\n"));
  EXPECT_EQ(names_of(ptz_settings_get_custom_group("Group")), Names{"Name"});
}

TEST_F(KeyFileStore, AReadThatFailsHalfwayFailsTheLoadAlsoOfAnOptionalFile) {
  const auto path = file("a", "[Group]\nKey=one\n");
  const Fault fault(Call::read, EIO, {.times = 1});
  EXPECT_FALSE(ptz_settings_load_config_gkf(Plain{{path.c_str(), FALSE}}.get(), nullptr));
  EXPECT_EQ(log.lines(), error_lines({"failed reading file '" + path + "': Input/output error"}));
  EXPECT_FALSE(ptz_settings_has_custom_group("Group"));
}

TEST_F(KeyFileStore, AnOptionalFolderFailsTheLoad) {
  EXPECT_FALSE(ptz_settings_load_config_gkf(Plain{{dir.path().c_str(), FALSE}}.get(), nullptr));
  EXPECT_EQ(log.lines(), error_lines({"failed reading file '" + dir.path() + "': Is a directory"}));
}

TEST_F(KeyFileStore, IsIndependentOfTheParsedStore) {
  ASSERT_TRUE(load_parsed("[Parsed]\nKey=one\n"));
  ASSERT_TRUE(load_key_file("[KeyFile]\nKey=two\n"));
  EXPECT_EQ(setting("Parsed", "Key"), "one");
  EXPECT_EQ(setting("KeyFile", "Key"), "two");
  EXPECT_TRUE(ptz_settings_load_config(nullptr, nullptr));
  EXPECT_EQ(setting("Parsed", "Key"), std::nullopt);
  EXPECT_EQ(setting("KeyFile", "Key"), "two");
}

// --- the shell store --------------------------------------------------------------------------------------------

struct ShellStore : SettingsTest {
  SyslogCapture log;
};

TEST_F(ShellStore, NoFilesAtAllAreAnEmptyStore) {
  ASSERT_TRUE(load_shell("KEY=one\n"));
  EXPECT_TRUE(ptz_settings_shell_load_config(nullptr));
  EXPECT_EQ(shell_setting("KEY"), std::nullopt);
  EXPECT_TRUE(ptz_settings_shell_load_config(Plain{}.get()));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(ShellStore, Latin1IsConvertedAsAWhole) {
  EXPECT_TRUE(load_shell("KEY=caf\xE9\nUTF8=\xC3\xA9\n"));
  EXPECT_EQ(shell_setting("KEY"), "caf\xC3\xA9");
  EXPECT_EQ(shell_setting("UTF8"), "\xC3\x83\xC2\xA9") << "one byte makes the whole file Latin-1";
}

TEST_F(ShellStore, EachFileIsConvertedOnItsOwn) {
  const auto latin = file("latin", "LATIN=\xE9\n");
  const auto utf8 = file("utf8", "UTF8=\xC3\xA9\n");
  EXPECT_TRUE(ptz_settings_shell_load_config(Plain{{latin.c_str(), TRUE}, {utf8.c_str(), TRUE}}.get()));
  EXPECT_EQ(shell_setting("LATIN"), "\xC3\xA9");
  EXPECT_EQ(shell_setting("UTF8"), "\xC3\xA9");
}

TEST_F(ShellStore, AFailedConversionFailsTheLoad) {
  const auto path = file("latin%d", "KEY=\xE9\n");
  {
    const FileFault fault(Failing::convert);
    EXPECT_FALSE(ptz_settings_shell_load_config(Plain{{path.c_str(), TRUE}}.get()));
    EXPECT_EQ(log.lines(), error_lines({"could not convert file '" + path +
                                        "' from ISO-8859-1: " + std::string(conversion_message)}));
  }
  const FileFault fault(Failing::convert_mute);
  EXPECT_FALSE(ptz_settings_shell_load_config(Plain{{path.c_str(), TRUE}}.get()));
  EXPECT_EQ(log.count(LOG_ERR, "could not convert file '" + path + "' from ISO-8859-1: (NULL)"), 1U);
}

TEST_F(ShellStore, ALineOfAnotherKindLeavesAnEmptyStore) {
  EXPECT_FALSE(load_shell("KEY=one\nexport OTHER\n"));
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].priority, LOG_ERR);
  EXPECT_EQ(log.lines()[0].text.rfind("could not load settings: ", 0), 0U);
  EXPECT_EQ(shell_setting("KEY"), std::nullopt);
}

TEST_F(ShellStore, KeysUnderAGroupHeaderAreOutOfReach) {
  EXPECT_TRUE(load_shell("KEY=one\n[Other]\nKEY=two\nHIDDEN=three\n"));
  EXPECT_EQ(shell_setting("KEY"), "one");
  EXPECT_EQ(shell_setting("HIDDEN"), std::nullopt);
}

TEST_F(ShellStore, AReadThatFailsFailsTheLoadAlsoOfAnOptionalFile) {
  const auto path = file("a", "KEY=one\n");
  const Fault fault(Call::read, EIO, {.times = 1});
  EXPECT_FALSE(ptz_settings_shell_load_config(Plain{{path.c_str(), FALSE}}.get()));
  EXPECT_EQ(log.lines(), error_lines({"failed reading file '" + path + "': Input/output error"}));
}

TEST_F(ShellStore, GroupReadersDoNotWaitForItsLoader) {
  ASSERT_TRUE(load_key_file("[Group]\nKey=one\n"));
  const auto path = file("slow", "KEY=shell\n");
  const Hold hold(path);
  auto load_result = std::async(std::launch::async, [&] {
    return ptz_settings_shell_load_config(Plain{{path.c_str(), TRUE}}.get());
  });
  hold.wait_until_reached();
  EXPECT_EQ(setting("Group", "Key"), "one");
  EXPECT_TRUE(load_parsed("[Parsed]\nKey=two\n"));
  hold.let_go();
  EXPECT_TRUE(load_result.get());
}

TEST_F(ShellStore, GroupAccessorsDoNotSeeIt) {
  ASSERT_TRUE(load_shell("KEY=one\n"));
  EXPECT_FALSE(ptz_settings_has_custom_group("FAKESECTION"));
  EXPECT_EQ(setting("FAKESECTION", "KEY"), std::nullopt);
}

// --- several threads --------------------------------------------------------------------------------------------

TEST_F(KeyFileStore, ReadersNeverSeeHalfOfAReload) {
  std::string text[2];
  for (const int version : {0, 1}) {
    text[version] = "[Group]\n";
    for (int key = 0; key < 50; ++key)
      text[version] += "K" + std::to_string(key) + "=" + std::to_string(version) + "\n";
  }
  const std::string paths[] = {file("zero", text[0]), file("one", text[1])};
  ASSERT_TRUE(load_key_file(text[0]));
  ASSERT_TRUE(load_parsed("[Parsed]\nKey=0\n"));
  ASSERT_TRUE(load_shell("KEY=0\n"));
  std::atomic<bool> stop = false;
  std::atomic<int> wrong = 0;
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back([&] {
      while (!stop) {
        const auto keys = names_of(ptz_settings_get_custom_group("Group"));
        if (!keys || keys->size() != 50) ++wrong;
        const auto value = setting("Group", "K49");
        if (value != "0" && value != "1") ++wrong;
        const auto other = setting("Parsed", "Key");
        if (other != "0" && other != "1") ++wrong;
        const auto shell = shell_setting("KEY");
        if (shell != "0" && shell != "1") ++wrong;
        gint32 number = 7;
        if (!ptz_settings_get_custom_int("Group", "K3", &number) || number < 0 || number > 1) ++wrong;
        if (!ptz_settings_iterate_group(
                "Group", -1, nullptr,
                [](const gchar *, const gchar *text, gpointer) -> gboolean { return text != nullptr; }))
          ++wrong;
      }
    });
  }
  for (int i = 0; i < 200; ++i) {
    const auto parsed = file("parsed" + std::to_string(i % 2), "[Parsed]\nKey=" + std::to_string(i % 2) + "\n");
    const auto shell = file("shell" + std::to_string(i % 2), "KEY=" + std::to_string(i % 2) + "\n");
    EXPECT_TRUE(ptz_settings_load_config_gkf(Plain{{paths[i % 2].c_str(), TRUE}}.get(), nullptr));
    EXPECT_TRUE(ptz_settings_load_config(Plain{{parsed.c_str(), TRUE}}.get(), nullptr));
    EXPECT_TRUE(ptz_settings_shell_load_config(Plain{{shell.c_str(), TRUE}}.get()));
  }
  stop = true;
  for (auto &reader : readers) reader.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace

// Takes the place of GLib's function in the whole test program.
extern "C" __attribute__((visibility("default"))) gint64 g_get_monotonic_time() {
  static const auto real = reinterpret_cast<decltype(&g_get_monotonic_time)>(dlsym(RTLD_NEXT, "g_get_monotonic_time"));
  return real() + moved_us;
}
