#include <glib.h>

#include <algorithm>

#include "contender.h"

namespace bench {

void PipelinedCaller::send_next() {
  --to_send_;
  if (!send(body_)) failed_ = true;
}

void PipelinedCaller::answered(Bytes answer) {
  --to_come_;
  if (!std::ranges::equal(answer, body_)) failed_ = true;
  if (to_send_ > 0) send_next();
}

bool PipelinedCaller::ask_all(Bytes body, unsigned requests, unsigned outstanding) {
  body_ = body;
  to_send_ = to_come_ = requests;
  while (to_send_ > 0 && requests - to_send_ < outstanding) send_next();
  while (to_come_ > 0 && !failed_) g_main_context_iteration(nullptr, TRUE);
  return !failed_;
}

}  // namespace bench
