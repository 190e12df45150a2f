// What the library registers with GObject for its classes, against what its headers say.
#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>
#include <link.h>
#include <ptz.h>

#include <string>

namespace {

struct ObjectType {
  const char *name;
  GType (*get_type)();
  const char *parent;
  gsize class_size;
  gsize instance_size;
};

constexpr ObjectType object_types[] = {
    {"PTZSocket", ptz_socket_get_type, "GObject", sizeof(PTZSocketClass), sizeof(PTZSocket)},
    {"PTZSocketSignal", ptz_socket_signal_get_type, "PTZSocket", sizeof(PTZSocketSignalClass), sizeof(PTZSocketSignal)},
    {"PTZSocketServer", ptz_socket_server_get_type, "PTZSocket", sizeof(PTZSocketServerClass), sizeof(PTZSocketServer)},
    {"PTZSocketServerCommand", ptz_socket_server_command_get_type, "PTZSocketServer",
     sizeof(PTZSocketServerCommandClass), sizeof(PTZSocketServerCommand)},
    {"PTZSocketClient", ptz_socket_client_get_type, "PTZSocket", sizeof(PTZSocketClientClass), sizeof(PTZSocketClient)},
    {"PTZSocketClientSignalDataReady", ptz_socket_client_signal_data_ready_get_type, "PTZSocketClient",
     sizeof(PTZSocketClientSignalDataReadyClass), sizeof(PTZSocketClientSignalDataReady)},
    {"PTZSocketClientCommand", ptz_socket_client_command_get_type, "PTZSocketClient",
     sizeof(PTZSocketClientCommandClass), sizeof(PTZSocketClientCommand)},
    {"PTZGDBusServer", ptz_g_dbus_server_get_type, "GObject", sizeof(PTZGDBusServerClass), sizeof(PTZGDBusServer)},
    {"PTZGDBusClient", ptz_g_dbus_client_get_type, "GObject", sizeof(PTZGDBusClientClass), sizeof(PTZGDBusClient)},
    {"PTZDynamicalProperties", ptz_dynamical_properties_get_type, "GObject", sizeof(PTZDynamicalPropertiesClass),
     sizeof(PTZDynamicalProperties)},
    {"PTZParameterItemArray", ptz_parameter_item_array_get_type, "GObject", sizeof(PTZParameterItemArrayClass),
     sizeof(PTZParameterItemArray)},
};

class ObjectTypes : public testing::TestWithParam<ObjectType> {};

// Its classes would lose their code with it, and could not be registered again by another load.
TEST(Library, StaysInAProcessThatHasLoadedIt) {
  Dl_info info = {};
  link_map *map = nullptr;
  ASSERT_NE(
      dladdr1(reinterpret_cast<void *>(ptz_socket_get_type), &info, reinterpret_cast<void **>(&map), RTLD_DL_LINKMAP),
      0);
  ElfW(Xword) flags = 0;
  for (const auto *entry = map->l_ld; entry->d_tag != DT_NULL; ++entry) {
    if (entry->d_tag == DT_FLAGS_1) flags = entry->d_un.d_val;
  }
  EXPECT_NE(flags & DF_1_NODELETE, 0u) << info.dli_fname;
}

TEST_P(ObjectTypes, HaveTheNameOfTheirStructure) { EXPECT_STREQ(g_type_name(GetParam().get_type()), GetParam().name); }

TEST_P(ObjectTypes, DeriveFromTheirParent) {
  EXPECT_STREQ(g_type_name(g_type_parent(GetParam().get_type())), GetParam().parent);
}

TEST_P(ObjectTypes, HaveTheSizesOfTheirStructures) {
  GTypeQuery query;
  g_type_query(GetParam().get_type(), &query);
  EXPECT_EQ(query.class_size, GetParam().class_size);
  EXPECT_EQ(query.instance_size, GetParam().instance_size);
}

TEST_P(ObjectTypes, AreRegisteredOnce) { EXPECT_EQ(GetParam().get_type(), GetParam().get_type()); }

// A driver derives classes of its own.
TEST_P(ObjectTypes, MayBeDerivedFrom) {
  const GType type = GetParam().get_type();
  EXPECT_TRUE(G_TYPE_IS_DERIVABLE(type));
  EXPECT_FALSE(G_TYPE_IS_ABSTRACT(type));
}

INSTANTIATE_TEST_SUITE_P(All, ObjectTypes, testing::ValuesIn(object_types),
                         [](const testing::TestParamInfo<ObjectType> &info) { return std::string(info.param.name); });

}  // namespace
