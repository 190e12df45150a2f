#include "reply_fields.h"

#include <ptz_kit_body.h>

#include <algorithm>

#include "driver_axes.h"
#include "field_values.h"
#include "handles.h"
#include "plain_text.h"

namespace ptzctl {

namespace {

using Fields = std::vector<ReplyField>;

void add_number(Fields &fields, const std::string &path, gint64 number) {
  const std::string text = std::to_string(number);
  fields.push_back({path, text, text, number});
}

void add_text(Fields &fields, const std::string &path, const std::string &text, bool is_hidden) {
  fields.push_back({path, is_hidden ? "(hidden)" : '"' + tools::plain_text(text) + '"', text, std::nullopt});
}

void add_dictionary(Fields &fields, const std::string &before, GVariant *dictionary);

void add_elements(Fields &fields, const std::string &path, GVariant *list) {
  add_number(fields, path + ".length", static_cast<gint64>(g_variant_n_children(list)));
  for (gsize i = 0; i < g_variant_n_children(list); ++i) {
    const tools::Variant element(g_variant_get_child_value(list, i));
    const std::string numbered = path + "[" + std::to_string(i) + "]";
    if (g_variant_is_of_type(element.get(), G_VARIANT_TYPE_VARDICT)) {
      add_dictionary(fields, numbered + ".", element.get());
    } else {
      add_text(fields, numbered, g_variant_get_string(element.get(), nullptr), false);
    }
  }
}

void add_value(Fields &fields, const std::string &path, GVariant *value, bool is_hidden) {
  if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) {
    add_text(fields, path, g_variant_get_string(value, nullptr), is_hidden);
  } else if (g_variant_is_of_type(value, G_VARIANT_TYPE_INT32)) {
    add_number(fields, path, g_variant_get_int32(value));
  } else if (g_variant_is_of_type(value, G_VARIANT_TYPE_UINT32)) {
    add_number(fields, path, g_variant_get_uint32(value));
  } else if (g_variant_is_of_type(value, G_VARIANT_TYPE("ai"))) {
    gsize count = 0;
    const auto *const values = static_cast<const gint32 *>(g_variant_get_fixed_array(value, &count, sizeof(gint32)));
    for (gsize axis = 0; axis < std::min(count, axis_count); ++axis) {
      add_number(fields, path + "." + axis_names[axis], values[axis]);
    }
  } else {
    add_elements(fields, path, value);
  }
}

void add_dictionary(Fields &fields, const std::string &before, GVariant *dictionary) {
  const char *name = nullptr;
  const bool is_secret_pair = g_variant_lookup(dictionary, "name", "&s", &name) && is_name_of_secret(name);
  GVariantIter entries;
  g_variant_iter_init(&entries, dictionary);
  const char *key = nullptr;
  GVariant *borrowed = nullptr;
  while (g_variant_iter_next(&entries, "{&sv}", &key, &borrowed)) {
    const tools::Variant value(borrowed);
    if (before.empty() && g_str_equal(key, "command")) continue;
    add_value(fields, before + key, value.get(), is_secret_pair && g_str_equal(key, "value"));
  }
}

}  // namespace

const ReplyField *ReplyFields::find(const std::string &path) const {
  const auto found = std::ranges::find(fields, path, &ReplyField::path);
  return found != fields.end() ? &*found : nullptr;
}

std::optional<ReplyFields> fields_of_reply(std::span<const guint8> body) {
  const tools::Variant dictionary(ptz_kit_body_to_variant(PTZ_KIT_BODY_REPLY, body.data(), body.size(), nullptr));
  if (dictionary == nullptr) return std::nullopt;
  ReplyFields reply;
  const char *command = nullptr;
  if (g_variant_lookup(dictionary.get(), "command", "&s", &command)) reply.command = command;
  add_dictionary(reply.fields, "", dictionary.get());
  return reply;
}

bool asks_for_secret(std::span<const guint8> request) {
  const tools::Variant dictionary(
      ptz_kit_body_to_variant(PTZ_KIT_BODY_REQUEST, request.data(), request.size(), nullptr));
  const char *name = nullptr;
  return dictionary != nullptr && g_variant_lookup(dictionary.get(), "name", "&s", &name) && is_name_of_secret(name);
}

std::string without_indices(const std::string &path) {
  std::string plain;
  bool is_index = false;
  for (const char c : path) {
    if (c == '[') is_index = true;
    if (!is_index) plain += c;
    if (c == ']') is_index = false;
  }
  return plain;
}

}  // namespace ptzctl
