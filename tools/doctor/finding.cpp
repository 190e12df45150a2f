#include "doctor/finding.h"

#include <cstdarg>

namespace ptzctl {

namespace {

constexpr char message_type[] = "(a(sayayayayi)a(ayayayiuuuxbi)a{sd})";

using Text = tools::Text;

std::string next_text(GVariant *tuple, gsize index) {
  const tools::Variant child(g_variant_get_child_value(tuple, index));
  return g_variant_get_bytestring(child.get());
}

void append_text(GVariantBuilder *builder, const std::string &text) {
  g_variant_builder_add_value(builder, g_variant_new_bytestring(text.c_str()));
}

gint32 integer_at(GVariant *tuple, gsize index) {
  const tools::Variant child(g_variant_get_child_value(tuple, index));
  return g_variant_get_int32(child.get());
}

guint32 unsigned_at(GVariant *tuple, gsize index) {
  const tools::Variant child(g_variant_get_child_value(tuple, index));
  return g_variant_get_uint32(child.get());
}

GVariant *variant_of(const Finding &finding) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("(sayayayayi)"));
  g_variant_builder_add(&builder, "s", finding.id.c_str());
  append_text(&builder, finding.subject);
  append_text(&builder, finding.what);
  append_text(&builder, finding.why);
  append_text(&builder, finding.command);
  g_variant_builder_add(&builder, "i", static_cast<gint32>(finding.severity));
  return g_variant_builder_end(&builder);
}

GVariant *variant_of(const Driver &driver) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("(ayayayiuuuxbi)"));
  append_text(&builder, driver.name);
  append_text(&builder, driver.socket);
  append_text(&builder, driver.program);
  g_variant_builder_add(&builder, "i", driver.pid);
  g_variant_builder_add(&builder, "u", driver.uid);
  g_variant_builder_add(&builder, "u", driver.instance);
  g_variant_builder_add(&builder, "u", driver.protocol_version);
  g_variant_builder_add(&builder, "x", driver.since_us);
  g_variant_builder_add(&builder, "b", driver.is_registered ? TRUE : FALSE);
  g_variant_builder_add(&builder, "i", static_cast<gint32>(driver.liveness));
  return g_variant_builder_end(&builder);
}

Finding finding_of(GVariant *tuple) {
  const tools::Variant id(g_variant_get_child_value(tuple, 0));
  return {.id = g_variant_get_string(id.get(), nullptr),
          .subject = next_text(tuple, 1),
          .what = next_text(tuple, 2),
          .why = next_text(tuple, 3),
          .command = next_text(tuple, 4),
          .severity = static_cast<Severity>(integer_at(tuple, 5))};
}

Driver driver_of(GVariant *tuple) {
  const tools::Variant since(g_variant_get_child_value(tuple, 7)), registered(g_variant_get_child_value(tuple, 8));
  return {.name = next_text(tuple, 0),
          .socket = next_text(tuple, 1),
          .program = next_text(tuple, 2),
          .pid = integer_at(tuple, 3),
          .uid = unsigned_at(tuple, 4),
          .instance = unsigned_at(tuple, 5),
          .protocol_version = unsigned_at(tuple, 6),
          .since_us = g_variant_get_int64(since.get()),
          .is_registered = g_variant_get_boolean(registered.get()) != FALSE,
          .liveness = static_cast<PTZKitDriverLiveness>(integer_at(tuple, 9))};
}

template <typename Function>
void for_each(GVariant *array, Function function) {
  for (gsize i = 0; i < g_variant_n_children(array); ++i) {
    const tools::Variant child(g_variant_get_child_value(array, i));
    function(child.get());
  }
}

}  // namespace

const char *name_of(Severity severity) {
  if (severity == Severity::fault) return "fault";
  return severity == Severity::warning ? "warning" : "note";
}

void Findings::add(Severity severity, Finding finding) {
  finding.severity = severity;
  list_.push_back(std::move(finding));
}

void Findings::append(Findings &&other) {
  for (auto &each : other.list_) list_.push_back(std::move(each));
  for (auto &each : other.drivers_) drivers_.push_back(std::move(each));
  figures_.merge(other.figures_);
}

tools::Bytes Findings::serialized() const {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE(message_type));
  g_variant_builder_open(&builder, G_VARIANT_TYPE("a(sayayayayi)"));
  for (const auto &each : list_) g_variant_builder_add_value(&builder, variant_of(each));
  g_variant_builder_close(&builder);
  g_variant_builder_open(&builder, G_VARIANT_TYPE("a(ayayayiuuuxbi)"));
  for (const auto &each : drivers_) g_variant_builder_add_value(&builder, variant_of(each));
  g_variant_builder_close(&builder);
  g_variant_builder_open(&builder, G_VARIANT_TYPE("a{sd}"));
  for (const auto &[name, value] : figures_) g_variant_builder_add(&builder, "{sd}", name.c_str(), value);
  g_variant_builder_close(&builder);
  const tools::Variant message(g_variant_ref_sink(g_variant_builder_end(&builder)));
  return tools::Bytes(g_variant_get_data_as_bytes(message.get()));
}

bool Findings::add_serialized(GBytes *bytes) {
  const tools::Variant message(
      g_variant_ref_sink(g_variant_new_from_bytes(G_VARIANT_TYPE(message_type), bytes, FALSE)));
  if (g_bytes_get_size(bytes) == 0 || g_variant_is_normal_form(message.get()) == FALSE) return false;
  const tools::Variant findings(g_variant_get_child_value(message.get(), 0));
  const tools::Variant drivers(g_variant_get_child_value(message.get(), 1));
  const tools::Variant figures(g_variant_get_child_value(message.get(), 2));
  for_each(findings.get(), [this](GVariant *each) { list_.push_back(finding_of(each)); });
  for_each(drivers.get(), [this](GVariant *each) { drivers_.push_back(driver_of(each)); });
  for_each(figures.get(), [this](GVariant *each) {
    const char *name = nullptr;
    double value = 0;
    g_variant_get(each, "{&sd}", &name, &value);
    figures_[name] = value;
  });
  return true;
}

std::string format(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const Text text(g_strdup_vprintf(format, arguments));
  va_end(arguments);
  return text.get();
}

}  // namespace ptzctl
