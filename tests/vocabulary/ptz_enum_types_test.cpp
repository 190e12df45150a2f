#include <gtest/gtest.h>
#include <ptz_enum_types.h>

#include <cstdlib>
#include <vector>

#include "type_table.h"

namespace {

using ptz_test::enum_class;
using ptz_test::EnumTable;

const std::vector<EnumTable> &enum_tables() {
  static const std::vector<EnumTable> tables = {
      EnumTable{"PTZCommand",
                ptz_command_get_type,
                {
                    {PTZ_COMMAND_ERROR_REPLY, -1, "Error reply", "error reply"},
                    {PTZ_COMMAND_SET_PRESET, 0, "Set preset", "set preset"},
                    {PTZ_COMMAND_SET_DEVICE_PRESET, 1, "Set device preset", "set device preset"},
                    {PTZ_COMMAND_GET_DEVICE_PRESETS, 2, "Get device presets", "get device presets"},
                    {PTZ_COMMAND_GOTO_PRESET, 3, "Goto preset", "goto preset"},
                    {PTZ_COMMAND_GOTO_DEVICE_PRESET, 4, "Goto device preset", "goto device preset"},
                    {PTZ_COMMAND_MOVE, 5, "Move", "move"},
                    {PTZ_COMMAND_STOP, 6, "Stop", "stop"},
                    {PTZ_COMMAND_FIELD_ANGLES, 7, "Field angles", "field angles"},
                    {PTZ_COMMAND_UNREGISTER, 8, "Unregister", "unregister"},
                    {PTZ_COMMAND_AUXILIARY, 9, "Auxiliary", "auxiliary"},
                    {PTZ_COMMAND_GET_AUXILIARY, 10, "Get auxiliary", "get auxiliary"},
                    {PTZ_COMMAND_OSD_MENU, 11, "OSD Menu", "osd menu"},
                    {PTZ_COMMAND_QUERY_SPEED, 12, "Query speed", "query speed"},
                    {PTZ_COMMAND_QUERY_POSITION, 13, "Query position", "query position"},
                    {PTZ_COMMAND_QUERY_ZOOMDELIM, 14, "Query zoomdelim", "query zoom delimitations"},
                    {PTZ_COMMAND_CHANGE_PORT, 15, "Change port", "change port"},
                    {PTZ_COMMAND_MOVE_COMMAND, 16, "Move command", "move command"},
                    {PTZ_COMMAND_AREA_ZOOM, 17, "Area zoom", "area zoom"},
                    {PTZ_COMMAND_IMAGE, 18, "Image", "image"},
                    {PTZ_COMMAND_DEFAULT_HOME_PRESET, 19, "Default home preset", "default home preset"},
                    {PTZ_COMMAND_QUERY_LIMIT_RANGES, 20, "Query limit ranges", "query limit ranges"},
                    {PTZ_COMMAND_GET_DRIVER_NAME, 21, "Get driver name", "get driver name"},
                    {PTZ_COMMAND_GET_DEVICE_TYPES, 22, "Get device types", "get device types"},
                    {PTZ_COMMAND_GET_CAPABILITIES, 23, "Get capabilities", "get capabilities"},
                    {PTZ_COMMAND_SET_CAPABILITIES, 24, "Set capabilities", "set capabilities"},
                    {PTZ_COMMAND_GET_DRIVER_PROPERTY, 25, "Get driver property", "set driver property"},
                    {PTZ_COMMAND_GET_PRESET_POSITION, 26, "Get preset position", "get preset position"},
                    {PTZ_COMMAND_QUERY_ATTRIBUTES, 27, "Query attributes", "query attributes"},
                    {PTZ_COMMAND_GET_DRIVER_PARAMETERS, 28, "Get driver parameters", "get driver parameters"},
                    {PTZ_COMMAND_END_OF_RECORD, 32, "End of record", "End of record"},
                }},
      EnumTable{"SocketCommand",
                ptz_socket_command_get_type,
                {
                    {PTZ_SOCKET_COMMAND_SOCKET_COMMAND_QUEUE, 32, "Socket command queue", "socket command queue"},
                    {PTZ_SOCKET_COMMAND_SOCKET_COMMAND_LAST, 33, "Socket command last", "socket command last"},
                }},
      EnumTable{"ProtocolVersion",
                ptz_protocol_version_get_type,
                {
                    {PTZ_PROTOCOL_VERSION_PROTOCOL_VERSION_1, 0, "Protocol version 1", "protocol version 1"},
                    {PTZ_PROTOCOL_VERSION_PROTOCOL_VERSION_LAST, 1, "Protocol version last", "protocol version last"},
                }},
      EnumTable{"PTZMove",
                ptz_move_get_type,
                {
                    {PTZ_MOVE_NONE, 0, "None", "none"},
                    {PTZ_MOVE_ABSOLUTE, 1, "Absolute", "absolute"},
                    {PTZ_MOVE_RELATIVE, 2, "Relative", "relative"},
                    {PTZ_MOVE_CONTINUOUS, 3, "Continuous", "continuous"},
                }},
      EnumTable{"PTZMoveStatus",
                ptz_move_status_get_type,
                {
                    {PTZ_MOVE_STATUS_INVALID, -1, "Invalid", "invalid"},
                    {PTZ_MOVE_STATUS_IDLE, 0, "Idle", "idle"},
                    {PTZ_MOVE_STATUS_MOVING, 1, "Moving", "moving"},
                    {PTZ_MOVE_STATUS_UNKNOWN, 2, "Unknown", "unknown"},
                }},
      EnumTable{"PTZMoveCmd",
                ptz_move_cmd_get_type,
                {
                    {PTZ_MOVE_CMD_HOME, 8, "Home", "home"},
                    {PTZ_MOVE_CMD_UP, 0, "Up", "up"},
                    {PTZ_MOVE_CMD_DOWN, 1, "Down", "down"},
                    {PTZ_MOVE_CMD_LEFT, 2, "Left", "left"},
                    {PTZ_MOVE_CMD_RIGHT, 3, "Right", "right"},
                    {PTZ_MOVE_CMD_UP_LEFT, 4, "Up left", "up left"},
                    {PTZ_MOVE_CMD_UP_RIGHT, 5, "Up right", "up right"},
                    {PTZ_MOVE_CMD_DOWN_LEFT, 6, "Down left", "down left"},
                    {PTZ_MOVE_CMD_DOWN_RIGHT, 7, "Down right", "down right"},
                    {PTZ_MOVE_CMD_STOP, 9, "Stop", "stop"},
                }},
      EnumTable{"PTZEnable",
                ptz_enable_get_type,
                {
                    {PTZ_ENABLE_NONE, 0, "None", "none"},
                    {PTZ_ENABLE_ON, 1, "On", "on"},
                    {PTZ_ENABLE_OFF, 2, "Off", "off"},
                }},
      EnumTable{"PTZAutoEnable",
                ptz_auto_enable_get_type,
                {
                    {PTZ_AUTO_ENABLE_NONE, 0, "None", "none"},
                    {PTZ_AUTO_ENABLE_ON, 1, "On", "on"},
                    {PTZ_AUTO_ENABLE_OFF, 2, "Off", "off"},
                    {PTZ_AUTO_ENABLE_AUTO, 3, "Auto", "auto"},
                }},
      EnumTable{"PTZControl",
                ptz_control_get_type,
                {
                    {PTZ_CONTROL_REQUEST, 0, "Request", "request"},
                    {PTZ_CONTROL_QUERY, 1, "Query", "query"},
                    {PTZ_CONTROL_DROP, 2, "Drop", "drop"},
                    {PTZ_CONTROL_REQUEST_TAKE_EQUAL, 3, "Request take equal", "request take equal"},
                    {PTZ_CONTROL_UNKNOWN, 4, "Unknown", "unknown"},
                }},
      EnumTable{"PTZQuery",
                ptz_query_get_type,
                {
                    {PTZ_QUERY_SPEED, 0, "Speed", "speed"},
                    {PTZ_QUERY_POSITION, 1, "Position", "position"},
                    {PTZ_QUERY_PRESETPOSCAM, 2, "Presetposcam", "presetposcam"},
                    {PTZ_QUERY_PRESETPOSALL, 3, "Presetposall", "presetposall"},
                }},
      EnumTable{"PTZAngle",
                ptz_angle_get_type,
                {
                    {PTZ_ANGLE_HORIZONTAL, 0, "Horizontal", "horiz"},
                    {PTZ_ANGLE_VERTICAL, 1, "Vertical", "vert"},
                    {PTZ_ANGLE_BOTH, 2, "Both", "both"},
                    {PTZ_ANGLE_NONE, 3, "None", "none"},
                }},
      EnumTable{"PTZOsdMenu",
                ptz_osd_menu_get_type,
                {
                    {PTZ_OSD_MENU_OPEN, 0, "Open", "open"},
                    {PTZ_OSD_MENU_CLOSE, 1, "Close", "close"},
                    {PTZ_OSD_MENU_UP, 2, "Up", "up"},
                    {PTZ_OSD_MENU_DOWN, 3, "Down", "down"},
                    {PTZ_OSD_MENU_LEFT, 4, "Left", "left"},
                    {PTZ_OSD_MENU_RIGHT, 5, "Right", "right"},
                    {PTZ_OSD_MENU_SELECT, 6, "Select", "select"},
                    {PTZ_OSD_MENU_BACK, 7, "Back", "back"},
                }},
      EnumTable{"PTZDriverStatus",
                ptz_driver_status_get_type,
                {
                    {PTZ_DRIVER_STATUS_ERROR, 0, "Error", "error"},
                    {PTZ_DRIVER_STATUS_READY, 1, "Ready", "ready"},
                    {PTZ_DRIVER_STATUS_WAIT, 2, "Wait", "wait"},
                    {PTZ_DRIVER_STATUS_ABORT, 3, "Abort", "abort"},
                }},
      EnumTable{"PTZSpace",
                ptz_space_get_type,
                {
                    {PTZ_SPACE_NONE, 0, "None", "none"},
                    {PTZ_SPACE_GENERIC, 1, "Generic", "generic"},
                    {PTZ_SPACE_MECH, 2, "Mech", "mech"},
                    {PTZ_SPACE_MAG, 3, "Mag", "mag"},
                }},
      EnumTable{"PTZParameter",
                ptz_parameter_get_type,
                {
                    {PTZ_PARAMETER_NONE, 0, "None", "none"},
                    {PTZ_PARAMETER_CONSTANT, 1, "Constant", "const"},
                    {PTZ_PARAMETER_TEXT, 2, "Text", "text"},
                    {PTZ_PARAMETER_INTEGER, 3, "Integer", "int"},
                    {PTZ_PARAMETER_BOOLEAN, 4, "Boolean", "bool"},
                    {PTZ_PARAMETER_CONSTANTINTEGER, 5, "ConstantInteger", "const int"},
                    {PTZ_PARAMETER_CONSTANTBOOLEAN, 6, "ConstantBoolean", "const bool"},
                }},
      EnumTable{"PTZParameterGroup",
                ptz_parameter_group_get_type,
                {
                    {PTZ_PARAMETER_GROUP_NONE, 0, "None", "none"},
                    {PTZ_PARAMETER_GROUP_GENERAL, 1, "General", "general"},
                    {PTZ_PARAMETER_GROUP_SERIAL, 2, "Serial", "serial"},
                    {PTZ_PARAMETER_GROUP_SUPPORT, 3, "Support", "support"},
                    {PTZ_PARAMETER_GROUP_LIMIT, 4, "Limit", "limit"},
                    {PTZ_PARAMETER_GROUP_VARIOUS, 5, "Various", "various"},
                    {PTZ_PARAMETER_GROUP_USER_BASIC, 6, "User basic", "usr_bas"},
                    {PTZ_PARAMETER_GROUP_USER_ADVANCED, 7, "User advanced", "usr_adv"},
                    {PTZ_PARAMETER_GROUP_IMAGE_SOURCE, 8, "Image Source", "img_src"},
                    {PTZ_PARAMETER_GROUP_AUX_BUTTON, 9, "Aux button", "aux_btn"},
                }},
      EnumTable{"PTZPortMode",
                ptz_port_mode_get_type,
                {
                    {PTZ_PORT_MODE_OFF, 0, "OFF", "Off"},
                    {PTZ_PORT_MODE_RS485, 1, "RS485", "RS485_2_wire"},
                    {PTZ_PORT_MODE_RS485_4, 2, "RS485_4", "RS485_4_wire"},
                    {PTZ_PORT_MODE_RS422, 3, "RS422", "RS422_2_4_wire"},
                    {PTZ_PORT_MODE_RS232, 4, "RS232", "RS232"},
                    {PTZ_PORT_MODE_COAX, 5, "COAX", "Coaxitron"},
                }},
      EnumTable{"PTZBaudRate",
                ptz_baud_rate_get_type,
                {
                    {PTZ_BAUD_RATE_300, 300, "300", "300"},
                    {PTZ_BAUD_RATE_600, 600, "600", "600"},
                    {PTZ_BAUD_RATE_1200, 1200, "1200", "1200"},
                    {PTZ_BAUD_RATE_2400, 2400, "2400", "2400"},
                    {PTZ_BAUD_RATE_4800, 4800, "4800", "4800"},
                    {PTZ_BAUD_RATE_9600, 9600, "9600", "9600"},
                    {PTZ_BAUD_RATE_19200, 19200, "19200", "19200"},
                    {PTZ_BAUD_RATE_38400, 38400, "38400", "38400"},
                    {PTZ_BAUD_RATE_57600, 57600, "57600", "57600"},
                    {PTZ_BAUD_RATE_115200, 115200, "115200", "115200"},
                    {PTZ_BAUD_RATE_230400, 230400, "230400", "230400"},
                    {PTZ_BAUD_RATE_460800, 460800, "460800", "460800"},
                }},
      EnumTable{"PTZDataBits",
                ptz_data_bits_get_type,
                {
                    {PTZ_DATA_BITS_7, 7, "7", "7"},
                    {PTZ_DATA_BITS_8, 8, "8", "8"},
                }},
      EnumTable{"PTZStopBits",
                ptz_stop_bits_get_type,
                {
                    {PTZ_STOP_BITS_1, 1, "1", "1"},
                    {PTZ_STOP_BITS_2, 2, "2", "2"},
                }},
      EnumTable{"PTZParity",
                ptz_parity_get_type,
                {
                    {PTZ_PARITY_NONE, 0, "None", "none"},
                    {PTZ_PARITY_EVEN, 1, "Even", "even"},
                    {PTZ_PARITY_ODD, 2, "Odd", "odd"},
                    {PTZ_PARITY_MARK, 3, "Mark", "mark"},
                    {PTZ_PARITY_SPACE, 4, "Space", "space"},
                }},
      EnumTable{"PTZPortType",
                ptz_port_type_get_type,
                {
                    {PTZ_PORT_TYPE_SERIAL, 0, "serial", "serial"},
                    {PTZ_PORT_TYPE_REMOTEPORT, 1, "remoteport", "remote"},
                    {PTZ_PORT_TYPE_COAX_PTZ_CONTROL, 2, "coax_ptz_control", "coax_ptz_control"},
                }},
      EnumTable{"PTZSCGroup",
                ptz_sc_group_get_type,
                {
                    {PTZ_SC_GROUP_POSITION, 0, "Position", "position"},
                    {PTZ_SC_GROUP_PRESET, 1, "Preset", "preset"},
                    {PTZ_SC_GROUP_VARIOUS, 2, "Various", "various"},
                    {PTZ_SC_GROUP_LIMIT, 3, "Limit", "limit"},
                }},
      EnumTable{
          "PTZSCParam",
          ptz_sc_param_get_type,
          {
              {PTZ_SC_PARAM_POSITION_PAN, 0, "Position pan", "position_pan"},
              {PTZ_SC_PARAM_POSITION_TILT, 1, "Position tilt", "position_tilt"},
              {PTZ_SC_PARAM_POSITION_PAN_MECH, 2, "Position pan mech", "position_pan_mech"},
              {PTZ_SC_PARAM_POSITION_TILT_MECH, 3, "Position tilt mech", "position_tilt_mech"},
              {PTZ_SC_PARAM_POSITION_PAN_FIXED, 4, "Position pan fixed", "position_fixed_pan"},
              {PTZ_SC_PARAM_POSITION_TILT_FIXED, 5, "Position tilt fixed", "position_fixed_tilt"},
              {PTZ_SC_PARAM_POSITION_MZOOM, 6, "Position mzoom", "position_mzoom"},
              {PTZ_SC_PARAM_POSITION_VZOOM, 7, "Position vzoom", "position_vzoom"},
              {PTZ_SC_PARAM_POSITION_HFOV, 8, "Position hfov", "position_hfov"},
              {PTZ_SC_PARAM_POSITION_VFOV, 9, "Position vfov", "position_vfov"},
              {PTZ_SC_PARAM_POSITION_MASK_HFOV, 10, "Position mask hfov", "position_maskhfov"},
              {PTZ_SC_PARAM_POSITION_MASK_VFOV, 11, "Position mask vfov", "position_maskvfov"},
              {PTZ_SC_PARAM_POSITION_IRIS, 12, "Position iris", "position_iris"},
              {PTZ_SC_PARAM_POSITION_FOCUS, 13, "Position focus", "position focus"},
              {PTZ_SC_PARAM_POSITION_BRIGHTNESS, 14, "Position brightness", "position_brightness"},
              {PTZ_SC_PARAM_POSITION_PAN_STATUS, 15, "Position pan status", "position_pan_status"},
              {PTZ_SC_PARAM_POSITION_TILT_STATUS, 16, "Position tilt status", "position_tilt_status"},
              {PTZ_SC_PARAM_POSITION_ZOOM_STATUS, 17, "Position zoom status", "position_zoom_status"},
              {PTZ_SC_PARAM_POSITION_IRIS_STATUS, 18, "Position iris status", "position_iris_status"},
              {PTZ_SC_PARAM_POSITION_FOCUS_STATUS, 19, "Position focus status", "position_focus_status"},
              {PTZ_SC_PARAM_POSITION_BRIGHTNESS_STATUS, 20, "Position brightness status", "position_brightness_status"},
              {PTZ_SC_PARAM_POSITION_UPDATE_RATE, 21, "Position update rate", "position_update_rate"},
              {PTZ_SC_PARAM_POSITION_TIME_VAL, 22, "Position time val", "position_time_val"},
              {PTZ_SC_PARAM_POSITION_PAN_STATUS_IDLE_TIME, 23, "Position pan status idle time",
               "position_pan_status_idle_time"},
              {PTZ_SC_PARAM_POSITION_PAN_STATUS_MOVING_TIME, 24, "Position pan status moving time",
               "position_pan_status_moving_time"},
              {PTZ_SC_PARAM_POSITION_TILT_STATUS_IDLE_TIME, 25, "Position tilt status idle time",
               "position_tilt_status_idle_time"},
              {PTZ_SC_PARAM_POSITION_TILT_STATUS_MOVING_TIME, 26, "Position tilt status moving time",
               "position_tilt_status_moving_time"},
              {PTZ_SC_PARAM_POSITION_ZOOM_STATUS_IDLE_TIME, 27, "Position zoom status idle time",
               "position_zoom_status_idle_time"},
              {PTZ_SC_PARAM_POSITION_ZOOM_STATUS_MOVING_TIME, 28, "Position zoom status moving time",
               "position_zoom_status_moving_time"},
              {PTZ_SC_PARAM_POSITION_FOCUS_STATUS_IDLE_TIME, 31, "Position focus status idle time",
               "position_focus_status_idle_time"},
              {PTZ_SC_PARAM_POSITION_FOCUS_STATUS_MOVING_TIME, 32, "Position focus status moving time",
               "position_focus_status_moving_time"},
              {PTZ_SC_PARAM_POSITION_IRIS_STATUS_IDLE_TIME, 29, "Position iris status idle time",
               "position_iris_status_idle_time"},
              {PTZ_SC_PARAM_POSITION_IRIS_STATUS_MOVING_TIME, 30, "Position iris status moving time",
               "position_iris_status_moving_time"},
              {PTZ_SC_PARAM_POSITION_BRIGHT_STATUS_IDLE_TIME, 33, "Position bright status idle time",
               "position_bright_status_idle_time"},
              {PTZ_SC_PARAM_POSITION_BRIGHT_STATUS_MOVING_TIME, 34, "Position bright status moving time",
               "position_bright_status_moving_time"},
              {PTZ_SC_PARAM_POSITION_GM_PAN_STATUS_IDLE_TIME, 35, "Position gm pan status idle time",
               "position_gm_pan_status_idle_time"},
              {PTZ_SC_PARAM_POSITION_GM_PAN_STATUS_MOVING_TIME, 36, "Position gm pan status moving time",
               "position_gm_pan_status_moving_time"},
              {PTZ_SC_PARAM_POSITION_GM_TILT_STATUS_IDLE_TIME, 37, "Position gm tilt status idle time",
               "position_gm_tilt_status_idle_time"},
              {PTZ_SC_PARAM_POSITION_GM_TILT_STATUS_MOVING_TIME, 38, "Position gm tilt status moving time",
               "position_gm_tilt_status_moving_time"},
              {PTZ_SC_PARAM_POSITION_GM_ZOOM_STATUS_IDLE_TIME, 39, "Position gm zoom status idle time",
               "position_gm_zoom_status_idle_time"},
              {PTZ_SC_PARAM_POSITION_GM_ZOOM_STATUS_MOVING_TIME, 40, "Position gm zoom status moving time",
               "position_gm_zoom_status_moving_time"},
              {PTZ_SC_PARAM_POSITION_GM_FOCUS_STATUS_IDLE_TIME, 43, "Position gm focus status idle time",
               "position_gm_focus_status_idle_time"},
              {PTZ_SC_PARAM_POSITION_GM_FOCUS_STATUS_MOVING_TIME, 44, "Position gm focus status moving time",
               "position_gm_focus_status_moving_time"},
              {PTZ_SC_PARAM_POSITION_GM_IRIS_STATUS_IDLE_TIME, 41, "Position gm iris status idle time",
               "position_gm_iris_status_idle_time"},
              {PTZ_SC_PARAM_POSITION_GM_IRIS_STATUS_MOVING_TIME, 42, "Position gm iris status moving time",
               "position_gm_iris_status_moving_time"},
              {PTZ_SC_PARAM_POSITION_GM_BRIGHT_STATUS_IDLE_TIME, 45, "Position gm bright status idle time",
               "position_gm_bright_status_idle_time"},
              {PTZ_SC_PARAM_POSITION_GM_BRIGHT_STATUS_MOVING_TIME, 46, "Position gm bright status moving time",
               "position_gm_bright_status_moving_time"},
              {PTZ_SC_PARAM_PRESET_NAME, 47, "Preset name", "preset_name"},
              {PTZ_SC_PARAM_PRESET_SIZE, 48, "Preset size", "preset_size"},
              {PTZ_SC_PARAM_VARIOUS_PAN_FLIPPED, 49, "Various pan flipped", "various_pan_flipped"},
              {PTZ_SC_PARAM_VARIOUS_TILT_FLIPPED, 50, "Various tilt flipped", "various_tilt_flipped"},
              {PTZ_SC_PARAM_VARIOUS_CAM_FLIPPED, 51, "Various cam flipped", "various_cam_flipped"},
              {PTZ_SC_PARAM_VARIOUS_AUTO_FLIPPING, 52, "Various auto flipping", "various_auto_flipping"},
              {PTZ_SC_PARAM_VARIOUS_PT_PRESET_MOVE, 53, "Various pt preset move", "various_pt_preset_move"},
              {PTZ_SC_PARAM_VARIOUS_AUTO_FOCUS, 54, "Various auto focus", "various_auto_focus"},
              {PTZ_SC_PARAM_VARIOUS_AUTO_IRIS, 55, "Various auto iris", "various_auto_iris"},
              {PTZ_SC_PARAM_VARIOUS_BACKLIGHT_COMPENSATION, 56, "Various backlight compensation",
               "various_backlight_comp"},
              {PTZ_SC_PARAM_VARIOUS_IR_CUT_FILTER, 57, "Various ir cut filter", "various_ir_cut_filter"},
              {PTZ_SC_PARAM_LIMIT_MIN_PAN, 59, "Limit min pan", "limit_min_pan"},
              {PTZ_SC_PARAM_LIMIT_MAX_PAN, 60, "Limit max pan", "limit_max_pan"},
              {PTZ_SC_PARAM_LIMIT_MIN_TILT, 61, "Limit min tilt", "limit_min_tilt"},
              {PTZ_SC_PARAM_LIMIT_MAX_TILT, 62, "Limit max tilt", "limit_max_tilt"},
              {PTZ_SC_PARAM_LIMIT_MIN_ZOOM, 63, "Limit min zoom", "limit_min_zoom"},
              {PTZ_SC_PARAM_LIMIT_MAX_ZOOM, 64, "Limit max zoom", "limit_max_zoom"},
              {PTZ_SC_PARAM_LIMIT_MIN_IRIS, 65, "Limit min iris", "limit_min_iris"},
              {PTZ_SC_PARAM_LIMIT_MAX_IRIS, 66, "Limit max iris", "limit_max_iris"},
              {PTZ_SC_PARAM_LIMIT_MIN_FOCUS, 67, "Limit min focus", "limit_min_focus"},
              {PTZ_SC_PARAM_LIMIT_MAX_FOCUS, 68, "Limit max focus", "limit_max_focus"},
              {PTZ_SC_PARAM_LIMIT_MIN_ANGLE, 69, "Limit min angle", "limit_min_angle"},
              {PTZ_SC_PARAM_LIMIT_MAX_ANGLE, 70, "Limit max angle", "limit_max_angle"},
              {PTZ_SC_PARAM_LIMIT_MIN_BRIGHTNESS, 71, "Limit min brightness", "limit_min_brightness"},
              {PTZ_SC_PARAM_LIMIT_MAX_BRIGHTNESS, 72, "Limit max brightness", "limit_max_brightness"},
          }},
      EnumTable{
          "PTZDriverState",
          ptz_driver_state_get_type,
          {
              {PTZ_DRIVER_STATE_UNKNOWN, 0, "unknown", "unknown driver state"},
              {PTZ_DRIVER_STATE_RUN, 1, "run", "driver is running"},
              {PTZ_DRIVER_STATE_WARMING_UP, 2, "warming up", "driver is warming up"},
              {PTZ_DRIVER_STATE_COOLING_DOWN, 3, "cooling down", "driver is cooling down"},
              {PTZ_DRIVER_STATE_INIT, 4, "init", "driver is initiating"},
              {PTZ_DRIVER_STATE_UPGRADING, 5, "upgrading", "driver is upgrading"},
              {PTZ_DRIVER_STATE_DOWN, 6, "down", "driver is down"},
              {PTZ_DRIVER_STATE_NOT_FUNCTIONAL, 7, "not functional", "driver is not functional"},
              {PTZ_DRIVER_STATE_RECALIBRATING, 8, "recalibrating", "Automatic Pan/Tilt calibration"},
              {PTZ_DRIVER_STATE_WAITING_FOR_POWER, 9, "waiting for power", "driver is waiting for power allocation"},
          }}};
  return tables;
}

class EnumTypes : public testing::TestWithParam<EnumTable> {};

INSTANTIATE_TEST_SUITE_P(All, EnumTypes, testing::ValuesIn(enum_tables()),
                         [](const auto &table) { return table.param.type_name; });

TEST_P(EnumTypes, IsRegisteredUnderTheNameOfItsTypedef) { ptz_test::expect_registered_as(GetParam(), G_TYPE_ENUM); }

TEST_P(EnumTypes, ListsEveryRowInTheOrderOfTheTable) { ptz_test::expect_rows_in_order(GetParam()); }

TEST_P(EnumTypes, EnumeratorsOfTheHeaderHaveTheirValues) { ptz_test::expect_enumerators(GetParam()); }

TEST_P(EnumTypes, EveryValueNameAndNickFindsItsRow) { ptz_test::expect_lookups_find_their_rows(GetParam()); }

TEST_P(EnumTypes, SecondCallReturnsTheSameTypeWithoutRegisteringAgain) { ptz_test::expect_same_type_again(GetParam()); }

[[noreturn]] void race_for_every_function() {
  std::vector<GType (*)()> functions;
  for (const EnumTable &table : enum_tables()) functions.push_back(table.get_type);
  ptz_test::race_for_first_calls(functions);
}

TEST(EnumTypesDeathTest, ThreadsThatRaceForTheFirstCallGetOneType) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(race_for_every_function(), testing::ExitedWithCode(EXIT_SUCCESS), "");
}

