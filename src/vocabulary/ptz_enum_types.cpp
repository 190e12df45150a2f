#include "ptz_enum_types.h"

#include "base/enum_type.h"

// The order of the rows is what classes list, and the texts are what other processes look up: tables that are not
// sorted by value and nicks that do not follow from their names are no slips.

constexpr GEnumValue command_rows[] = {
    {PTZ_COMMAND_ERROR_REPLY, "Error reply", "error reply"},
    {PTZ_COMMAND_SET_PRESET, "Set preset", "set preset"},
    {PTZ_COMMAND_SET_DEVICE_PRESET, "Set device preset", "set device preset"},
    {PTZ_COMMAND_GET_DEVICE_PRESETS, "Get device presets", "get device presets"},
    {PTZ_COMMAND_GOTO_PRESET, "Goto preset", "goto preset"},
    {PTZ_COMMAND_GOTO_DEVICE_PRESET, "Goto device preset", "goto device preset"},
    {PTZ_COMMAND_MOVE, "Move", "move"},
    {PTZ_COMMAND_STOP, "Stop", "stop"},
    {PTZ_COMMAND_FIELD_ANGLES, "Field angles", "field angles"},
    {PTZ_COMMAND_UNREGISTER, "Unregister", "unregister"},
    {PTZ_COMMAND_AUXILIARY, "Auxiliary", "auxiliary"},
    {PTZ_COMMAND_GET_AUXILIARY, "Get auxiliary", "get auxiliary"},
    {PTZ_COMMAND_OSD_MENU, "OSD Menu", "osd menu"},
    {PTZ_COMMAND_QUERY_SPEED, "Query speed", "query speed"},
    {PTZ_COMMAND_QUERY_POSITION, "Query position", "query position"},
    {PTZ_COMMAND_QUERY_ZOOMDELIM, "Query zoomdelim", "query zoom delimitations"},
    {PTZ_COMMAND_CHANGE_PORT, "Change port", "change port"},
    {PTZ_COMMAND_MOVE_COMMAND, "Move command", "move command"},
    {PTZ_COMMAND_AREA_ZOOM, "Area zoom", "area zoom"},
    {PTZ_COMMAND_IMAGE, "Image", "image"},
    {PTZ_COMMAND_DEFAULT_HOME_PRESET, "Default home preset", "default home preset"},
    {PTZ_COMMAND_QUERY_LIMIT_RANGES, "Query limit ranges", "query limit ranges"},
    {PTZ_COMMAND_GET_DRIVER_NAME, "Get driver name", "get driver name"},
    {PTZ_COMMAND_GET_DEVICE_TYPES, "Get device types", "get device types"},
    {PTZ_COMMAND_GET_CAPABILITIES, "Get capabilities", "get capabilities"},
    {PTZ_COMMAND_SET_CAPABILITIES, "Set capabilities", "set capabilities"},
    {PTZ_COMMAND_GET_DRIVER_PROPERTY, "Get driver property", "set driver property"},
    {PTZ_COMMAND_GET_PRESET_POSITION, "Get preset position", "get preset position"},
    {PTZ_COMMAND_QUERY_ATTRIBUTES, "Query attributes", "query attributes"},
    {PTZ_COMMAND_GET_DRIVER_PARAMETERS, "Get driver parameters", "get driver parameters"},
    {PTZ_COMMAND_END_OF_RECORD, "End of record", "End of record"},
    {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(PTZCommand, ptz_command_get_type, command_rows)

constexpr GEnumValue socket_command_rows[] = {
    {PTZ_SOCKET_COMMAND_SOCKET_COMMAND_QUEUE, "Socket command queue", "socket command queue"},
    {PTZ_SOCKET_COMMAND_SOCKET_COMMAND_LAST, "Socket command last", "socket command last"},
    {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(SocketCommand, ptz_socket_command_get_type, socket_command_rows)

constexpr GEnumValue protocol_version_rows[] = {
    {PTZ_PROTOCOL_VERSION_PROTOCOL_VERSION_1, "Protocol version 1", "protocol version 1"},
    {PTZ_PROTOCOL_VERSION_PROTOCOL_VERSION_LAST, "Protocol version last", "protocol version last"},
    {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(ProtocolVersion, ptz_protocol_version_get_type, protocol_version_rows)

constexpr GEnumValue move_rows[] = {{PTZ_MOVE_NONE, "None", "none"},
                                    {PTZ_MOVE_ABSOLUTE, "Absolute", "absolute"},
                                    {PTZ_MOVE_RELATIVE, "Relative", "relative"},
                                    {PTZ_MOVE_CONTINUOUS, "Continuous", "continuous"},
                                    {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(PTZMove, ptz_move_get_type, move_rows)

constexpr GEnumValue move_status_rows[] = {{PTZ_MOVE_STATUS_INVALID, "Invalid", "invalid"},
                                           {PTZ_MOVE_STATUS_IDLE, "Idle", "idle"},
                                           {PTZ_MOVE_STATUS_MOVING, "Moving", "moving"},
                                           {PTZ_MOVE_STATUS_UNKNOWN, "Unknown", "unknown"},
                                           {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(PTZMoveStatus, ptz_move_status_get_type, move_status_rows)

constexpr GEnumValue move_cmd_rows[] = {{PTZ_MOVE_CMD_HOME, "Home", "home"},
                                        {PTZ_MOVE_CMD_UP, "Up", "up"},
                                        {PTZ_MOVE_CMD_DOWN, "Down", "down"},
                                        {PTZ_MOVE_CMD_LEFT, "Left", "left"},
                                        {PTZ_MOVE_CMD_RIGHT, "Right", "right"},
                                        {PTZ_MOVE_CMD_UP_LEFT, "Up left", "up left"},
                                        {PTZ_MOVE_CMD_UP_RIGHT, "Up right", "up right"},
                                        {PTZ_MOVE_CMD_DOWN_LEFT, "Down left", "down left"},
                                        {PTZ_MOVE_CMD_DOWN_RIGHT, "Down right", "down right"},
                                        {PTZ_MOVE_CMD_STOP, "Stop", "stop"},
                                        {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(PTZMoveCmd, ptz_move_cmd_get_type, move_cmd_rows)

constexpr GEnumValue enable_rows[] = {{PTZ_ENABLE_NONE, "None", "none"},
                                      {PTZ_ENABLE_ON, "On", "on"},
                                      {PTZ_ENABLE_OFF, "Off", "off"},
                                      {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(PTZEnable, ptz_enable_get_type, enable_rows)

constexpr GEnumValue auto_enable_rows[] = {{PTZ_AUTO_ENABLE_NONE, "None", "none"},
                                           {PTZ_AUTO_ENABLE_ON, "On", "on"},
                                           {PTZ_AUTO_ENABLE_OFF, "Off", "off"},
                                           {PTZ_AUTO_ENABLE_AUTO, "Auto", "auto"},
                                           {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(PTZAutoEnable, ptz_auto_enable_get_type, auto_enable_rows)

constexpr GEnumValue control_rows[] = {{PTZ_CONTROL_REQUEST, "Request", "request"},
                                       {PTZ_CONTROL_QUERY, "Query", "query"},
                                       {PTZ_CONTROL_DROP, "Drop", "drop"},
                                       {PTZ_CONTROL_REQUEST_TAKE_EQUAL, "Request take equal", "request take equal"},
                                       {PTZ_CONTROL_UNKNOWN, "Unknown", "unknown"},
                                       {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(PTZControl, ptz_control_get_type, control_rows)

constexpr GEnumValue query_rows[] = {{PTZ_QUERY_SPEED, "Speed", "speed"},
                                     {PTZ_QUERY_POSITION, "Position", "position"},
                                     {PTZ_QUERY_PRESETPOSCAM, "Presetposcam", "presetposcam"},
                                     {PTZ_QUERY_PRESETPOSALL, "Presetposall", "presetposall"},
                                     {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(PTZQuery, ptz_query_get_type, query_rows)

constexpr GEnumValue angle_rows[] = {{PTZ_ANGLE_HORIZONTAL, "Horizontal", "horiz"},
                                     {PTZ_ANGLE_VERTICAL, "Vertical", "vert"},
                                     {PTZ_ANGLE_BOTH, "Both", "both"},
                                     {PTZ_ANGLE_NONE, "None", "none"},
                                     {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(PTZAngle, ptz_angle_get_type, angle_rows)

constexpr GEnumValue osd_menu_rows[] = {{PTZ_OSD_MENU_OPEN, "Open", "open"},
                                        {PTZ_OSD_MENU_CLOSE, "Close", "close"},
                                        {PTZ_OSD_MENU_UP, "Up", "up"},
                                        {PTZ_OSD_MENU_DOWN, "Down", "down"},
                                        {PTZ_OSD_MENU_LEFT, "Left", "left"},
                                        {PTZ_OSD_MENU_RIGHT, "Right", "right"},
                                        {PTZ_OSD_MENU_SELECT, "Select", "select"},
                                        {PTZ_OSD_MENU_BACK, "Back", "back"},
                                        {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(PTZOsdMenu, ptz_osd_menu_get_type, osd_menu_rows)

constexpr GEnumValue driver_status_rows[] = {{PTZ_DRIVER_STATUS_ERROR, "Error", "error"},
                                             {PTZ_DRIVER_STATUS_READY, "Ready", "ready"},
                                             {PTZ_DRIVER_STATUS_WAIT, "Wait", "wait"},
                                             {PTZ_DRIVER_STATUS_ABORT, "Abort", "abort"},
                                             {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(PTZDriverStatus, ptz_driver_status_get_type, driver_status_rows)

constexpr GEnumValue space_rows[] = {{PTZ_SPACE_NONE, "None", "none"},
                                     {PTZ_SPACE_GENERIC, "Generic", "generic"},
                                     {PTZ_SPACE_MECH, "Mech", "mech"},
                                     {PTZ_SPACE_MAG, "Mag", "mag"},
                                     {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(PTZSpace, ptz_space_get_type, space_rows)

constexpr GEnumValue parameter_rows[] = {{PTZ_PARAMETER_NONE, "None", "none"},
                                         {PTZ_PARAMETER_CONSTANT, "Constant", "const"},
                                         {PTZ_PARAMETER_TEXT, "Text", "text"},
                                         {PTZ_PARAMETER_INTEGER, "Integer", "int"},
                                         {PTZ_PARAMETER_BOOLEAN, "Boolean", "bool"},
                                         {PTZ_PARAMETER_CONSTANTINTEGER, "ConstantInteger", "const int"},
                                         {PTZ_PARAMETER_CONSTANTBOOLEAN, "ConstantBoolean", "const bool"},
                                         {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(PTZParameter, ptz_parameter_get_type, parameter_rows)

constexpr GEnumValue parameter_group_rows[] = {{PTZ_PARAMETER_GROUP_NONE, "None", "none"},
                                               {PTZ_PARAMETER_GROUP_GENERAL, "General", "general"},
                                               {PTZ_PARAMETER_GROUP_SERIAL, "Serial", "serial"},
                                               {PTZ_PARAMETER_GROUP_SUPPORT, "Support", "support"},
                                               {PTZ_PARAMETER_GROUP_LIMIT, "Limit", "limit"},
                                               {PTZ_PARAMETER_GROUP_VARIOUS, "Various", "various"},
                                               {PTZ_PARAMETER_GROUP_USER_BASIC, "User basic", "usr_bas"},
                                               {PTZ_PARAMETER_GROUP_USER_ADVANCED, "User advanced", "usr_adv"},
                                               {PTZ_PARAMETER_GROUP_IMAGE_SOURCE, "Image Source", "img_src"},
                                               {PTZ_PARAMETER_GROUP_AUX_BUTTON, "Aux button", "aux_btn"},
                                               {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(PTZParameterGroup, ptz_parameter_group_get_type, parameter_group_rows)

constexpr GEnumValue port_mode_rows[] = {{PTZ_PORT_MODE_OFF, "OFF", "Off"},
                                         {PTZ_PORT_MODE_RS485, "RS485", "RS485_2_wire"},
                                         {PTZ_PORT_MODE_RS485_4, "RS485_4", "RS485_4_wire"},
                                         {PTZ_PORT_MODE_RS422, "RS422", "RS422_2_4_wire"},
                                         {PTZ_PORT_MODE_RS232, "RS232", "RS232"},
                                         {PTZ_PORT_MODE_COAX, "COAX", "Coaxitron"},
                                         {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(PTZPortMode, ptz_port_mode_get_type, port_mode_rows)

constexpr GEnumValue baud_rate_rows[] = {{PTZ_BAUD_RATE_300, "300", "300"},
                                         {PTZ_BAUD_RATE_600, "600", "600"},
                                         {PTZ_BAUD_RATE_1200, "1200", "1200"},
                                         {PTZ_BAUD_RATE_2400, "2400", "2400"},
                                         {PTZ_BAUD_RATE_4800, "4800", "4800"},
                                         {PTZ_BAUD_RATE_9600, "9600", "9600"},
                                         {PTZ_BAUD_RATE_19200, "19200", "19200"},
                                         {PTZ_BAUD_RATE_38400, "38400", "38400"},
                                         {PTZ_BAUD_RATE_57600, "57600", "57600"},
                                         {PTZ_BAUD_RATE_115200, "115200", "115200"},
                                         {PTZ_BAUD_RATE_230400, "230400", "230400"},
                                         {PTZ_BAUD_RATE_460800, "460800", "460800"},
                                         {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(PTZBaudRate, ptz_baud_rate_get_type, baud_rate_rows)

constexpr GEnumValue data_bits_rows[] = {
    {PTZ_DATA_BITS_7, "7", "7"}, {PTZ_DATA_BITS_8, "8", "8"}, {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(PTZDataBits, ptz_data_bits_get_type, data_bits_rows)

constexpr GEnumValue stop_bits_rows[] = {
    {PTZ_STOP_BITS_1, "1", "1"}, {PTZ_STOP_BITS_2, "2", "2"}, {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(PTZStopBits, ptz_stop_bits_get_type, stop_bits_rows)

constexpr GEnumValue parity_rows[] = {{PTZ_PARITY_NONE, "None", "none"},    {PTZ_PARITY_EVEN, "Even", "even"},
                                      {PTZ_PARITY_ODD, "Odd", "odd"},       {PTZ_PARITY_MARK, "Mark", "mark"},
                                      {PTZ_PARITY_SPACE, "Space", "space"}, {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(PTZParity, ptz_parity_get_type, parity_rows)

constexpr GEnumValue port_type_rows[] = {{PTZ_PORT_TYPE_SERIAL, "serial", "serial"},
                                         {PTZ_PORT_TYPE_REMOTEPORT, "remoteport", "remote"},
                                         {PTZ_PORT_TYPE_COAX_PTZ_CONTROL, "coax_ptz_control", "coax_ptz_control"},
                                         {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(PTZPortType, ptz_port_type_get_type, port_type_rows)

constexpr GEnumValue sc_group_rows[] = {{PTZ_SC_GROUP_POSITION, "Position", "position"},
                                        {PTZ_SC_GROUP_PRESET, "Preset", "preset"},
                                        {PTZ_SC_GROUP_VARIOUS, "Various", "various"},
                                        {PTZ_SC_GROUP_LIMIT, "Limit", "limit"},
                                        {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(PTZSCGroup, ptz_sc_group_get_type, sc_group_rows)

constexpr GEnumValue sc_param_rows[] = {
    {PTZ_SC_PARAM_POSITION_PAN, "Position pan", "position_pan"},
    {PTZ_SC_PARAM_POSITION_TILT, "Position tilt", "position_tilt"},
    {PTZ_SC_PARAM_POSITION_PAN_MECH, "Position pan mech", "position_pan_mech"},
    {PTZ_SC_PARAM_POSITION_TILT_MECH, "Position tilt mech", "position_tilt_mech"},
    {PTZ_SC_PARAM_POSITION_PAN_FIXED, "Position pan fixed", "position_fixed_pan"},
    {PTZ_SC_PARAM_POSITION_TILT_FIXED, "Position tilt fixed", "position_fixed_tilt"},
    {PTZ_SC_PARAM_POSITION_MZOOM, "Position mzoom", "position_mzoom"},
    {PTZ_SC_PARAM_POSITION_VZOOM, "Position vzoom", "position_vzoom"},
    {PTZ_SC_PARAM_POSITION_HFOV, "Position hfov", "position_hfov"},
    {PTZ_SC_PARAM_POSITION_VFOV, "Position vfov", "position_vfov"},
    {PTZ_SC_PARAM_POSITION_MASK_HFOV, "Position mask hfov", "position_maskhfov"},
    {PTZ_SC_PARAM_POSITION_MASK_VFOV, "Position mask vfov", "position_maskvfov"},
    {PTZ_SC_PARAM_POSITION_IRIS, "Position iris", "position_iris"},
    {PTZ_SC_PARAM_POSITION_FOCUS, "Position focus", "position focus"},
    {PTZ_SC_PARAM_POSITION_BRIGHTNESS, "Position brightness", "position_brightness"},
    {PTZ_SC_PARAM_POSITION_PAN_STATUS, "Position pan status", "position_pan_status"},
    {PTZ_SC_PARAM_POSITION_TILT_STATUS, "Position tilt status", "position_tilt_status"},
    {PTZ_SC_PARAM_POSITION_ZOOM_STATUS, "Position zoom status", "position_zoom_status"},
    {PTZ_SC_PARAM_POSITION_IRIS_STATUS, "Position iris status", "position_iris_status"},
    {PTZ_SC_PARAM_POSITION_FOCUS_STATUS, "Position focus status", "position_focus_status"},
    {PTZ_SC_PARAM_POSITION_BRIGHTNESS_STATUS, "Position brightness status", "position_brightness_status"},
    {PTZ_SC_PARAM_POSITION_UPDATE_RATE, "Position update rate", "position_update_rate"},
    {PTZ_SC_PARAM_POSITION_TIME_VAL, "Position time val", "position_time_val"},
    {PTZ_SC_PARAM_POSITION_PAN_STATUS_IDLE_TIME, "Position pan status idle time", "position_pan_status_idle_time"},
    {PTZ_SC_PARAM_POSITION_PAN_STATUS_MOVING_TIME, "Position pan status moving time",
     "position_pan_status_moving_time"},
    {PTZ_SC_PARAM_POSITION_TILT_STATUS_IDLE_TIME, "Position tilt status idle time", "position_tilt_status_idle_time"},
    {PTZ_SC_PARAM_POSITION_TILT_STATUS_MOVING_TIME, "Position tilt status moving time",
     "position_tilt_status_moving_time"},
    {PTZ_SC_PARAM_POSITION_ZOOM_STATUS_IDLE_TIME, "Position zoom status idle time", "position_zoom_status_idle_time"},
    {PTZ_SC_PARAM_POSITION_ZOOM_STATUS_MOVING_TIME, "Position zoom status moving time",
     "position_zoom_status_moving_time"},
    {PTZ_SC_PARAM_POSITION_FOCUS_STATUS_IDLE_TIME, "Position focus status idle time",
     "position_focus_status_idle_time"},
    {PTZ_SC_PARAM_POSITION_FOCUS_STATUS_MOVING_TIME, "Position focus status moving time",
     "position_focus_status_moving_time"},
    {PTZ_SC_PARAM_POSITION_IRIS_STATUS_IDLE_TIME, "Position iris status idle time", "position_iris_status_idle_time"},
    {PTZ_SC_PARAM_POSITION_IRIS_STATUS_MOVING_TIME, "Position iris status moving time",
     "position_iris_status_moving_time"},
    {PTZ_SC_PARAM_POSITION_BRIGHT_STATUS_IDLE_TIME, "Position bright status idle time",
     "position_bright_status_idle_time"},
    {PTZ_SC_PARAM_POSITION_BRIGHT_STATUS_MOVING_TIME, "Position bright status moving time",
     "position_bright_status_moving_time"},
    {PTZ_SC_PARAM_POSITION_GM_PAN_STATUS_IDLE_TIME, "Position gm pan status idle time",
     "position_gm_pan_status_idle_time"},
    {PTZ_SC_PARAM_POSITION_GM_PAN_STATUS_MOVING_TIME, "Position gm pan status moving time",
     "position_gm_pan_status_moving_time"},
    {PTZ_SC_PARAM_POSITION_GM_TILT_STATUS_IDLE_TIME, "Position gm tilt status idle time",
     "position_gm_tilt_status_idle_time"},
    {PTZ_SC_PARAM_POSITION_GM_TILT_STATUS_MOVING_TIME, "Position gm tilt status moving time",
     "position_gm_tilt_status_moving_time"},
    {PTZ_SC_PARAM_POSITION_GM_ZOOM_STATUS_IDLE_TIME, "Position gm zoom status idle time",
     "position_gm_zoom_status_idle_time"},
    {PTZ_SC_PARAM_POSITION_GM_ZOOM_STATUS_MOVING_TIME, "Position gm zoom status moving time",
     "position_gm_zoom_status_moving_time"},
    {PTZ_SC_PARAM_POSITION_GM_FOCUS_STATUS_IDLE_TIME, "Position gm focus status idle time",
     "position_gm_focus_status_idle_time"},
    {PTZ_SC_PARAM_POSITION_GM_FOCUS_STATUS_MOVING_TIME, "Position gm focus status moving time",
     "position_gm_focus_status_moving_time"},
    {PTZ_SC_PARAM_POSITION_GM_IRIS_STATUS_IDLE_TIME, "Position gm iris status idle time",
     "position_gm_iris_status_idle_time"},
    {PTZ_SC_PARAM_POSITION_GM_IRIS_STATUS_MOVING_TIME, "Position gm iris status moving time",
     "position_gm_iris_status_moving_time"},
    {PTZ_SC_PARAM_POSITION_GM_BRIGHT_STATUS_IDLE_TIME, "Position gm bright status idle time",
     "position_gm_bright_status_idle_time"},
    {PTZ_SC_PARAM_POSITION_GM_BRIGHT_STATUS_MOVING_TIME, "Position gm bright status moving time",
     "position_gm_bright_status_moving_time"},
    {PTZ_SC_PARAM_PRESET_NAME, "Preset name", "preset_name"},
    {PTZ_SC_PARAM_PRESET_SIZE, "Preset size", "preset_size"},
    {PTZ_SC_PARAM_VARIOUS_PAN_FLIPPED, "Various pan flipped", "various_pan_flipped"},
    {PTZ_SC_PARAM_VARIOUS_TILT_FLIPPED, "Various tilt flipped", "various_tilt_flipped"},
    {PTZ_SC_PARAM_VARIOUS_CAM_FLIPPED, "Various cam flipped", "various_cam_flipped"},
    {PTZ_SC_PARAM_VARIOUS_AUTO_FLIPPING, "Various auto flipping", "various_auto_flipping"},
    {PTZ_SC_PARAM_VARIOUS_PT_PRESET_MOVE, "Various pt preset move", "various_pt_preset_move"},
    {PTZ_SC_PARAM_VARIOUS_AUTO_FOCUS, "Various auto focus", "various_auto_focus"},
    {PTZ_SC_PARAM_VARIOUS_AUTO_IRIS, "Various auto iris", "various_auto_iris"},
    {PTZ_SC_PARAM_VARIOUS_BACKLIGHT_COMPENSATION, "Various backlight compensation", "various_backlight_comp"},
    {PTZ_SC_PARAM_VARIOUS_IR_CUT_FILTER, "Various ir cut filter", "various_ir_cut_filter"},
    {PTZ_SC_PARAM_LIMIT_MIN_PAN, "Limit min pan", "limit_min_pan"},
    {PTZ_SC_PARAM_LIMIT_MAX_PAN, "Limit max pan", "limit_max_pan"},
    {PTZ_SC_PARAM_LIMIT_MIN_TILT, "Limit min tilt", "limit_min_tilt"},
    {PTZ_SC_PARAM_LIMIT_MAX_TILT, "Limit max tilt", "limit_max_tilt"},
    {PTZ_SC_PARAM_LIMIT_MIN_ZOOM, "Limit min zoom", "limit_min_zoom"},
    {PTZ_SC_PARAM_LIMIT_MAX_ZOOM, "Limit max zoom", "limit_max_zoom"},
    {PTZ_SC_PARAM_LIMIT_MIN_IRIS, "Limit min iris", "limit_min_iris"},
    {PTZ_SC_PARAM_LIMIT_MAX_IRIS, "Limit max iris", "limit_max_iris"},
    {PTZ_SC_PARAM_LIMIT_MIN_FOCUS, "Limit min focus", "limit_min_focus"},
    {PTZ_SC_PARAM_LIMIT_MAX_FOCUS, "Limit max focus", "limit_max_focus"},
    {PTZ_SC_PARAM_LIMIT_MIN_ANGLE, "Limit min angle", "limit_min_angle"},
    {PTZ_SC_PARAM_LIMIT_MAX_ANGLE, "Limit max angle", "limit_max_angle"},
    {PTZ_SC_PARAM_LIMIT_MIN_BRIGHTNESS, "Limit min brightness", "limit_min_brightness"},
    {PTZ_SC_PARAM_LIMIT_MAX_BRIGHTNESS, "Limit max brightness", "limit_max_brightness"},
    {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(PTZSCParam, ptz_sc_param_get_type, sc_param_rows)

constexpr GEnumValue driver_state_rows[] = {
    {PTZ_DRIVER_STATE_UNKNOWN, "unknown", "unknown driver state"},
    {PTZ_DRIVER_STATE_RUN, "run", "driver is running"},
    {PTZ_DRIVER_STATE_WARMING_UP, "warming up", "driver is warming up"},
    {PTZ_DRIVER_STATE_COOLING_DOWN, "cooling down", "driver is cooling down"},
    {PTZ_DRIVER_STATE_INIT, "init", "driver is initiating"},
    {PTZ_DRIVER_STATE_UPGRADING, "upgrading", "driver is upgrading"},
    {PTZ_DRIVER_STATE_DOWN, "down", "driver is down"},
    {PTZ_DRIVER_STATE_NOT_FUNCTIONAL, "not functional", "driver is not functional"},
    {PTZ_DRIVER_STATE_RECALIBRATING, "recalibrating", "Automatic Pan/Tilt calibration"},
    {PTZ_DRIVER_STATE_WAITING_FOR_POWER, "waiting for power", "driver is waiting for power allocation"},
    {0, nullptr, nullptr}};
DEFINE_ENUM_TYPE(PTZDriverState, ptz_driver_state_get_type, driver_state_rows)
