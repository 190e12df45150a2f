// tools/doctor/finding.h - what the doctor finds: one finding is one thing that is wrong, and the command that mends
// it.
#pragma once
#include <glib.h>

#include <map>
#include <string>
#include <vector>

#include "doctor/driver.h"

namespace ptzctl {

enum class Severity { note, warning, fault };

struct Finding {
  std::string id = {};  // EXAMINATION.CONDITION, such as "process.stopped"; scripts compare it
  std::string subject = {};
  std::string what = {}, why = {};
  std::string command = {};  // for a shell; empty if no command mends it
  Severity severity = Severity::note;
};

[[nodiscard]] const char *name_of(Severity severity);

// What one examination has to say.
class Findings {
  std::vector<Finding> list_;
  std::vector<Driver> drivers_ = {};
  std::map<std::string, double> figures_;

  void add(Severity severity, Finding finding);

 public:
  void fault(Finding finding) { add(Severity::fault, std::move(finding)); }
  void warning(Finding finding) { add(Severity::warning, std::move(finding)); }
  void note(Finding finding) { add(Severity::note, std::move(finding)); }
  void add(Driver driver) { drivers_.push_back(std::move(driver)); }
  // A number that is compared with those of other drivers.
  void figure(const std::string &name, double value) { figures_[name] = value; }

  [[nodiscard]] const std::vector<Finding> &list() const { return list_; }
  [[nodiscard]] const std::vector<Driver> &drivers() const { return drivers_; }
  [[nodiscard]] const std::map<std::string, double> &figures() const { return figures_; }

  // Between the process of an examination and the doctor.
  [[nodiscard]] tools::Bytes serialized() const;
  // False if the bytes are not complete.
  [[nodiscard]] bool add_serialized(GBytes *bytes);
  void append(Findings &&other);
};

[[nodiscard]] std::string format(const char *format, ...) G_GNUC_PRINTF(1, 2);

}  // namespace ptzctl
