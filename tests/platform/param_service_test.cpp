#include "platform/param_service.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>

#include "clock.h"
#include "interpose.h"
#include "parameter_tree.h"
#include "ptz_tessel.h"
#include "ptz_tessel_async.h"

namespace {

using namespace ptz_test;
namespace fs = std::filesystem;

std::atomic<int> flushes = 0;
std::atomic<bool> flushes_fail = false;

constexpr Answer nothing{std::nullopt, PARAM_SERVICE_NO_PARAMETER};
constexpr Answer failed{std::nullopt, PARAM_SERVICE_STORAGE};

Answer value(const std::string &text) { return {text, PARAM_SERVICE_OK}; }

// --- parameters -------------------------------------------------------------------------------------------------

using ParamService = ParameterTree;

TEST_F(ParamService, AParameterThatIsSetExistsAndItsGroupsDo) {
  EXPECT_EQ(get("root.PTZ.Name"), nothing);
  EXPECT_EQ(set("root.PTZ.Name", "one"), 0);
  EXPECT_EQ(get("root.PTZ.Name"), value("one"));
  EXPECT_EQ(groups_of("root"), Names{"root.PTZ"});
  EXPECT_EQ(set("root.PTZ.Name", "two"), 0);
  EXPECT_EQ(get("root.PTZ.Name"), value("two"));
  EXPECT_EQ(get("root.PTZ"), nothing);
  EXPECT_EQ(get("root.PTZ.Name.More"), nothing);
  EXPECT_EQ(get("root.PTZ.name"), nothing);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(ParamService, AParameterAndAGroupMayHaveTheSamePath) {
  EXPECT_EQ(set("root.A", "parameter"), 0);
  EXPECT_EQ(set("root.A.B", "in the group"), 0);
  EXPECT_EQ(get("root.A"), value("parameter"));
  EXPECT_EQ(remove_group("root.A"), 0);
  EXPECT_EQ(get("root.A"), value("parameter"));
  EXPECT_EQ(get("root.A.B"), nothing);
}

TEST_F(ParamService, AnyBytesAreAValue) {
  std::string every_byte;
  for (int byte = 1; byte < 256; ++byte) every_byte.push_back(static_cast<char>(byte));
  for (const auto &text : {every_byte, std::string(), std::string(1U << 20U, '\xFF'), std::string("12"),
                           std::string("1e3"), std::string("'; DROP TABLE parameters; --")}) {
    EXPECT_EQ(set("root.A", text), 0);
    EXPECT_EQ(get("root.A"), value(text));
  }
}

TEST_F(ParamService, NoValueAtAllIsNone) {
  ParamServiceOptions options = {};
  gint32 error = no_answer;
  param_service_set_custom("root.A", nullptr, &options, &error);
  EXPECT_EQ(error, PARAM_SERVICE_BAD_ARGUMENT);
  param_service_set_custom(nullptr, "v", &options, &error);
  EXPECT_EQ(error, PARAM_SERVICE_BAD_PATH);
  EXPECT_EQ(param_service_get_custom(nullptr, &options, &error), nullptr);
  EXPECT_EQ(error, PARAM_SERVICE_BAD_PATH);
}

TEST_F(ParamService, OptionsAreClearedToZero) {
  ParamServiceOptions options = {1, 2, 3};
  param_service_reset_options(&options);
  EXPECT_EQ(options.mode, 0);
  EXPECT_EQ(options.number, 0);
  EXPECT_EQ(options.extra, 0);
}

struct BadPaths : ParameterTree, testing::WithParamInterface<std::string> {};
INSTANTIATE_TEST_SUITE_P(All, BadPaths,
                         testing::Values("", ".", "..", ".root", "root.", "root..A", ".root.A", "root.A.",
                                         "root." + std::string(123, 'x')));

TEST_P(BadPaths, AreRefused) {
  EXPECT_EQ(get(GetParam()), (Answer{std::nullopt, PARAM_SERVICE_BAD_PATH}));
  EXPECT_EQ(set(GetParam(), "v"), PARAM_SERVICE_BAD_PATH);
  EXPECT_EQ(remove_group(GetParam()), PARAM_SERVICE_BAD_PATH);
  EXPECT_EQ(create(GetParam(), "t", 1), (Answer{std::nullopt, PARAM_SERVICE_BAD_PATH}));
  gint32 error = 0;
  EXPECT_EQ(begin(param_service_get_params, GetParam(), error), nullptr);
  EXPECT_EQ(error, PARAM_SERVICE_BAD_PATH);
  EXPECT_EQ(begin(param_service_get_child_groups, GetParam(), error), nullptr);
  EXPECT_EQ(error, PARAM_SERVICE_BAD_PATH);
}

TEST_P(BadPaths, AreLoggedIfAWriteIsLost) {
  EXPECT_EQ(set(GetParam(), "v"), PARAM_SERVICE_BAD_PATH);
  EXPECT_EQ(log.containing("Parameter " + GetParam() + ": not written: not the path of a parameter"), 1U);
}

TEST_F(ParamService, AParameterIsInAGroup) {
  EXPECT_EQ(set("root", "v"), PARAM_SERVICE_BAD_PATH);
  EXPECT_EQ(get("root"), (Answer{std::nullopt, PARAM_SERVICE_BAD_PATH}));
}

TEST_F(ParamService, PathsOf127BytesOfAnyKindAreGood) {
  std::string deep = "r";
  while (deep.size() < 127) deep += ".g";
  for (const auto &path : {"root." + std::string(122, 'x'), deep, std::string("root.%s%n \xFF\n'\"*?[.=")}) {
    EXPECT_EQ(set(path, "v"), 0);
    EXPECT_EQ(get(path), value("v"));
  }
  EXPECT_EQ(groups_of("r.g.g"), Names{"r.g.g.g"});
}

// --- one limit for the service and for the library's calls ------------------------------------------------------

// A path of so many bytes.
std::string path_of(std::size_t length, const std::string &start = "root.") {
  return start + std::string(length - start.size(), 'x');
}

gboolean collect(const gchar *name, const gchar *value, gpointer visits, guint) {
  static_cast<Names *>(visits)->push_back(std::string(name) + "=" + value);
  return TRUE;
}

gchar *collect_group(const gchar *group, const gchar *value, gpointer visits) {
  collect(group, value, visits, 0);
  return nullptr;
}

TEST_F(ParamService, ParameterOfTheLongestPathIsReadWalkedAndDeletedByTheLibrary) {
  const std::string path = path_of(127, "root.Group.");
  EXPECT_EQ(ptz_tessel_set(path.c_str(), "v", FALSE, FALSE, FALSE, 0), 0);
  EXPECT_STREQ(Text(ptz_tessel_get(path.c_str())).get(), "v");
  Names visits;
  EXPECT_TRUE(ptz_tessel_iterate_group("root.Group", nullptr, &visits, collect));
  EXPECT_EQ(visits, Names{path + "=v"});
  ptz_tessel_delete_group("root.Group", 0);
  EXPECT_EQ(ptz_tessel_get(path.c_str()), nullptr);
}

TEST_F(ParamService, ParameterOfALongerPathIsNotMadeByTheLibrary) {
  for (const std::size_t length : {128U, 200U, 1024U, 1025U}) {
    const std::string path = path_of(length);
    EXPECT_EQ(ptz_tessel_set_vp(0, 9, "v", "%s", path.c_str()), PARAM_SERVICE_BAD_PATH);
    EXPECT_EQ(log.count(LOG_WARNING, "Could not set parameter " + path + " to \"v\", err = -5"), 1U);
  }
  EXPECT_EQ(groups_of("root"), std::nullopt);
}

TEST_F(ParamService, GroupsUpToTheLongestPathAreWalkedAndDeletedByTheLibrary) {
  provide_template("t", "N=v\n");
  const std::string group = path_of(122), longer = path_of(123);
  const Text created(ptz_tessel_create_group_vp(-1, 0, 1, "t", "%s", group.c_str()));
  ASSERT_STREQ(created.get(), (group + ".x1").c_str());
  EXPECT_EQ(ptz_tessel_create_group_vp(-1, 0, 1, "t", "%s", longer.c_str()), nullptr) << "a parameter of 128 bytes";
  Names visits;
  EXPECT_EQ(ptz_tessel_iterate_sub_groups(group.c_str(), "N", FALSE, &visits, collect_group), nullptr);
  EXPECT_EQ(visits, Names{group + ".x1=v"});
  ptz_tessel_delete_group(created.get(), 0);
  EXPECT_EQ(groups_of(group), Names{});

  provide_template("t", "");
  const std::string longest = path_of(124);
  EXPECT_STREQ(Text(ptz_tessel_create_group_vp(-1, 0, 1, "t", "%s", longest.c_str())).get(), (longest + ".x1").c_str());
  ptz_tessel_delete_group((longest + ".x1").c_str(), 0);
  EXPECT_EQ(groups_of(longest), Names{});
}

// --- groups -----------------------------------------------------------------------------------------------------

TEST_F(ParamService, ADynamicGroupIsMadeFromATemplate) {
  provide_template("sim1_preset", "# a preset\n\nName=\n  Pan = 12.5 = x  \r\nLimit.Max=\xE9%s\n   \n\t# more\nTilt=0");
  EXPECT_EQ(create("root.PTZ.Preset", "sim1_preset", 7), value("root.PTZ.Preset.P7"));
  EXPECT_EQ(parameters_of("root.PTZ.Preset.P7"), (Names{"Name", "Pan", "Tilt"}));
  EXPECT_EQ(get("root.PTZ.Preset.P7.Name"), value(""));
  EXPECT_EQ(get("root.PTZ.Preset.P7.Pan"), value("12.5 = x"));
  EXPECT_EQ(get("root.PTZ.Preset.P7.Limit.Max"), value("\xE9%s"));
  EXPECT_EQ(get("root.PTZ.Preset.P7.Tilt"), value("0"));
  EXPECT_EQ(groups_of("root.PTZ"), Names{"root.PTZ.Preset"});
}

TEST_F(ParamService, AGroupThatExistsIsKept) {
  provide_template("t", "A=1\n");
  EXPECT_EQ(create("root.group", "t", 0), value("root.group.g0"));
  EXPECT_EQ(set("root.group.g0.A", "2"), 0);
  EXPECT_EQ(create("root.group", "t", 0), (Answer{"root.group.g0", PARAM_SERVICE_GROUP_EXISTS}));
  EXPECT_EQ(get("root.group.g0.A"), value("2"));
}

TEST_F(ParamService, TheLowestFreeNumberIsTaken) {
  provide_template("t", "A=1\n");
  EXPECT_EQ(create("root.Group", "t", -1), value("root.Group.G0"));
  EXPECT_EQ(create("root.Group", "t", 2), value("root.Group.G2"));
  EXPECT_EQ(create("root.Group", "t", -1), value("root.Group.G1"));
  EXPECT_EQ(create("root.Group", "t", -1), value("root.Group.G3"));
  EXPECT_EQ(create("root.Group", "t", 2147483647), value("root.Group.G2147483647"));
  EXPECT_EQ(create("root.Group", "t", -2), (Answer{std::nullopt, PARAM_SERVICE_BAD_ARGUMENT}));
}

TEST_F(ParamService, AnEmptyTemplateMakesAnEmptyGroup) {
  provide_template("t", "");
  EXPECT_EQ(create("root.Group", "t", 1), value("root.Group.G1"));
  EXPECT_EQ(parameters_of("root.Group.G1"), Names{});
  EXPECT_EQ(groups_of("root.Group.G1"), Names{});
}

TEST_F(ParamService, ATemplateMustBeThereAndWhole) {
  const Answer none{std::nullopt, PARAM_SERVICE_NO_TEMPLATE};
  EXPECT_EQ(create("root.Group", "t", 1), none);
  EXPECT_EQ(create("root.Group", nullptr, 1), none);
  EXPECT_EQ(create("root.Group", "", 1), none);
  provide_template("t", "A=1\n");
  fs::create_directory(dir.file("sub"));
  EXPECT_EQ(create("root.Group", "sub/../t", 1), none);
  EXPECT_TRUE(log.lines().empty());
  for (const char *broken : {"A=1\nB\n", "=1\n", "A..B=1\n", "A=1\n.=2"}) {
    provide_template("t", broken);
    EXPECT_EQ(create("root.Group", "t", 1), none) << broken;
  }
  EXPECT_EQ(
      log.count(LOG_ERR, "Parameter template " + dir.file("t_grp.conf") + ": neither a comment nor Parameter=default"),
      4U);
  EXPECT_EQ(groups_of("root"), std::nullopt);
}

TEST_F(ParamService, NothingIsMadeThatCouldNotBeReadAgain) {
  const Answer none{std::nullopt, PARAM_SERVICE_NO_TEMPLATE}, too_long{std::nullopt, PARAM_SERVICE_BAD_PATH};
  using namespace std::string_literals;
  for (const auto &text : {"A=1\nB\0C=2\n"s, "A=1\nB\0..C=2\n"s, "A=1\0"s, "A\0=1"s}) {
    provide_template("t", text);
    EXPECT_EQ(create("root.Group", "t", 1), none);
  }
  const std::string group = "root." + std::string(113, 'x');
  provide_template("t", "Longer=1\nName=1\n");
  EXPECT_EQ(create(group, "t", 1), too_long);  // a parameter of 128 bytes
  provide_template("t", "Name=1\n");
  EXPECT_EQ(create(group, "t", 10), value(group + ".x10"));
  EXPECT_EQ(parameters_of(group + ".x10"), Names{"Name"});
  EXPECT_EQ(get(group + ".x10.Name"), value("1"));
  provide_template("t", "");
  EXPECT_EQ(create(group, "t", 1'000'000'000), too_long);  // a group of 130 bytes
  EXPECT_EQ(groups_of("root"), Names{group});
  EXPECT_EQ(groups_of(group), Names{group + ".x10"});
}

TEST_F(ParamService, ADeletedGroupIsGoneWithAllThatIsInIt) {
  for (const char *path : {"root.A.B.C", "root.A.B.D.E", "root.A.BB.C", "root.A.B-.C", "root.A.B0.C", "root.A.C"}) {
    EXPECT_EQ(set(path, "v"), 0);
  }
  EXPECT_EQ(remove_group("root.A.B"), 0);
  EXPECT_EQ(get("root.A.B.C"), nothing);
  EXPECT_EQ(get("root.A.B.D.E"), nothing);
  EXPECT_EQ(parameters_of("root.A.B"), std::nullopt);
  EXPECT_EQ(groups_of("root.A.B.D"), std::nullopt);
  EXPECT_EQ(groups_of("root.A"), (Names{"root.A.B-", "root.A.B0", "root.A.BB"}));
  EXPECT_EQ(get("root.A.C"), value("v"));
  EXPECT_EQ(remove_group("root.A.B"), PARAM_SERVICE_NO_GROUP);
  EXPECT_EQ(remove_group("root"), 0);
  EXPECT_EQ(groups_of("root"), std::nullopt);
  EXPECT_EQ(set("root.A.B.C", "again"), 0);
  EXPECT_EQ(groups_of("root.A"), Names{"root.A.B"});
}

// --- walks ------------------------------------------------------------------------------------------------------

TEST_F(ParamService, AWalkVisitsWhatIsInTheGroupItselfInOrder) {
  for (const char *path : {"root.A.b", "root.A.a", "root.A.B", "root.A.C.c", "root.A.C.D.d", "root.AB.x", "root.x"}) {
    EXPECT_EQ(set(path, "v"), 0);
  }
  EXPECT_EQ(parameters_of("root.A"), (Names{"B", "a", "b"}));
  EXPECT_EQ(groups_of("root.A"), (Names{"root.A.C"}));
  EXPECT_EQ(groups_of("root"), (Names{"root.A", "root.AB"}));
  EXPECT_EQ(parameters_of("root.A.C.D"), (Names{"d"}));
  EXPECT_EQ(groups_of("root.A.C.D"), Names{});
  EXPECT_EQ(parameters_of("root.Missing"), std::nullopt);
  EXPECT_EQ(groups_of("root.Missing"), std::nullopt);
  gint32 error = 0;
  EXPECT_EQ(begin(param_service_get_params, "root.Missing", error), nullptr);
  EXPECT_EQ(error, PARAM_SERVICE_NO_GROUP);
}

TEST_F(ParamService, AWalkSeesTheGroupAsItWasWhenTheWalkBegan) {
  for (const char *name : {"A", "B", "C"}) EXPECT_EQ(set(std::string("root.G.") + name, "v"), 0);
  gint32 error = 0;
  const auto context = begin(param_service_get_params, "root.G", error);
  ASSERT_TRUE(move(param_service_get_param, context));
  EXPECT_EQ(remove_group("root.G"), 0);
  EXPECT_EQ(set("root.G.Bb", "v"), 0);
  ASSERT_TRUE(move(param_service_get_param, context));
  EXPECT_STREQ(context->full_name, "root.G.B");
  ASSERT_TRUE(move(param_service_get_param, context));
  EXPECT_STREQ(context->name, "C");
  EXPECT_FALSE(move(param_service_get_param, context));
  param_service_cleanup_group_context(nullptr);
}

// --- the file ---------------------------------------------------------------------------------------------------

TEST_F(ParamService, ASyncFlushesWhatWasWritten) {
  EXPECT_EQ(set("root.A", "1"), 0);
  flushes = 0;
  EXPECT_EQ(set("root.A", "2"), 0);
  EXPECT_EQ(flushes, 0) << "a write alone is not flushed";
  EXPECT_EQ(sync_tree(), 0);
  EXPECT_GE(flushes, 1);
  EXPECT_EQ(set("root.A", "3"), 0);
  flushes_fail = true;
  EXPECT_EQ(sync_tree(), PARAM_SERVICE_STORAGE);
  flushes_fail = false;
  EXPECT_EQ(sync_tree(), 0);
  EXPECT_EQ(get("root.A"), value("3"));
}

TEST_F(ParamService, AMissingFolderIsOneLineAndIsMetAgainWhenItIsThere) {
  setenv("PTZ_PLATFORM_STATE_DIR", dir.file("later").c_str(), 1);
  EXPECT_EQ(get("root.A"), failed);
  EXPECT_EQ(set("root.A", "v"), PARAM_SERVICE_STORAGE);
  EXPECT_EQ(remove_group("root.A"), PARAM_SERVICE_STORAGE);
  EXPECT_EQ(sync_tree(), PARAM_SERVICE_STORAGE);
  EXPECT_EQ(parameters_of("root"), std::nullopt);
  EXPECT_EQ(groups_of("root"), std::nullopt);
  const std::string missing = dir.file("later/params.db") + ": cannot be created: No such file or directory";
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_ERR, "Parameter tree " + missing},
                                               {LOG_ERR, "Parameter root.A: not written to " + missing}}));
  EXPECT_FALSE(fs::exists(dir.file("later")));
  fs::create_directory(dir.file("later"));
  EXPECT_EQ(set("root.A", "v"), 0);
  EXPECT_EQ(get("root.A"), value("v"));
  EXPECT_EQ(log.lines().size(), 2U);
}

