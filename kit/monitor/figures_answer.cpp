#include "monitor/figures_answer.h"

namespace ptz_kit {
namespace {

constexpr guint most_clients = 1U << 20;
constexpr guint32 most_buckets = 4096;

void insert_text(GVariantDict *dict, const char *key, std::string_view text) {
  g_variant_dict_insert_value(
      dict, key, g_variant_new_take_string(g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()))));
}

bool read_histogram(PacketReader &reader, GVariantDict *dict) {
  const auto count = reader.get<guint32>();
  if (count > most_buckets || reader.left() < count * sizeof(guint32)) return false;
  GVariantBuilder buckets;
  g_variant_builder_init(&buckets, G_VARIANT_TYPE("au"));
  for (guint32 i = 0; i < count; ++i) g_variant_builder_add(&buckets, "u", reader.get<guint32>());
  g_variant_dict_insert_value(dict, "latency", g_variant_builder_end(&buckets));
  return true;
}

bool read_counters(PacketReader &reader, GVariantDict *dict) {
  for (const char *key : {"requests", "errors", "bytes-received", "bytes-sent", "unsent-replies", "timeouts"}) {
    g_variant_dict_insert(dict, key, "t", reader.get<guint64>());
  }
  g_variant_dict_insert(dict, "pending", "u", reader.get<guint32>());
  return read_histogram(reader, dict) && !reader.failed();
}

}  // namespace

FiguresAnswer::FiguresAnswer() {
  g_variant_dict_init(&driver_, nullptr);
  g_variant_builder_init(&clients_, G_VARIANT_TYPE("aa{sv}"));
}

FiguresAnswer::~FiguresAnswer() {
  g_variant_dict_clear(&driver_);
  g_variant_builder_clear(&clients_);
}

bool FiguresAnswer::read_driver(PacketReader &reader) {
  for (const char *key : {"now", "since"}) g_variant_dict_insert(&driver_, key, "x", reader.get<gint64>());
  g_variant_dict_insert(&driver_, "pid", "i", reader.get<gint32>());
  for (const char *key : {"uid", "instance", "protocol-version"}) {
    g_variant_dict_insert(&driver_, key, "u", reader.get<guint32>());
  }
  for (const char *key : {"name", "program", "socket", "library-version"}) insert_text(&driver_, key, reader.text());
  return read_counters(reader, &driver_);
}

bool FiguresAnswer::read_client(PacketReader &reader) {
  GVariantDict client;
  g_variant_dict_init(&client, nullptr);
  g_variant_dict_insert(&client, "client", "u", reader.get<guint32>());
  g_variant_dict_insert(&client, "pid", "i", reader.get<gint32>());
  g_variant_dict_insert(&client, "uid", "u", reader.get<guint32>());
  g_variant_dict_insert(&client, "since", "x", reader.get<gint64>());
  const auto last_request = reader.get<gint64>();
  const auto last_command = reader.get<gint32>();
  g_variant_dict_insert(&client, "last-request", "x", last_request);
  if (last_request != 0) g_variant_dict_insert(&client, "last-command", "i", last_command);
  insert_text(&client, "program", reader.text());
  const bool good = read_counters(reader, &client);
  if (good) {
    g_variant_builder_add_value(&clients_, g_variant_dict_end(&client));
  } else {
    g_variant_dict_clear(&client);
  }
  return good;
}

bool FiguresAnswer::take(PacketKind kind, PacketReader &reader) {
  if (kind != PacketKind::driver_figures) return has_driver_ && ++client_count_ <= most_clients && read_client(reader);
  if (has_driver_) return false;
  has_driver_ = true;
  return read_driver(reader);
}

GVariant *FiguresAnswer::finish() {
  if (!has_driver_) return nullptr;
  g_variant_dict_insert(&driver_, "lost", "t", lost_);
  g_variant_dict_insert_value(&driver_, "clients", g_variant_builder_end(&clients_));
  return g_variant_ref_sink(g_variant_dict_end(&driver_));
}

}  // namespace ptz_kit
