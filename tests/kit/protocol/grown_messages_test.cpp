// Messages of a description whose fields of version 2 are: number (default 7), text, axes (default -1), list.
#include <gtest/gtest.h>
#include <ptz_kit_body.h>
#include <ptz_kit_messages.h>

#include <string>
#include <vector>

namespace {

using Bytes = std::vector<guint8>;

const Bytes first_version = {3, 0, 0, 0, 4, 0, 0, 0, 50, 0};
const Bytes number_8 = {8, 0, 0, 0};
const Bytes text_a = {1, 0, 'a'};
const Bytes no_text = {0, 0};

Bytes joined(Bytes bytes, const std::vector<Bytes> &more) {
  for (const Bytes &each : more) bytes.insert(bytes.end(), each.begin(), each.end());
  return bytes;
}

struct KitGrownMessages : testing::Test {
  PTZKitGotoPresetRequest *request_ = ptz_kit_goto_preset_request_new(4, 50);

  ~KitGrownMessages() override { ptz_kit_goto_preset_request_free(request_); }
  bool read(const Bytes &body) {
    ptz_kit_goto_preset_request_free(request_);
    request_ = ptz_kit_goto_preset_request_read(body.data(), body.size(), nullptr);
    return request_ != nullptr;
  }
  Bytes write() {
    GBytes *written = ptz_kit_goto_preset_request_to_bytes(request_, nullptr);
    const auto *data = static_cast<const guint8 *>(g_bytes_get_data(written, nullptr));
    Bytes body(data, data + g_bytes_get_size(written));
    g_bytes_unref(written);
    return body;
  }
};

TEST_F(KitGrownMessages, NewMessageHasDefaultsAndIsWrittenAsFirstVersion) {
  EXPECT_EQ(request_->later_number, 7u);
  EXPECT_STREQ(request_->later_text, "");
  EXPECT_EQ(request_->later_axes[PTZ_KIT_AXIS_ZOOM], -1);
  EXPECT_EQ(request_->later_list->len, 0u);
  EXPECT_EQ(write(), first_version);
  EXPECT_TRUE(ptz_kit_goto_preset_request_validate(request_, nullptr));
}

TEST_F(KitGrownMessages, BodyOfFirstVersionIsReadWithDefaults) {
  ASSERT_TRUE(read(first_version));
  EXPECT_EQ(request_->speed, 50);
  EXPECT_EQ(request_->later_number, 7u);
  EXPECT_STREQ(request_->later_text, "");
  EXPECT_EQ(request_->later_axes[PTZ_KIT_AXIS_PAN], -1);
}

TEST_F(KitGrownMessages, OnlyDefaultsBehindLastOtherValueAreLeftOut) {
  request_->later_number = 8;
  EXPECT_EQ(write(), joined(first_version, {number_8}));
  request_->later_axes[PTZ_KIT_AXIS_PAN] = 5;
  EXPECT_EQ(write(), joined(first_version, {number_8, no_text, {5, 0, 0, 0}}));
  ptz_kit_goto_preset_request_add_later(request_, "a");
  EXPECT_EQ(write(), joined(first_version, {number_8, no_text, {5, 0, 0, 0}, Bytes(8, 0xff), {1, 0, 0, 0}, text_a}));
}

TEST_F(KitGrownMessages, BodyMayEndBehindAnyLaterValue) {
  ASSERT_TRUE(read(joined(first_version, {number_8, text_a, {5, 0, 0, 0}})));
  EXPECT_EQ(request_->later_number, 8u);
  EXPECT_STREQ(request_->later_text, "a");
  EXPECT_EQ(request_->later_axes[PTZ_KIT_AXIS_PAN], 5);
  EXPECT_EQ(request_->later_axes[PTZ_KIT_AXIS_TILT], -1);
  EXPECT_EQ(write(), joined(first_version, {number_8, text_a, {5, 0, 0, 0}}));
}

TEST_F(KitGrownMessages, BodyThatEndsWithinLaterValueOrBehindAllIsMalformed) {
  EXPECT_FALSE(read(joined(first_version, {{8, 0, 0}})));
  EXPECT_FALSE(read(joined(first_version, {number_8, {2, 0, 'a'}})));
  EXPECT_FALSE(read(joined(first_version, {number_8, no_text, Bytes(16, 0), {0}})));
}

TEST_F(KitGrownMessages, DefaultsThatPeerHasWrittenAreRead) {
  EXPECT_TRUE(read(joined(first_version, {{7, 0, 0, 0}, no_text, Bytes(12, 0xff), {0, 0, 0, 0}})));
  EXPECT_EQ(write(), first_version);
}

TEST_F(KitGrownMessages, SettersCopyAndReplace) {
  const gint32 axes[] = {1, 2, 3};
  ptz_kit_goto_preset_request_set_later_number(request_, 9);
  ptz_kit_goto_preset_request_set_later_text(request_, "b");
  ptz_kit_goto_preset_request_set_later_text(request_, "a");
  ptz_kit_goto_preset_request_set_later_axes(request_, axes);
  PTZKitGotoPresetRequest *copy = ptz_kit_goto_preset_request_copy(request_);
  EXPECT_EQ(copy->later_number, 9u);
  EXPECT_STREQ(copy->later_text, "a");
  EXPECT_EQ(copy->later_axes[PTZ_KIT_AXIS_TILT], 2);
  ptz_kit_goto_preset_request_free(copy);
}

TEST_F(KitGrownMessages, BoundsOfLaterFieldsAreChecked) {
  request_->later_number = 10;
  EXPECT_FALSE(ptz_kit_goto_preset_request_validate(request_, nullptr));
}

TEST_F(KitGrownMessages, VariantHasLaterFieldsThatDifferFromTheirDefaults) {
  const Bytes body = joined(first_version, {{7, 0, 0, 0}, no_text, Bytes(4, 0xff), {6, 0, 0, 0}});
  GVariant *fields = ptz_kit_body_to_variant(PTZ_KIT_BODY_REQUEST, body.data(), body.size(), nullptr);
  ASSERT_NE(fields, nullptr);
  gchar *text = g_variant_print(fields, FALSE);
  EXPECT_STREQ(text,
               "{'command': <'goto_preset'>, 'number': <uint32 4>, 'speed': <uint32 50>, 'later_axes': <[-1, 6, -1]>}");
  g_free(text);
  GBytes *written = ptz_kit_body_from_variant(PTZ_KIT_BODY_REQUEST, fields, nullptr);
  ASSERT_NE(written, nullptr);
  EXPECT_EQ(g_bytes_get_size(written), body.size());
  g_bytes_unref(written);
  g_variant_unref(fields);
}

}  // namespace
