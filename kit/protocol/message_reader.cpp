// Messages from the bytes of a peer.
#include <ptz_kit_types.h>

#include "protocol/message_access.h"

namespace ptz_kit {
namespace {

class Reader {
  const char *const title_;
  std::span<const guint8> body_;
  gsize offset_ = 0;
  GError **const error_;

  [[nodiscard]] gsize left() const { return body_.size() - offset_; }

  [[gnu::cold]] bool fail(const char *name, const char *axis, gsize offset, const char *problem) {
    g_set_error(error_, PTZ_KIT_ERROR, PTZ_KIT_ERROR_MALFORMED, "%s: field \"%s\"%s at byte %" G_GSIZE_FORMAT ": %s",
                title_, name, axis, offset, problem);
    return false;
  }
  [[gnu::cold]] bool fail(const Element &element, gsize offset, const char *problem) {
    return fail(name_of(element), axis_names[element.axis], offset, problem);
  }

  template <typename T>
  [[nodiscard]] bool number(T &value) {
    if (left() < sizeof(T)) return false;
    guint32 bits = 0;
    for (gsize i = 0; i < sizeof(T); ++i) bits |= guint32{body_[offset_ + i]} << (8 * i);
    value = static_cast<T>(bits);
    offset_ += sizeof(T);
    return true;
  }

  [[nodiscard]] bool text(const Element &element, gchar *&text) {
    const gsize start = offset_;
    guint16 length = 0;
    if (!number(length) || left() < length) return fail(element, start, too_short);
    const auto *bytes = reinterpret_cast<const gchar *>(body_.data() + offset_);
    if (g_utf8_validate_len(bytes, length, nullptr) == FALSE) return fail(element, start, "the text is not UTF-8");
    g_free(text);
    text = g_strndup(bytes, length);
    offset_ += length;
    return true;
  }

  [[nodiscard]] bool list(const Element &element, GPtrArray *list) {
    const gsize start = offset_;
    const Layout *record = record_of(element);
    guint32 count = 0;
    if (!number(count)) return fail(element, start, too_short);
    const gsize least_bytes = record != nullptr ? record->least_bytes : sizeof(guint16);
    if (count > left() / least_bytes) return fail(element, start, "the list is longer than the body");
    for (; count > 0; --count) {
      if (record == nullptr) {
        gchar *entry = nullptr;
        if (!text(element, entry)) return false;
        g_ptr_array_add(list, entry);
      } else {
        g_ptr_array_add(list, make_message(*record));
        if (!fields(*record, list->pdata[list->len - 1])) return false;
      }
    }
    return true;
  }

  template <typename T>
  [[nodiscard]] bool number(const Element &element, T &value) {
    return number(value) || fail(element, offset_, too_short);
  }

  [[nodiscard]] bool field(const Element &element, gpointer message) {
    switch (element.kind) {
      case Kind::u8:
        return number(element, member<guint8>(message, element));
      case Kind::u16:
        return number(element, member<guint16>(message, element));
      case Kind::u32:
        return number(element, member<guint32>(message, element));
      case Kind::i32:
        return number(element, member<gint32>(message, element));
      case Kind::text:
        return text(element, member<gchar *>(message, element));
      case Kind::list:
        return list(element, member<GPtrArray *>(message, element));
    }
    g_assert_not_reached();
  }

  static constexpr char too_short[] = "the body is too short";

 public:
  Reader(const char *title, std::span<const guint8> body, GError **error) : title_(title), body_(body), error_(error) {}

  [[nodiscard]] bool command(gint32 expected) {
    gint32 command = 0;
    if (!number(command)) return fail("command", "", 0, too_short);
    return command == expected || fail("command", "", 0, "it is another command");
  }

  [[nodiscard]] bool fields(const Layout &layout, gpointer message) {
    const auto elements = elements_of(layout);
    for (gsize i = 0; i < elements.size(); ++i) {
      if (i >= layout.required && left() == 0) break;
      if (!field(elements[i], message)) return false;
    }
    return true;
  }

  [[nodiscard]] bool at_end() {
    if (left() == 0) return true;
    g_set_error(error_, PTZ_KIT_ERROR, PTZ_KIT_ERROR_MALFORMED,
                "%s: %" G_GSIZE_FORMAT " bytes left over at byte %" G_GSIZE_FORMAT, title_, left(), offset_);
    return false;
  }
};

}  // namespace

gpointer read_message(const Layout &layout, std::span<const guint8> body, GError **error) {
  if (!body.empty() && !is_given(layout, body.data())) return nullptr;
  Reader reader(title_of(layout), body, error);
  if (!reader.command(layout.command)) return nullptr;
  gpointer message = make_message(layout);
  if (reader.fields(layout, message) && reader.at_end()) return message;
  free_message(layout, message);
  return nullptr;
}

}  // namespace ptz_kit
