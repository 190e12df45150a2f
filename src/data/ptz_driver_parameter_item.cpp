#include "ptz_driver_parameter_item.h"

#include "base/check.h"
#include "base/handles.h"
#include "ptz_serialize.h"

namespace {

void read_number(GArray *array, guint32 *indx, guint32 *number) {
  const guint32 value = ptz_deserialize_32bit(array, indx);
  if (number != nullptr) *number = value;
}

void read_string(GArray *array, guint32 *indx, gchar **string) {
  ptz::Text text(ptz_deserialize_string(array, indx));
  if (string != nullptr) *string = text.release();
}

}  // namespace

void ptz_driver_parameter_item_serialize(const PTZDriverParameterItem *item, GArray *array) {
  g_return_if_fail(item != NULL);
  ptz_serialize_32bit(array, item->code);
  ptz_serialize_string(array, item->string1);
  ptz_serialize_string(array, item->string2);
  ptz_serialize_string(array, item->string3);
  ptz_serialize_32bit(array, item->number1);
  ptz_serialize_32bit(array, item->number2);
  ptz_serialize_string(array, item->string4);
}

void ptz_driver_parameter_item_deserialize(GArray *array, guint32 *indx, guint32 *code, gchar **string1,
                                           gchar **string2, gchar **string3, guint32 *number1, guint32 *number2,
                                           gchar **string4) {
  read_number(array, indx, code);
  read_string(array, indx, string1);
  read_string(array, indx, string2);
  read_string(array, indx, string3);
  read_number(array, indx, number1);
  read_number(array, indx, number2);
  read_string(array, indx, string4);
}