TEST_F(ParamService, AForeignLockOfTheFolderDoesNotDelayTheFirstCreation) {
  const int folder = open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(flock(folder, LOCK_EX), 0);
  EXPECT_EQ(set("root.A", "v"), 0);
  const int lock = open((file + "-lock").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(flock(lock, LOCK_EX), 0);
  EXPECT_EQ(set("root.A", "w"), 0);
  EXPECT_EQ(sync_tree(), 0);
  connect_anew();
  EXPECT_EQ(get("root.A"), value("w"));
  EXPECT_TRUE(log.lines().empty());
  close(folder);
}

TEST_F(ParamService, TheFolderHoldsNothingElseAfterwards) {
  EXPECT_EQ(set("root.A", "v"), 0);
  for (const auto &entry : fs::directory_iterator(dir.path())) {
    EXPECT_TRUE(entry.path().filename().string().starts_with("params.db")) << entry.path();
    EXPECT_EQ(entry.path().string().find(".db."), std::string::npos) << entry.path();
  }
  for (const char *suffix : {"", "-wal", "-shm", "-lock"}) {
    EXPECT_EQ(static_cast<int>(fs::status(file + suffix).permissions()), 0600) << "as the folder's " << suffix;
  }
}

struct Damage {
  const char *name;
  std::function<void(const std::string &file)> inflict;  // on a tree that nobody has open
};
void PrintTo(const Damage &damage, std::ostream *out) { *out << damage.name; }

void cut(const std::string &file, std::uintmax_t size) {
  fs::remove(file + "-wal");
  fs::resize_file(file, size);
}

const Damage damages[] = {
    {"empty", [](const auto &file) { cut(file, 0); }},
    {"cut_to_a_byte", [](const auto &file) { cut(file, 1); }},
    {"cut_within_the_header", [](const auto &file) { cut(file, 60); }},
    {"cut_to_a_page", [](const auto &file) { cut(file, 4096); }},
    {"cut_by_half", [](const auto &file) { cut(file, fs::file_size(file) / 2); }},
    {"cut_by_a_page", [](const auto &file) { cut(file, fs::file_size(file) - 4096); }},
    {"text", [](const auto &file) { ParameterTree::write(file, std::string(5000, 't')); }},
    {"pages_of_noise",
     [](const auto &file) {
       auto bytes = ParameterTree::read(file);
       for (std::size_t i = 4096; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 37U ^ i >> 3U);
       ParameterTree::write(file, bytes);
     }},
};

struct Damaged : ParameterTree, testing::WithParamInterface<Damage> {};
INSTANTIATE_TEST_SUITE_P(Files, Damaged, testing::ValuesIn(damages),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_P(Damaged, AreSetAsideAndTheTreeStartsAnew) {
  for (int i = 0; i < 500; ++i) ASSERT_EQ(set("root.G" + std::to_string(i) + ".P", std::string(100, 'v')), 0);
  ASSERT_EQ(sync_tree(), 0);
  GetParam().inflict(file);
  fs::last_write_time(file, fs::last_write_time(file) - std::chrono::hours(1));  // no copy that is under way
  const auto bytes = read(file);
  connect_anew();

  EXPECT_EQ(get("root.G250.P"), nothing);
  EXPECT_EQ(set("root.G250.P", "new"), 0);
  EXPECT_EQ(get("root.G250.P"), value("new"));
  EXPECT_EQ(groups_of("root"), Names{"root.G250"});
  EXPECT_EQ(log.containing("it is kept as " + file + ".damaged-1 and a new tree is started"), 1U)
      << testing::PrintToString(log.lines());
  EXPECT_EQ(read(file + ".damaged-1"), bytes) << "kept as it was found";
}

TEST_F(ParamService, ADatabaseOfAnotherProgramIsReportedAndLeftAlone) {
  sqlite3 *database = nullptr;
  EXPECT_EQ(sqlite3_open(file.c_str(), &database), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(database, "CREATE TABLE parameters (a)", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(database);
  const auto bytes = read(file);
  EXPECT_EQ(get("root.A"), failed);
  EXPECT_EQ(set("root.A", "new"), PARAM_SERVICE_STORAGE);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{
                             {LOG_ERR, "Parameter tree " + file + ": is not a parameter tree"},
                             {LOG_ERR, "Parameter root.A: not written to " + file + ": is not a parameter tree"}}));
  EXPECT_EQ(read(file), bytes);
  fs::rename(file, dir.file("kept"));
  EXPECT_EQ(set("root.A", "v"), 0) << "a new one is begun when the other one was taken away";
  EXPECT_EQ(get("root.A"), value("v"));
}

TEST_F(ParamService, AFileThatIsTakenAwayIsNotWrittenToAnyMore) {
  EXPECT_EQ(set("root.A", "old"), 0);
  fs::rename(file, dir.file("taken"));
  EXPECT_EQ(set("root.B", "new"), 0);
  EXPECT_TRUE(fs::exists(file));
  EXPECT_EQ(get("root.A"), nothing);
  EXPECT_EQ(get("root.B"), value("new"));
  EXPECT_TRUE(fs::exists(file + "-wal.old")) << "the log of the old one is kept";
}

TEST_F(ParamService, AReaderNoticesWithinASecondThatTheFileIsAnother) {
  EXPECT_EQ(set("root.A", "old"), 0);
  EXPECT_EQ(get("root.A"), value("old"));
  fs::rename(file, dir.file("taken"));
  EXPECT_EQ(wait_for(start([] { EXPECT_EQ(set("root.A", "new"), 0); })), 0);
  EXPECT_EQ(get("root.A"), value("new")) << "around a fork the file is opened anew";
  fs::remove(file);
  advance_clock(1000);
  EXPECT_EQ(get("root.A"), nothing);
}

// The database, locked as by a writer in the middle of its work.
class OtherWriter {
  sqlite3 *database_ = nullptr;

 public:
  explicit OtherWriter(const std::string &file) {
    EXPECT_EQ(sqlite3_open_v2(file.c_str(), &database_, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
  }
  OtherWriter(const OtherWriter &) = delete;
  ~OtherWriter() { sqlite3_close(database_); }
};

TEST_F(ParamService, ReadsDoNotWaitForAWriteThatWaitsForAnotherProcess) {
  EXPECT_EQ(set("root.A", "old"), 0);
  std::atomic<bool> done = false;
  std::thread writer;
  {
    const OtherWriter other(file);
    writer = std::thread([&] {
      EXPECT_EQ(set("root.A", "new"), 0);
      EXPECT_EQ(set("root.B", "new"), 0);
      done = true;
    });
    for (int i = 0; i < 100; ++i) {
      EXPECT_EQ(get("root.A"), value("old"));
      g_usleep(500);
    }
    EXPECT_FALSE(done);
  }
  writer.join();
  EXPECT_EQ(get("root.A"), value("new"));
  EXPECT_EQ(get("root.B"), value("new"));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(ParamService, AWriteGivesUpAfterTenSecondsOfWaiting) {
  EXPECT_EQ(set("root.A", "old"), 0);
  const OtherWriter other(file);
  std::atomic<gint32> error = no_answer;
  std::thread writer([&] { error = set("root.A", "new"); });
  g_usleep(20'000);
  EXPECT_EQ(error, no_answer);
  for (int i = 0; i < 100 && error == no_answer; ++i) {
    advance_clock(9'000);
    g_usleep(30'000);
  }
  writer.join();
  EXPECT_EQ(error, PARAM_SERVICE_STORAGE);
  EXPECT_EQ(log.count(LOG_ERR, "Parameter root.A: not written to " + file + ": database is locked"), 1U);
  EXPECT_EQ(get("root.A"), value("old"));
}

TEST_F(ParamService, AFileThatIsCutWhileItIsOpenEndsNobody) {
  for (int i = 0; i < 500; ++i) ASSERT_EQ(set("root.G" + std::to_string(i) + ".P", std::string(1000, 'v')), 0);
  connect_anew();
  EXPECT_EQ(get("root.G1.P"), value(std::string(1000, 'v')));
  fs::resize_file(file, 5000);
  fs::resize_file(file + "-wal", 40);
  fs::last_write_time(file, fs::last_write_time(file) - std::chrono::hours(1));
  for (int i = 0; i < 500; ++i) {
    const auto answer = get("root.G" + std::to_string(i) + ".P");
    EXPECT_TRUE(answer == nothing || answer == value(std::string(1000, 'v'))) << testing::PrintToString(answer);
  }
  EXPECT_EQ(set("root.A", "v"), 0);
}

TEST_F(ParamService, AFolderInPlaceOfTheFileIsReported) {
  fs::create_directory(file);
  EXPECT_EQ(get("root.A"), failed);
  EXPECT_EQ(set("root.A", "v"), PARAM_SERVICE_STORAGE);
  EXPECT_EQ(log.lines().size(), 2U);
  EXPECT_TRUE(fs::is_directory(file));
}

TEST_F(ParamService, AFileThatMayOnlyBeReadIsReadAndKeepsItsValues) {
  EXPECT_EQ(set("root.A", "old"), 0);
  chmod(dir.path().c_str(), 0777);
  for (const char *suffix : {"", "-wal", "-shm"}) fs::permissions(file + suffix, fs::perms(0444));
  // The superuser may write to any file.
  EXPECT_EQ(wait_for(start([] {
              constexpr uid_t nobody = 65534;
              if (geteuid() == 0) {
                ASSERT_EQ(setgid(nobody), 0);
                ASSERT_EQ(setuid(nobody), 0);
              }
              const SyslogCapture lines;
              EXPECT_EQ(get("root.A"), value("old"));
              EXPECT_EQ(set("root.A", "new"), PARAM_SERVICE_STORAGE);
              EXPECT_EQ(set("root.B", "new"), PARAM_SERVICE_STORAGE);
              EXPECT_EQ(remove_group("root"), PARAM_SERVICE_STORAGE);
              EXPECT_EQ(lines.lines().size(), 1U) << testing::PrintToString(lines.lines());
              EXPECT_EQ(get("root.A"), value("old"));
            })),
            0);
}

// --- the wrappers on top ----------------------------------------------------------------------------------------

TEST_F(ParamService, ADriversGroupsAreMadeReadAndDeleted) {
  provide_template("sim1_preset", "Name=none\nPan=-12\n");
  EXPECT_TRUE(ptz_tessel_create_group(1, "sim", "Preset", 2, 9));
  EXPECT_TRUE(ptz_tessel_dyn_index_set("Preset", 2, "Name", "Gate", FALSE, FALSE, 0));
  gint32 pan = 0;
  EXPECT_TRUE(ptz_tessel_get_int_val(2, "Preset", "Pan", &pan, nullptr));
  EXPECT_EQ(pan, -12);
  const auto found =
      answer_of(ptz_tessel_iterate_sub_groups("root.PTZ.Preset", "Name", TRUE, nullptr,
                                              [](const gchar *group, const gchar *name, gpointer) -> gchar * {
                                                return g_str_equal(name, "Gate") ? g_strdup(group) : nullptr;
                                              }),
                0);
  EXPECT_EQ(found, value("root.PTZ.Preset.P2"));
  Names names;
  EXPECT_TRUE(ptz_tessel_iterate_group("root.PTZ.Preset.P2", nullptr, &names,
                                       [](const gchar *name, const gchar *, gpointer list, guint) -> gboolean {
                                         // An action may write while it walks.
                                         EXPECT_EQ(set(name, "changed"), 0);
                                         static_cast<Names *>(list)->emplace_back(name);
                                         return TRUE;
                                       }));
  EXPECT_EQ(names, (Names{"root.PTZ.Preset.P2.Name", "root.PTZ.Preset.P2.Pan"}));
  EXPECT_TRUE(ptz_tessel_create_group(1, "sim", "Preset", 2, 9)) << "made anew where it exists";
  EXPECT_EQ(get("root.PTZ.Preset.P2.Name"), value("none"));
  EXPECT_TRUE(ptz_tessel_delete_sub_group("Preset", 2, 9));
  EXPECT_EQ(groups_of("root.PTZ.Preset"), Names{});
  EXPECT_TRUE(ptz_tessel_sync(9));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(ParamService, BackgroundWritesReachTheTreeInOrder) {
  provide_template("t", "A=1\n");
  ptz_tessel_async_push_add_param_group(3, "t", "root.PTZ.Preset");
  ptz_tessel_async_push_set_int(2, "root.PTZ.Preset.P3.A");
  ptz_tessel_async_push_set_param("gone", "root.Old.A");
  ptz_tessel_async_delete_group("root.Old");
  ptz_tessel_async_push_set_param("a:b", "root.Last");
  EXPECT_TRUE(run_until([] { return get("root.Last") == value("a:b"); }));
  EXPECT_EQ(get("root.PTZ.Preset.P3.A"), value("2"));
  EXPECT_EQ(get("root.Old.A"), nothing);
}

}  // namespace

INTERPOSE(int, fdatasync, (int fd)) {
  ++flushes;
  if (!flushes_fail) return REAL(fdatasync)(fd);
  errno = EIO;
  return -1;
}

INTERPOSE(int, fsync, (int fd)) {
  ++flushes;
  if (!flushes_fail) return REAL(fsync)(fd);
  errno = EIO;
  return -1;
}
