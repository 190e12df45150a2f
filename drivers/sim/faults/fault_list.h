// faults/fault_list.h - the faults that the driver can have on purpose.
#pragma once
#include <span>
#include <string_view>

namespace sim {

// The name is that of the check of ptz-compliance that finds the fault.
struct Fault {
  const char *name;
  const char *what_is_wrong;
};

// "none" is the first: the server of the faults without one.
[[nodiscard]] std::span<const Fault> all_faults();
[[nodiscard]] bool is_fault(std::string_view name);

// The one fault of this process, chosen before it serves.
void choose_fault(const char *name);
[[nodiscard]] bool fault(std::string_view name);

}  // namespace sim