TEST(Command, DriverPropertyIsNamedGetAndNickedSet) {
  GEnumClass *const commands = enum_class(PTZ_TYPE_COMMAND);
  const GEnumValue *const row = g_enum_get_value(commands, 25);
  ASSERT_NE(row, nullptr);
  EXPECT_STREQ(row->value_name, "Get driver property");
  EXPECT_STREQ(row->value_nick, "set driver property");
  EXPECT_EQ(g_enum_get_value_by_nick(commands, "get driver property"), nullptr);
  EXPECT_EQ(g_enum_get_value_by_name(commands, "Set driver property"), nullptr);
}

TEST(Command, ValuesBetweenTheLastCommandAndTheEndMarkerFindNothing) {
  GEnumClass *const commands = enum_class(PTZ_TYPE_COMMAND);
  for (const gint value : {29, 30, 31, 33, -2}) EXPECT_EQ(g_enum_get_value(commands, value), nullptr) << value;
}

TEST(Command, EndMarkerSharesItsValueWithTheFirstSocketCommand) {
  EXPECT_EQ(gint{PTZ_COMMAND_END_OF_RECORD}, gint{PTZ_SOCKET_COMMAND_SOCKET_COMMAND_QUEUE});
}

TEST(MoveCmd, ListsHomeFirst) { EXPECT_STREQ(enum_class(PTZ_TYPE_MOVE_CMD)->values[0].value_name, "Home"); }

TEST(SCParam, TheUnusedValueFindsNothing) {
  GEnumClass *const parameters = enum_class(PTZ_TYPE_SC_PARAM);
  for (const gint value : {58, -1, 73}) EXPECT_EQ(g_enum_get_value(parameters, value), nullptr) << value;
}

TEST(EnumTypesTogether, LookupsMindTheCaseOfTheTexts) {
  EXPECT_EQ(g_enum_get_value_by_name(enum_class(PTZ_TYPE_ENABLE), "on"), nullptr);
  EXPECT_EQ(g_enum_get_value_by_nick(enum_class(PTZ_TYPE_ENABLE), "On"), nullptr);
}

}  // namespace
