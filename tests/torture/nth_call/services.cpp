// Each system call of the status cache, the parameters and the settings fails in turn.
#include <ptz_status_cache.h>
#include <ptz_tessel.h>
#include <ptz_tessel_async.h>
#include <ptz_timing_log.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "clock.h"
#include "ends.h"
#include "settings_scenarios.h"

using namespace nth_call;

namespace {

// The stores look at their files again after a second.
void pass_a_second() { ptz_test::advance_clock(1100); }

class StatusScenario : public Scenario {
 protected:
  PTZStatusCacheGroup *group_ = nullptr;
  gint32 pan_ = 0, tilt_ = 0;
  static inline guint instance = 0;

  // A group of its own: the files of groups stay mapped.
  void create() {
    ++instance;
    succeeded = ptz_status_cache_create_group(PTZ_SC_GROUP_POSITION, instance) != FALSE;
  }
  void set_up() {
    group_ = ptz_status_cache_setup_group(PTZ_SC_GROUP_POSITION, instance, 2);
    ptz_status_cache_add_param(group_, PTZ_SC_PARAM_POSITION_PAN, &pan_);
    ptz_status_cache_add_param(group_, PTZ_SC_PARAM_POSITION_TILT, &tilt_);
  }
  bool put(gint32 value) {
    pan_ = value;
    tilt_ = -value;
    return ptz_status_cache_update_group(group_) != FALSE;
  }
  bool fetch() {
    pan_ = tilt_ = 12345;
    return ptz_status_cache_fetch_group(group_) != FALSE;
  }
  bool holds(gint32 value) const { return pan_ == value && tilt_ == -value; }

 public:
  void prepare() override {
    if (instance == 0) create();
    set_up();
    put(5);
  }
  void clean() override {
    ptz_status_cache_free_group(group_);
    group_ = nullptr;
  }
};

class StatusCreate : public StatusScenario {
 public:
  void prepare() override {}
  void act() override { create(); }
  std::string judge() override {
    if (!succeeded && logged().empty()) return "failed without a line in the log";
    // Published whole, though the defaults were not, or to be created anew.
    if (!succeeded) (void)ptz_status_cache_create_group(PTZ_SC_GROUP_POSITION, instance);
    pass_a_second();
    set_up();
    if (!put(7) || !fetch()) return "the group cannot be used";
    for (const auto &entry : std::filesystem::directory_iterator(scratch())) {
      if (entry.path().extension() != ".status") return "a file is left: " + entry.path().string();
    }
    return holds(7) ? "" : "other values";
  }
};

class StatusUpdate : public StatusScenario {
 public:
  void act() override { succeeded = put(6); }
  std::string judge() override {
    if (!succeeded && logged().empty()) return "failed without a line in the log";
    pass_a_second();
    if (!fetch()) return "cannot be read after the fault";
    if (!holds(6) && (succeeded || !holds(5))) return "values that were not written together";
    return put(8) && fetch() && holds(8) ? "" : "cannot be used after the fault";
  }
};

class StatusFetch : public StatusScenario {
 public:
  void act() override { succeeded = fetch(); }
  std::string judge() override {
    if (!succeeded && logged().empty()) return "failed without a line in the log";
    if (succeeded && !holds(5)) return "success with other values";
    pass_a_second();
    if (!succeeded) {  // contract: a failed fetch leaves the handle without room
      ptz_status_cache_free_group(group_);
      set_up();
    }
    return fetch() && holds(5) ? "" : "cannot be read after the fault";
  }
};

class TimingLog : public Scenario {
 public:
  void act() override {
    log_time_start_driver_req(1);
    log_time_stop_driver_req(1);
    log_counter_update(1, "FAULTS", 3);
    succeeded = true;
  }
  std::string judge() override { return ""; }
};

class ParameterScenario : public Scenario {
 protected:
  static constexpr char path_[] = "root.PTZ.Torture.Value";
  static std::string get(const char *path = path_) {
    const Text value(ptz_tessel_get_vp("%s", path));
    return value != nullptr ? value.get() : "(none)";
  }
  static bool set(const char *value) { return ptz_tessel_set_vp(0, 0, value, "%s", path_) == 0; }
  std::string judge_use() const {
    return set("after") && get() == "after" && ptz_tessel_sync(0) ? "" : "the tree cannot be used after the fault";
  }
  void write_template() const {
    std::filesystem::create_directories(scratch() + "/template");
    write_file(scratch() + "/template/torture_grp.conf", "Name=x\nValue=7\n");
  }
};

class ParameterSet : public ParameterScenario {
 public:
  void prepare() override { (void)set("old"); }
  void act() override { succeeded = set("new"); }
  // contract: success if the parameter cannot be read either.
  std::string judge() override {
    pass_a_second();
    const std::string now = get();
    if (!succeeded && logged().empty()) return "failed without a line in the log";
    if (now != "new" && now != "old") return "holds " + now;
    if (succeeded && now != "new" && !fails_onwards() && get() != "(none)") return "success, but holds " + now;
    return judge_use();
  }
};

// Without one before it in the process: it opens the tree.
class ParameterFirstSet : public ParameterScenario {
 public:
  void act() override { succeeded = set("new") && get() == "new"; }
  std::string judge() override {
    pass_a_second();
    const std::string now = get();
    if (now != "new" && now != "(none)" && now != "after") return "holds " + now;
    return judge_use();
  }
};

class ParameterGet : public ParameterScenario {
  std::string value_;

