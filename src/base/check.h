// src/base/check.h - what a failed check prints: the bare function name, the module and the condition, to the letter.
#pragma once
#undef NDEBUG  // which would hide the C library's assertion routine
#include <assert.h>
#include <glib-object.h>
#include <syslog.h>
// In C++ GLib's G_STRFUNC is __PRETTY_FUNCTION__: a failed check would print "gboolean f(GObject*, int)" for "f".
#undef G_STRFUNC
#define G_STRFUNC (static_cast<const char *>(__func__))
// A broken invariant: ends the process, naming the module, the function and the condition.
#define assert_in(module, expression) assert_stated_in(module, expression, #expression)
// For a condition that is tested in a wider type than the one its text shows.
#define assert_stated_in(module, expression, text)                               \
  do {                                                                           \
    if (G_UNLIKELY(!(expression))) {                                             \
      g_assertion_message_expr(G_LOG_DOMAIN, module, __LINE__, G_STRFUNC, text); \
    }                                                                            \
  } while (false)
// For a value that is longer than its field: the same, reported by the C library as its own assert() does.
#define assert_fits_in(module, expression)                                                  \
  do {                                                                                      \
    if (G_UNLIKELY(!(expression))) __assert_fail(#expression, module, __LINE__, G_STRFUNC); \
  } while (false)
#define assert_not_reached_in(module) g_assertion_message_expr(G_LOG_DOMAIN, module, __LINE__, G_STRFUNC, nullptr)
// A precondition that is tested more carefully than its text shows.
#define return_val_if_fail_stated(expression, text, result)    \
  do {                                                         \
    if (G_UNLIKELY(!(expression))) {                           \
      g_return_if_fail_warning(G_LOG_DOMAIN, G_STRFUNC, text); \
      return result;                                           \
    }                                                          \
  } while (false)
#define return_if_fail_stated(expression, text) return_val_if_fail_stated(expression, text, )
// GLib's g_return_val_if_reached(), naming the module for the file.
#define return_val_if_reached_in(module, result)                                                                \
  do {                                                                                                          \
    g_log(G_LOG_DOMAIN, G_LOG_LEVEL_CRITICAL, "file %s: line %d (%s): should not be reached", module, __LINE__, \
          G_STRFUNC);                                                                                           \
    return result;                                                                                              \
  } while (false)
// The errno of the failed call reaches "%m": nothing may run between that call and this one.
#define log_func(priority, format, ...) syslog((priority), "%s: " format, __func__ __VA_OPT__(, ) __VA_ARGS__)
