// tests/torture/param_actions.h - operations on a parameter tree that are interrupted, and the state that they begin
// in.
#pragma once
#include <functional>
#include <string>
#include <vector>

#include "tree.h"

namespace torture {

// A file that was put in place is a warning, and keeps the log of the former one; a damaged file is an error.
enum class Noise { none, warnings, errors };

struct Action {
  std::string name;
  std::function<bool(const TreeFolder &)> prepare;  // in a process of its own
  std::function<bool(const TreeFolder &)> warm_up;  // in the process that is interrupted
  std::function<bool(const TreeFolder &)> run;      // is interrupted
  Noise noise = Noise::none;                        // what may be logged
};

const std::vector<Action> &actions();

// Makes waits short, in this process and its children.
void shorten_waits();

}  // namespace torture