 public:
  void prepare() override { (void)set("old"); }
  void act() override { value_ = get(); }
  std::string judge() override {
    pass_a_second();
    succeeded = value_ == "old";
    if (!succeeded && value_ != "(none)") return "read " + value_;
    return judge_use();
  }
};

class ParameterSync : public ParameterScenario {
 public:
  void prepare() override { (void)set("old"); }
  void act() override { succeeded = ptz_tessel_sync(0) != FALSE; }
  std::string judge() override {
    pass_a_second();
    return get() == "old" ? judge_use() : "lost what was set: " + get();
  }
};

class ParameterDelete : public ParameterScenario {
 public:
  void prepare() override {
    (void)ptz_tessel_set_vp(0, 0, "1", "root.PTZ.Torture.Sub.A");
    (void)ptz_tessel_set_vp(0, 0, "2", "root.PTZ.Torture.Sub.B");
  }
  void act() override { ptz_tessel_delete_group_vp(0, "root.PTZ.Torture.Sub"); }
  std::string judge() override {
    pass_a_second();
    const bool has_a = get("root.PTZ.Torture.Sub.A") == "1", has_b = get("root.PTZ.Torture.Sub.B") == "2";
    succeeded = !has_a && !has_b;
    if (has_a != has_b) return "half a group was deleted";
    return judge_use();
  }
};

class ParameterWalk : public ParameterScenario {
  int count_ = 0;
  bool finished_ = false;

 public:
  void prepare() override {
    for (const char *name : {"A", "B", "C"}) (void)ptz_tessel_set_vp(0, 0, name, "root.PTZ.Torture.Walk.%s", name);
  }
  void act() override {
    finished_ = ptz_tessel_iterate_group("root.PTZ.Torture.Walk", nullptr, this,
                                         [](const gchar *, const gchar *, gpointer self, guint) -> gboolean {
                                           ++static_cast<ParameterWalk *>(self)->count_;
                                           return TRUE;
                                         }) != FALSE;
  }
  std::string judge() override {
    pass_a_second();
    succeeded = count_ == 3;
    return count_ <= 3 ? judge_use() : "entries twice";
  }
};

class ParameterPush : public ParameterScenario {
 public:
  void prepare() override {
    (void)set("old");
    ptz_tessel_async_push_set_param("warm", "%s", path_);
    wait_for("warm");
  }
  static void wait_for(const char *value) {
    for (int i = 0; i < 2000 && get() != value; ++i) usleep(1000);
  }
  void act() override {
    ptz_tessel_async_push_set_param("new", "%s", path_);
    for (int i = 0; i < 300 && ptz_tessel_async_get_waiting_threads() > 0; ++i) usleep(1000);
    // A read waits ten seconds for a lock that never comes.
    for (int i = 0;
         i < 1000 && (!fails_onwards() || running_fault().call < 0) && !was_logged("Could not set") && get() != "new";
         ++i)
      usleep(1000);
  }
  std::string judge() override {
    pass_a_second();
    const std::string now = get();
    succeeded = now == "new";
    if (now != "new" && now != "warm") return "holds " + now;
    ptz_tessel_async_push_set_param("later", "%s", path_);
    wait_for("later");
    return get() == "later" ? judge_use() : "the background does not work after the fault";
  }
};

}  // namespace

int main(int argc, char **argv) {
  using Loader = SettingsLoad::Loader;
  std::vector<Operation> operations = {
      operation<StatusCreate>("status_create"),
      operation<StatusUpdate>("status_update"),
      operation<StatusFetch>("status_fetch"),
      operation<TimingLog>("timing_log"),
      operation<ParameterSet>("parameter_set"),
      operation<ParameterFirstSet>("parameter_first_set"),
      operation<ParameterGet>("parameter_get"),
      operation<ParameterSync>("parameter_sync"),
      operation<ParameterDelete>("parameter_delete"),
      operation<ParameterWalk>("parameter_walk"),
      operation<ParameterPush>("parameter_push"),
      operation<SettingsLoad>("settings_load", Loader::records),
      operation<SettingsLoad>("settings_load_key_file", Loader::key_file),
      operation<SettingsLoad>("settings_load_shell", Loader::shell),
      operation<KeyFileStore>("key_file_store"),
      operation<KeyFileLoad>("key_file_load"),
  };
  operations[0].keeps_memory = true;  // and the file of each group
  operations[0].descriptors_kept = 1;
  return run(argc, argv, "status, parameters, settings", operations);
}
