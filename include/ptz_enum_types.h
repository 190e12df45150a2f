/* ptz_enum_types.h - the vocabulary of the framework: commands, moves, port settings, status cache, driver states.
 *
 * Each type is registered with GObject, on the first call of its function, under the name of its typedef, so that its
 * values can be turned into text and back with g_enum_get_value(), g_enum_get_value_by_name() and
 * g_enum_get_value_by_nick(). The class lists the values in the order of the enumerators here.
 * What stands beside an enumerator is its name and its nick; a single text is both.
 *
 * The numbers travel in messages, configuration and the status cache, and the texts in logs and configuration keys:
 * both are an interface to other processes, and none is ever renumbered or reworded, however irregular it looks.
 */
#pragma once

#include "ptz_api.h"

G_BEGIN_DECLS

#define PTZ_TYPE_COMMAND (ptz_command_get_type ())
#define PTZ_TYPE_SOCKET_COMMAND (ptz_socket_command_get_type ())
#define PTZ_TYPE_PROTOCOL_VERSION (ptz_protocol_version_get_type ())
#define PTZ_TYPE_MOVE (ptz_move_get_type ())
#define PTZ_TYPE_MOVE_STATUS (ptz_move_status_get_type ())
#define PTZ_TYPE_MOVE_CMD (ptz_move_cmd_get_type ())
#define PTZ_TYPE_ENABLE (ptz_enable_get_type ())
#define PTZ_TYPE_AUTO_ENABLE (ptz_auto_enable_get_type ())
#define PTZ_TYPE_CONTROL (ptz_control_get_type ())
#define PTZ_TYPE_QUERY (ptz_query_get_type ())
#define PTZ_TYPE_ANGLE (ptz_angle_get_type ())
#define PTZ_TYPE_OSD_MENU (ptz_osd_menu_get_type ())
#define PTZ_TYPE_DRIVER_STATUS (ptz_driver_status_get_type ())
#define PTZ_TYPE_SPACE (ptz_space_get_type ())
#define PTZ_TYPE_PARAMETER (ptz_parameter_get_type ())
#define PTZ_TYPE_PARAMETER_GROUP (ptz_parameter_group_get_type ())
#define PTZ_TYPE_PORT_MODE (ptz_port_mode_get_type ())
#define PTZ_TYPE_BAUD_RATE (ptz_baud_rate_get_type ())
#define PTZ_TYPE_DATA_BITS (ptz_data_bits_get_type ())
#define PTZ_TYPE_STOP_BITS (ptz_stop_bits_get_type ())
#define PTZ_TYPE_PARITY (ptz_parity_get_type ())
#define PTZ_TYPE_PORT_TYPE (ptz_port_type_get_type ())
#define PTZ_TYPE_SC_GROUP (ptz_sc_group_get_type ())
#define PTZ_TYPE_SC_PARAM (ptz_sc_param_get_type ())
#define PTZ_TYPE_DRIVER_STATE (ptz_driver_state_get_type ())

/**
 * PTZCommand:
 * @PTZ_COMMAND_ERROR_REPLY: "Error reply", nick "error reply"
 * @PTZ_COMMAND_SET_PRESET: "Set preset", nick "set preset"
 * @PTZ_COMMAND_SET_DEVICE_PRESET: "Set device preset", nick "set device preset"
 * @PTZ_COMMAND_GET_DEVICE_PRESETS: "Get device presets", nick "get device presets"
 * @PTZ_COMMAND_GOTO_PRESET: "Goto preset", nick "goto preset"
 * @PTZ_COMMAND_GOTO_DEVICE_PRESET: "Goto device preset", nick "goto device preset"
 * @PTZ_COMMAND_MOVE: "Move", nick "move"
 * @PTZ_COMMAND_STOP: "Stop", nick "stop"
 * @PTZ_COMMAND_FIELD_ANGLES: "Field angles", nick "field angles"
 * @PTZ_COMMAND_UNREGISTER: "Unregister", nick "unregister"
 * @PTZ_COMMAND_AUXILIARY: "Auxiliary", nick "auxiliary"
 * @PTZ_COMMAND_GET_AUXILIARY: "Get auxiliary", nick "get auxiliary"
 * @PTZ_COMMAND_OSD_MENU: "OSD Menu", nick "osd menu"
 * @PTZ_COMMAND_QUERY_SPEED: "Query speed", nick "query speed"
 * @PTZ_COMMAND_QUERY_POSITION: "Query position", nick "query position"
 * @PTZ_COMMAND_QUERY_ZOOMDELIM: "Query zoomdelim", nick "query zoom delimitations"
 * @PTZ_COMMAND_CHANGE_PORT: "Change port", nick "change port"
 * @PTZ_COMMAND_MOVE_COMMAND: "Move command", nick "move command"
 * @PTZ_COMMAND_AREA_ZOOM: "Area zoom", nick "area zoom"
 * @PTZ_COMMAND_IMAGE: "Image", nick "image"
 * @PTZ_COMMAND_DEFAULT_HOME_PRESET: "Default home preset", nick "default home preset"
 * @PTZ_COMMAND_QUERY_LIMIT_RANGES: "Query limit ranges", nick "query limit ranges"
 * @PTZ_COMMAND_GET_DRIVER_NAME: "Get driver name", nick "get driver name"
 * @PTZ_COMMAND_GET_DEVICE_TYPES: "Get device types", nick "get device types"
 * @PTZ_COMMAND_GET_CAPABILITIES: "Get capabilities", nick "get capabilities"
 * @PTZ_COMMAND_SET_CAPABILITIES: "Set capabilities", nick "set capabilities"
 * @PTZ_COMMAND_GET_DRIVER_PROPERTY: "Get driver property", nick "set driver property"
 * @PTZ_COMMAND_GET_PRESET_POSITION: "Get preset position", nick "get preset position"
 * @PTZ_COMMAND_QUERY_ATTRIBUTES: "Query attributes", nick "query attributes"
 * @PTZ_COMMAND_GET_DRIVER_PARAMETERS: "Get driver parameters", nick "get driver parameters"
 * @PTZ_COMMAND_END_OF_RECORD: "End of record"; the end marker, not a command
 *
 * The commands that the daemon and the drivers exchange. 29 to 31 are not in use. The row of 25 is irregular: its name
 * says "Get" and its nick "set".
 */
typedef enum {
  PTZ_COMMAND_ERROR_REPLY = -1,
  PTZ_COMMAND_SET_PRESET = 0,
  PTZ_COMMAND_SET_DEVICE_PRESET = 1,
  PTZ_COMMAND_GET_DEVICE_PRESETS = 2,
  PTZ_COMMAND_GOTO_PRESET = 3,
  PTZ_COMMAND_GOTO_DEVICE_PRESET = 4,
  PTZ_COMMAND_MOVE = 5,
  PTZ_COMMAND_STOP = 6,
  PTZ_COMMAND_FIELD_ANGLES = 7,
  PTZ_COMMAND_UNREGISTER = 8,
  PTZ_COMMAND_AUXILIARY = 9,
  PTZ_COMMAND_GET_AUXILIARY = 10,
  PTZ_COMMAND_OSD_MENU = 11,
  PTZ_COMMAND_QUERY_SPEED = 12,
  PTZ_COMMAND_QUERY_POSITION = 13,
  PTZ_COMMAND_QUERY_ZOOMDELIM = 14,
  PTZ_COMMAND_CHANGE_PORT = 15,
  PTZ_COMMAND_MOVE_COMMAND = 16,
  PTZ_COMMAND_AREA_ZOOM = 17,
  PTZ_COMMAND_IMAGE = 18,
  PTZ_COMMAND_DEFAULT_HOME_PRESET = 19,
  PTZ_COMMAND_QUERY_LIMIT_RANGES = 20,
  PTZ_COMMAND_GET_DRIVER_NAME = 21,
  PTZ_COMMAND_GET_DEVICE_TYPES = 22,
  PTZ_COMMAND_GET_CAPABILITIES = 23,
  PTZ_COMMAND_SET_CAPABILITIES = 24,
  PTZ_COMMAND_GET_DRIVER_PROPERTY = 25,
  PTZ_COMMAND_GET_PRESET_POSITION = 26,
  PTZ_COMMAND_QUERY_ATTRIBUTES = 27,
  PTZ_COMMAND_GET_DRIVER_PARAMETERS = 28,
  PTZ_COMMAND_END_OF_RECORD = 32
} PTZCommand;

/**
 * ptz_command_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZCommand"
 */
PTZ_API GType ptz_command_get_type (void);

/**
 * SocketCommand:
 * @PTZ_SOCKET_COMMAND_SOCKET_COMMAND_QUEUE: "Socket command queue", nick "socket command queue"
 * @PTZ_SOCKET_COMMAND_SOCKET_COMMAND_LAST: "Socket command last", nick "socket command last"
 *
 * The commands of the sockets themselves. They continue above #PTZCommand: 32 is also the end marker there.
 */
typedef enum {
  PTZ_SOCKET_COMMAND_SOCKET_COMMAND_QUEUE = 32,
  PTZ_SOCKET_COMMAND_SOCKET_COMMAND_LAST = 33
} SocketCommand;

/**
 * ptz_socket_command_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "SocketCommand"
 */
PTZ_API GType ptz_socket_command_get_type (void);

/**
 * ProtocolVersion:
 * @PTZ_PROTOCOL_VERSION_PROTOCOL_VERSION_1: "Protocol version 1", nick "protocol version 1"
 * @PTZ_PROTOCOL_VERSION_PROTOCOL_VERSION_LAST: "Protocol version last", nick "protocol version last"
 *
 * The versions of the protocol between daemon and driver.
 */
typedef enum {
  PTZ_PROTOCOL_VERSION_PROTOCOL_VERSION_1 = 0,
  PTZ_PROTOCOL_VERSION_PROTOCOL_VERSION_LAST = 1
} ProtocolVersion;

/**
 * ptz_protocol_version_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "ProtocolVersion"
 */
PTZ_API GType ptz_protocol_version_get_type (void);

/**
 * PTZMove:
 * @PTZ_MOVE_NONE: "None", nick "none"
 * @PTZ_MOVE_ABSOLUTE: "Absolute", nick "absolute"
 * @PTZ_MOVE_RELATIVE: "Relative", nick "relative"
 * @PTZ_MOVE_CONTINUOUS: "Continuous", nick "continuous"
 *
 * The kind of a movement.
 */
typedef enum {
  PTZ_MOVE_NONE = 0,
  PTZ_MOVE_ABSOLUTE = 1,
  PTZ_MOVE_RELATIVE = 2,
  PTZ_MOVE_CONTINUOUS = 3
} PTZMove;

/**
 * ptz_move_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZMove"
 */
PTZ_API GType ptz_move_get_type (void);

/**
 * PTZMoveStatus:
 * @PTZ_MOVE_STATUS_INVALID: "Invalid", nick "invalid"
 * @PTZ_MOVE_STATUS_IDLE: "Idle", nick "idle"
 * @PTZ_MOVE_STATUS_MOVING: "Moving", nick "moving"
 * @PTZ_MOVE_STATUS_UNKNOWN: "Unknown", nick "unknown"
 *
 * Whether an axis is moving.
 */
typedef enum {
  PTZ_MOVE_STATUS_INVALID = -1,
  PTZ_MOVE_STATUS_IDLE = 0,
  PTZ_MOVE_STATUS_MOVING = 1,
  PTZ_MOVE_STATUS_UNKNOWN = 2
} PTZMoveStatus;

/**
 * ptz_move_status_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZMoveStatus"
 */
PTZ_API GType ptz_move_status_get_type (void);

/**
 * PTZMoveCmd:
 * @PTZ_MOVE_CMD_HOME: "Home", nick "home"
 * @PTZ_MOVE_CMD_UP: "Up", nick "up"
 * @PTZ_MOVE_CMD_DOWN: "Down", nick "down"
 * @PTZ_MOVE_CMD_LEFT: "Left", nick "left"
 * @PTZ_MOVE_CMD_RIGHT: "Right", nick "right"
 * @PTZ_MOVE_CMD_UP_LEFT: "Up left", nick "up left"
 * @PTZ_MOVE_CMD_UP_RIGHT: "Up right", nick "up right"
 * @PTZ_MOVE_CMD_DOWN_LEFT: "Down left", nick "down left"
 * @PTZ_MOVE_CMD_DOWN_RIGHT: "Down right", nick "down right"
 * @PTZ_MOVE_CMD_STOP: "Stop", nick "stop"
 *
 * The direction of a move command. The class lists "Home" first, although its value is 8.
 */
typedef enum {
  PTZ_MOVE_CMD_HOME = 8,
  PTZ_MOVE_CMD_UP = 0,
  PTZ_MOVE_CMD_DOWN = 1,
  PTZ_MOVE_CMD_LEFT = 2,
  PTZ_MOVE_CMD_RIGHT = 3,
  PTZ_MOVE_CMD_UP_LEFT = 4,
  PTZ_MOVE_CMD_UP_RIGHT = 5,
  PTZ_MOVE_CMD_DOWN_LEFT = 6,
  PTZ_MOVE_CMD_DOWN_RIGHT = 7,
  PTZ_MOVE_CMD_STOP = 9
} PTZMoveCmd;

/**
 * ptz_move_cmd_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZMoveCmd"
 */
PTZ_API GType ptz_move_cmd_get_type (void);

/**
 * PTZEnable:
 * @PTZ_ENABLE_NONE: "None", nick "none"
 * @PTZ_ENABLE_ON: "On", nick "on"
 * @PTZ_ENABLE_OFF: "Off", nick "off"
 *
 * A switch.
 */
typedef enum {
  PTZ_ENABLE_NONE = 0,
  PTZ_ENABLE_ON = 1,
  PTZ_ENABLE_OFF = 2
} PTZEnable;

/**
 * ptz_enable_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZEnable"
 */
PTZ_API GType ptz_enable_get_type (void);

/**
 * PTZAutoEnable:
 * @PTZ_AUTO_ENABLE_NONE: "None", nick "none"
 * @PTZ_AUTO_ENABLE_ON: "On", nick "on"
 * @PTZ_AUTO_ENABLE_OFF: "Off", nick "off"
 * @PTZ_AUTO_ENABLE_AUTO: "Auto", nick "auto"
 *
 * A switch that the device may also set by itself.
 */
typedef enum {
  PTZ_AUTO_ENABLE_NONE = 0,
  PTZ_AUTO_ENABLE_ON = 1,
  PTZ_AUTO_ENABLE_OFF = 2,
  PTZ_AUTO_ENABLE_AUTO = 3
} PTZAutoEnable;

/**
 * ptz_auto_enable_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZAutoEnable"
 */
PTZ_API GType ptz_auto_enable_get_type (void);

/**
 * PTZControl:
 * @PTZ_CONTROL_REQUEST: "Request", nick "request"
 * @PTZ_CONTROL_QUERY: "Query", nick "query"
 * @PTZ_CONTROL_DROP: "Drop", nick "drop"
 * @PTZ_CONTROL_REQUEST_TAKE_EQUAL: "Request take equal", nick "request take equal"
 * @PTZ_CONTROL_UNKNOWN: "Unknown", nick "unknown"
 *
 * A request for control over a device.
 */
typedef enum {
  PTZ_CONTROL_REQUEST = 0,
  PTZ_CONTROL_QUERY = 1,
  PTZ_CONTROL_DROP = 2,
  PTZ_CONTROL_REQUEST_TAKE_EQUAL = 3,
  PTZ_CONTROL_UNKNOWN = 4
} PTZControl;

/**
 * ptz_control_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZControl"
 */
PTZ_API GType ptz_control_get_type (void);

/**
 * PTZQuery:
 * @PTZ_QUERY_SPEED: "Speed", nick "speed"
 * @PTZ_QUERY_POSITION: "Position", nick "position"
 * @PTZ_QUERY_PRESETPOSCAM: "Presetposcam", nick "presetposcam"
 * @PTZ_QUERY_PRESETPOSALL: "Presetposall", nick "presetposall"
 *
 * What a query asks for.
 */
typedef enum {
  PTZ_QUERY_SPEED = 0,
  PTZ_QUERY_POSITION = 1,
  PTZ_QUERY_PRESETPOSCAM = 2,
  PTZ_QUERY_PRESETPOSALL = 3
} PTZQuery;

/**
 * ptz_query_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZQuery"
 */
PTZ_API GType ptz_query_get_type (void);

/**
 * PTZAngle:
 * @PTZ_ANGLE_HORIZONTAL: "Horizontal", nick "horiz"
 * @PTZ_ANGLE_VERTICAL: "Vertical", nick "vert"
 * @PTZ_ANGLE_BOTH: "Both", nick "both"
 * @PTZ_ANGLE_NONE: "None", nick "none"
 *
 * Which angle of view.
 */
typedef enum {
  PTZ_ANGLE_HORIZONTAL = 0,
  PTZ_ANGLE_VERTICAL = 1,
  PTZ_ANGLE_BOTH = 2,
  PTZ_ANGLE_NONE = 3
} PTZAngle;

/**
 * ptz_angle_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZAngle"
 */
PTZ_API GType ptz_angle_get_type (void);

/**
 * PTZOsdMenu:
 * @PTZ_OSD_MENU_OPEN: "Open", nick "open"
 * @PTZ_OSD_MENU_CLOSE: "Close", nick "close"
 * @PTZ_OSD_MENU_UP: "Up", nick "up"
 * @PTZ_OSD_MENU_DOWN: "Down", nick "down"
 * @PTZ_OSD_MENU_LEFT: "Left", nick "left"
 * @PTZ_OSD_MENU_RIGHT: "Right", nick "right"
 * @PTZ_OSD_MENU_SELECT: "Select", nick "select"
 * @PTZ_OSD_MENU_BACK: "Back", nick "back"
 *
 * An action in the on-screen menu of a device.
 */
typedef enum {
  PTZ_OSD_MENU_OPEN = 0,
  PTZ_OSD_MENU_CLOSE = 1,
  PTZ_OSD_MENU_UP = 2,
  PTZ_OSD_MENU_DOWN = 3,
  PTZ_OSD_MENU_LEFT = 4,
  PTZ_OSD_MENU_RIGHT = 5,
  PTZ_OSD_MENU_SELECT = 6,
  PTZ_OSD_MENU_BACK = 7
} PTZOsdMenu;

/**
 * ptz_osd_menu_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZOsdMenu"
 */
PTZ_API GType ptz_osd_menu_get_type (void);

/**
 * PTZDriverStatus:
 * @PTZ_DRIVER_STATUS_ERROR: "Error", nick "error"
 * @PTZ_DRIVER_STATUS_READY: "Ready", nick "ready"
 * @PTZ_DRIVER_STATUS_WAIT: "Wait", nick "wait"
 * @PTZ_DRIVER_STATUS_ABORT: "Abort", nick "abort"
 *
 * The status of a driver.
 */
typedef enum {
  PTZ_DRIVER_STATUS_ERROR = 0,
  PTZ_DRIVER_STATUS_READY = 1,
  PTZ_DRIVER_STATUS_WAIT = 2,
  PTZ_DRIVER_STATUS_ABORT = 3
} PTZDriverStatus;

/**
 * ptz_driver_status_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZDriverStatus"
 */
PTZ_API GType ptz_driver_status_get_type (void);

/**
 * PTZSpace:
 * @PTZ_SPACE_NONE: "None", nick "none"
 * @PTZ_SPACE_GENERIC: "Generic", nick "generic"
 * @PTZ_SPACE_MECH: "Mech", nick "mech"
 * @PTZ_SPACE_MAG: "Mag", nick "mag"
 *
 * The coordinate space of a position.
 */
typedef enum {
  PTZ_SPACE_NONE = 0,
  PTZ_SPACE_GENERIC = 1,
  PTZ_SPACE_MECH = 2,
  PTZ_SPACE_MAG = 3
} PTZSpace;

/**
 * ptz_space_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZSpace"
 */
PTZ_API GType ptz_space_get_type (void);

/**
 * PTZParameter:
 * @PTZ_PARAMETER_NONE: "None", nick "none"
 * @PTZ_PARAMETER_CONSTANT: "Constant", nick "const"
 * @PTZ_PARAMETER_TEXT: "Text", nick "text"
 * @PTZ_PARAMETER_INTEGER: "Integer", nick "int"
 * @PTZ_PARAMETER_BOOLEAN: "Boolean", nick "bool"
 * @PTZ_PARAMETER_CONSTANTINTEGER: "ConstantInteger", nick "const int"
 * @PTZ_PARAMETER_CONSTANTBOOLEAN: "ConstantBoolean", nick "const bool"
 *
 * The kind of a driver parameter.
 */
typedef enum {
  PTZ_PARAMETER_NONE = 0,
  PTZ_PARAMETER_CONSTANT = 1,
  PTZ_PARAMETER_TEXT = 2,
  PTZ_PARAMETER_INTEGER = 3,
  PTZ_PARAMETER_BOOLEAN = 4,
  PTZ_PARAMETER_CONSTANTINTEGER = 5,
  PTZ_PARAMETER_CONSTANTBOOLEAN = 6
} PTZParameter;

/**
 * ptz_parameter_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZParameter"
 */
PTZ_API GType ptz_parameter_get_type (void);

/**
 * PTZParameterGroup:
 * @PTZ_PARAMETER_GROUP_NONE: "None", nick "none"
 * @PTZ_PARAMETER_GROUP_GENERAL: "General", nick "general"
 * @PTZ_PARAMETER_GROUP_SERIAL: "Serial", nick "serial"
 * @PTZ_PARAMETER_GROUP_SUPPORT: "Support", nick "support"
 * @PTZ_PARAMETER_GROUP_LIMIT: "Limit", nick "limit"
 * @PTZ_PARAMETER_GROUP_VARIOUS: "Various", nick "various"
 * @PTZ_PARAMETER_GROUP_USER_BASIC: "User basic", nick "usr_bas"
 * @PTZ_PARAMETER_GROUP_USER_ADVANCED: "User advanced", nick "usr_adv"
 * @PTZ_PARAMETER_GROUP_IMAGE_SOURCE: "Image Source", nick "img_src"
 * @PTZ_PARAMETER_GROUP_AUX_BUTTON: "Aux button", nick "aux_btn"
 *
 * The group of a driver parameter.
 */
typedef enum {
  PTZ_PARAMETER_GROUP_NONE = 0,
  PTZ_PARAMETER_GROUP_GENERAL = 1,
  PTZ_PARAMETER_GROUP_SERIAL = 2,
  PTZ_PARAMETER_GROUP_SUPPORT = 3,
  PTZ_PARAMETER_GROUP_LIMIT = 4,
  PTZ_PARAMETER_GROUP_VARIOUS = 5,
  PTZ_PARAMETER_GROUP_USER_BASIC = 6,
  PTZ_PARAMETER_GROUP_USER_ADVANCED = 7,
  PTZ_PARAMETER_GROUP_IMAGE_SOURCE = 8,
  PTZ_PARAMETER_GROUP_AUX_BUTTON = 9
} PTZParameterGroup;

/**
 * ptz_parameter_group_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZParameterGroup"
 */
PTZ_API GType ptz_parameter_group_get_type (void);

/**
 * PTZPortMode:
 * @PTZ_PORT_MODE_OFF: "OFF", nick "Off"
 * @PTZ_PORT_MODE_RS485: "RS485", nick "RS485_2_wire"
 * @PTZ_PORT_MODE_RS485_4: "RS485_4", nick "RS485_4_wire"
 * @PTZ_PORT_MODE_RS422: "RS422", nick "RS422_2_4_wire"
 * @PTZ_PORT_MODE_RS232: "RS232"
 * @PTZ_PORT_MODE_COAX: "COAX", nick "Coaxitron"
 *
 * The electrical mode of a port.
 */
typedef enum {
  PTZ_PORT_MODE_OFF = 0,
  PTZ_PORT_MODE_RS485 = 1,
  PTZ_PORT_MODE_RS485_4 = 2,
  PTZ_PORT_MODE_RS422 = 3,
  PTZ_PORT_MODE_RS232 = 4,
  PTZ_PORT_MODE_COAX = 5
} PTZPortMode;

/**
 * ptz_port_mode_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZPortMode"
 */
PTZ_API GType ptz_port_mode_get_type (void);

/**
 * PTZBaudRate:
 * @PTZ_BAUD_RATE_300: "300"
 * @PTZ_BAUD_RATE_600: "600"
 * @PTZ_BAUD_RATE_1200: "1200"
 * @PTZ_BAUD_RATE_2400: "2400"
 * @PTZ_BAUD_RATE_4800: "4800"
 * @PTZ_BAUD_RATE_9600: "9600"
 * @PTZ_BAUD_RATE_19200: "19200"
 * @PTZ_BAUD_RATE_38400: "38400"
 * @PTZ_BAUD_RATE_57600: "57600"
 * @PTZ_BAUD_RATE_115200: "115200"
 * @PTZ_BAUD_RATE_230400: "230400"
 * @PTZ_BAUD_RATE_460800: "460800"
 *
 * The speed of a serial port. The value is the rate itself.
 */
typedef enum {
  PTZ_BAUD_RATE_300 = 300,
  PTZ_BAUD_RATE_600 = 600,
  PTZ_BAUD_RATE_1200 = 1200,
  PTZ_BAUD_RATE_2400 = 2400,
  PTZ_BAUD_RATE_4800 = 4800,
  PTZ_BAUD_RATE_9600 = 9600,
  PTZ_BAUD_RATE_19200 = 19200,
  PTZ_BAUD_RATE_38400 = 38400,
  PTZ_BAUD_RATE_57600 = 57600,
  PTZ_BAUD_RATE_115200 = 115200,
  PTZ_BAUD_RATE_230400 = 230400,
  PTZ_BAUD_RATE_460800 = 460800
} PTZBaudRate;

/**
 * ptz_baud_rate_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZBaudRate"
 */
PTZ_API GType ptz_baud_rate_get_type (void);

/**
 * PTZDataBits:
 * @PTZ_DATA_BITS_7: "7"
 * @PTZ_DATA_BITS_8: "8"
 *
 * The data bits of a serial port.
 */
typedef enum {
  PTZ_DATA_BITS_7 = 7,
  PTZ_DATA_BITS_8 = 8
} PTZDataBits;

/**
 * ptz_data_bits_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZDataBits"
 */
PTZ_API GType ptz_data_bits_get_type (void);

/**
 * PTZStopBits:
 * @PTZ_STOP_BITS_1: "1"
 * @PTZ_STOP_BITS_2: "2"
 *
 * The stop bits of a serial port.
 */
typedef enum {
  PTZ_STOP_BITS_1 = 1,
  PTZ_STOP_BITS_2 = 2
} PTZStopBits;

/**
 * ptz_stop_bits_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZStopBits"
 */
PTZ_API GType ptz_stop_bits_get_type (void);

/**
 * PTZParity:
 * @PTZ_PARITY_NONE: "None", nick "none"
 * @PTZ_PARITY_EVEN: "Even", nick "even"
 * @PTZ_PARITY_ODD: "Odd", nick "odd"
 * @PTZ_PARITY_MARK: "Mark", nick "mark"
 * @PTZ_PARITY_SPACE: "Space", nick "space"
 *
 * The parity of a serial port.
 */
typedef enum {
  PTZ_PARITY_NONE = 0,
  PTZ_PARITY_EVEN = 1,
  PTZ_PARITY_ODD = 2,
  PTZ_PARITY_MARK = 3,
  PTZ_PARITY_SPACE = 4
} PTZParity;

/**
 * ptz_parity_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZParity"
 */
PTZ_API GType ptz_parity_get_type (void);

/**
 * PTZPortType:
 * @PTZ_PORT_TYPE_SERIAL: "serial"
 * @PTZ_PORT_TYPE_REMOTEPORT: "remoteport", nick "remote"
 * @PTZ_PORT_TYPE_COAX_PTZ_CONTROL: "coax_ptz_control"
 *
 * The kind of port that a device is reached through.
 */
typedef enum {
  PTZ_PORT_TYPE_SERIAL = 0,
  PTZ_PORT_TYPE_REMOTEPORT = 1,
  PTZ_PORT_TYPE_COAX_PTZ_CONTROL = 2
} PTZPortType;

/**
 * ptz_port_type_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZPortType"
 */
PTZ_API GType ptz_port_type_get_type (void);

/**
 * PTZSCGroup:
 * @PTZ_SC_GROUP_POSITION: "Position", nick "position"
 * @PTZ_SC_GROUP_PRESET: "Preset", nick "preset"
 * @PTZ_SC_GROUP_VARIOUS: "Various", nick "various"
 * @PTZ_SC_GROUP_LIMIT: "Limit", nick "limit"
 *
 * A group of the status cache.
 */
typedef enum {
  PTZ_SC_GROUP_POSITION = 0,
  PTZ_SC_GROUP_PRESET = 1,
  PTZ_SC_GROUP_VARIOUS = 2,
  PTZ_SC_GROUP_LIMIT = 3
} PTZSCGroup;

/**
 * ptz_sc_group_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZSCGroup"
 */
PTZ_API GType ptz_sc_group_get_type (void);

/**
 * PTZSCParam:
 * @PTZ_SC_PARAM_POSITION_PAN: "Position pan", nick "position_pan"
 * @PTZ_SC_PARAM_POSITION_TILT: "Position tilt", nick "position_tilt"
 * @PTZ_SC_PARAM_POSITION_PAN_MECH: "Position pan mech", nick "position_pan_mech"
 * @PTZ_SC_PARAM_POSITION_TILT_MECH: "Position tilt mech", nick "position_tilt_mech"
 * @PTZ_SC_PARAM_POSITION_PAN_FIXED: "Position pan fixed", nick "position_fixed_pan"
 * @PTZ_SC_PARAM_POSITION_TILT_FIXED: "Position tilt fixed", nick "position_fixed_tilt"
 * @PTZ_SC_PARAM_POSITION_MZOOM: "Position mzoom", nick "position_mzoom"
 * @PTZ_SC_PARAM_POSITION_VZOOM: "Position vzoom", nick "position_vzoom"
 * @PTZ_SC_PARAM_POSITION_HFOV: "Position hfov", nick "position_hfov"
 * @PTZ_SC_PARAM_POSITION_VFOV: "Position vfov", nick "position_vfov"
 * @PTZ_SC_PARAM_POSITION_MASK_HFOV: "Position mask hfov", nick "position_maskhfov"
 * @PTZ_SC_PARAM_POSITION_MASK_VFOV: "Position mask vfov", nick "position_maskvfov"
 * @PTZ_SC_PARAM_POSITION_IRIS: "Position iris", nick "position_iris"
 * @PTZ_SC_PARAM_POSITION_FOCUS: "Position focus", nick "position focus"
 * @PTZ_SC_PARAM_POSITION_BRIGHTNESS: "Position brightness", nick "position_brightness"
 * @PTZ_SC_PARAM_POSITION_PAN_STATUS: "Position pan status", nick "position_pan_status"
 * @PTZ_SC_PARAM_POSITION_TILT_STATUS: "Position tilt status", nick "position_tilt_status"
 * @PTZ_SC_PARAM_POSITION_ZOOM_STATUS: "Position zoom status", nick "position_zoom_status"
 * @PTZ_SC_PARAM_POSITION_IRIS_STATUS: "Position iris status", nick "position_iris_status"
 * @PTZ_SC_PARAM_POSITION_FOCUS_STATUS: "Position focus status", nick "position_focus_status"
 * @PTZ_SC_PARAM_POSITION_BRIGHTNESS_STATUS: "Position brightness status", nick "position_brightness_status"
 * @PTZ_SC_PARAM_POSITION_UPDATE_RATE: "Position update rate", nick "position_update_rate"
 * @PTZ_SC_PARAM_POSITION_TIME_VAL: "Position time val", nick "position_time_val"
 * @PTZ_SC_PARAM_POSITION_PAN_STATUS_IDLE_TIME: "Position pan status idle time", nick "position_pan_status_idle_time"
 * @PTZ_SC_PARAM_POSITION_PAN_STATUS_MOVING_TIME: "Position pan status moving time",
 *   nick "position_pan_status_moving_time"
 * @PTZ_SC_PARAM_POSITION_TILT_STATUS_IDLE_TIME: "Position tilt status idle time", nick "position_tilt_status_idle_time"
 * @PTZ_SC_PARAM_POSITION_TILT_STATUS_MOVING_TIME: "Position tilt status moving time",
 *   nick "position_tilt_status_moving_time"
 * @PTZ_SC_PARAM_POSITION_ZOOM_STATUS_IDLE_TIME: "Position zoom status idle time", nick "position_zoom_status_idle_time"
 * @PTZ_SC_PARAM_POSITION_ZOOM_STATUS_MOVING_TIME: "Position zoom status moving time",
 *   nick "position_zoom_status_moving_time"
 * @PTZ_SC_PARAM_POSITION_FOCUS_STATUS_IDLE_TIME: "Position focus status idle time",
 *   nick "position_focus_status_idle_time"
 * @PTZ_SC_PARAM_POSITION_FOCUS_STATUS_MOVING_TIME: "Position focus status moving time",
 *   nick "position_focus_status_moving_time"
 * @PTZ_SC_PARAM_POSITION_IRIS_STATUS_IDLE_TIME: "Position iris status idle time", nick "position_iris_status_idle_time"
 * @PTZ_SC_PARAM_POSITION_IRIS_STATUS_MOVING_TIME: "Position iris status moving time",
 *   nick "position_iris_status_moving_time"
 * @PTZ_SC_PARAM_POSITION_BRIGHT_STATUS_IDLE_TIME: "Position bright status idle time",
 *   nick "position_bright_status_idle_time"
 * @PTZ_SC_PARAM_POSITION_BRIGHT_STATUS_MOVING_TIME: "Position bright status moving time",
 *   nick "position_bright_status_moving_time"
 * @PTZ_SC_PARAM_POSITION_GM_PAN_STATUS_IDLE_TIME: "Position gm pan status idle time",
 *   nick "position_gm_pan_status_idle_time"
 * @PTZ_SC_PARAM_POSITION_GM_PAN_STATUS_MOVING_TIME: "Position gm pan status moving time",
 *   nick "position_gm_pan_status_moving_time"
 * @PTZ_SC_PARAM_POSITION_GM_TILT_STATUS_IDLE_TIME: "Position gm tilt status idle time",
 *   nick "position_gm_tilt_status_idle_time"
 * @PTZ_SC_PARAM_POSITION_GM_TILT_STATUS_MOVING_TIME: "Position gm tilt status moving time",
 *   nick "position_gm_tilt_status_moving_time"
 * @PTZ_SC_PARAM_POSITION_GM_ZOOM_STATUS_IDLE_TIME: "Position gm zoom status idle time",
 *   nick "position_gm_zoom_status_idle_time"
 * @PTZ_SC_PARAM_POSITION_GM_ZOOM_STATUS_MOVING_TIME: "Position gm zoom status moving time",
 *   nick "position_gm_zoom_status_moving_time"
 * @PTZ_SC_PARAM_POSITION_GM_FOCUS_STATUS_IDLE_TIME: "Position gm focus status idle time",
 *   nick "position_gm_focus_status_idle_time"
 * @PTZ_SC_PARAM_POSITION_GM_FOCUS_STATUS_MOVING_TIME: "Position gm focus status moving time",
 *   nick "position_gm_focus_status_moving_time"
 * @PTZ_SC_PARAM_POSITION_GM_IRIS_STATUS_IDLE_TIME: "Position gm iris status idle time",
 *   nick "position_gm_iris_status_idle_time"
 * @PTZ_SC_PARAM_POSITION_GM_IRIS_STATUS_MOVING_TIME: "Position gm iris status moving time",
 *   nick "position_gm_iris_status_moving_time"
 * @PTZ_SC_PARAM_POSITION_GM_BRIGHT_STATUS_IDLE_TIME: "Position gm bright status idle time",
 *   nick "position_gm_bright_status_idle_time"
 * @PTZ_SC_PARAM_POSITION_GM_BRIGHT_STATUS_MOVING_TIME: "Position gm bright status moving time",
 *   nick "position_gm_bright_status_moving_time"
 * @PTZ_SC_PARAM_PRESET_NAME: "Preset name", nick "preset_name"
 * @PTZ_SC_PARAM_PRESET_SIZE: "Preset size", nick "preset_size"
 * @PTZ_SC_PARAM_VARIOUS_PAN_FLIPPED: "Various pan flipped", nick "various_pan_flipped"
 * @PTZ_SC_PARAM_VARIOUS_TILT_FLIPPED: "Various tilt flipped", nick "various_tilt_flipped"
 * @PTZ_SC_PARAM_VARIOUS_CAM_FLIPPED: "Various cam flipped", nick "various_cam_flipped"
 * @PTZ_SC_PARAM_VARIOUS_AUTO_FLIPPING: "Various auto flipping", nick "various_auto_flipping"
 * @PTZ_SC_PARAM_VARIOUS_PT_PRESET_MOVE: "Various pt preset move", nick "various_pt_preset_move"
 * @PTZ_SC_PARAM_VARIOUS_AUTO_FOCUS: "Various auto focus", nick "various_auto_focus"
 * @PTZ_SC_PARAM_VARIOUS_AUTO_IRIS: "Various auto iris", nick "various_auto_iris"
 * @PTZ_SC_PARAM_VARIOUS_BACKLIGHT_COMPENSATION: "Various backlight compensation", nick "various_backlight_comp"
 * @PTZ_SC_PARAM_VARIOUS_IR_CUT_FILTER: "Various ir cut filter", nick "various_ir_cut_filter"
 * @PTZ_SC_PARAM_LIMIT_MIN_PAN: "Limit min pan", nick "limit_min_pan"
 * @PTZ_SC_PARAM_LIMIT_MAX_PAN: "Limit max pan", nick "limit_max_pan"
 * @PTZ_SC_PARAM_LIMIT_MIN_TILT: "Limit min tilt", nick "limit_min_tilt"
 * @PTZ_SC_PARAM_LIMIT_MAX_TILT: "Limit max tilt", nick "limit_max_tilt"
 * @PTZ_SC_PARAM_LIMIT_MIN_ZOOM: "Limit min zoom", nick "limit_min_zoom"
 * @PTZ_SC_PARAM_LIMIT_MAX_ZOOM: "Limit max zoom", nick "limit_max_zoom"
 * @PTZ_SC_PARAM_LIMIT_MIN_IRIS: "Limit min iris", nick "limit_min_iris"
 * @PTZ_SC_PARAM_LIMIT_MAX_IRIS: "Limit max iris", nick "limit_max_iris"
 * @PTZ_SC_PARAM_LIMIT_MIN_FOCUS: "Limit min focus", nick "limit_min_focus"
 * @PTZ_SC_PARAM_LIMIT_MAX_FOCUS: "Limit max focus", nick "limit_max_focus"
 * @PTZ_SC_PARAM_LIMIT_MIN_ANGLE: "Limit min angle", nick "limit_min_angle"
 * @PTZ_SC_PARAM_LIMIT_MAX_ANGLE: "Limit max angle", nick "limit_max_angle"
 * @PTZ_SC_PARAM_LIMIT_MIN_BRIGHTNESS: "Limit min brightness", nick "limit_min_brightness"
 * @PTZ_SC_PARAM_LIMIT_MAX_BRIGHTNESS: "Limit max brightness", nick "limit_max_brightness"
 *
 * A parameter of the status cache. 58 is not in use. The class lists the focus times (31, 32 and 43, 44) before the
 * iris times (29, 30 and 41, 42).
 */
typedef enum {
  PTZ_SC_PARAM_POSITION_PAN = 0,
  PTZ_SC_PARAM_POSITION_TILT = 1,
  PTZ_SC_PARAM_POSITION_PAN_MECH = 2,
  PTZ_SC_PARAM_POSITION_TILT_MECH = 3,
  PTZ_SC_PARAM_POSITION_PAN_FIXED = 4,
  PTZ_SC_PARAM_POSITION_TILT_FIXED = 5,
  PTZ_SC_PARAM_POSITION_MZOOM = 6,
  PTZ_SC_PARAM_POSITION_VZOOM = 7,
  PTZ_SC_PARAM_POSITION_HFOV = 8,
  PTZ_SC_PARAM_POSITION_VFOV = 9,
  PTZ_SC_PARAM_POSITION_MASK_HFOV = 10,
  PTZ_SC_PARAM_POSITION_MASK_VFOV = 11,
  PTZ_SC_PARAM_POSITION_IRIS = 12,
  PTZ_SC_PARAM_POSITION_FOCUS = 13,
  PTZ_SC_PARAM_POSITION_BRIGHTNESS = 14,
  PTZ_SC_PARAM_POSITION_PAN_STATUS = 15,
  PTZ_SC_PARAM_POSITION_TILT_STATUS = 16,
  PTZ_SC_PARAM_POSITION_ZOOM_STATUS = 17,
  PTZ_SC_PARAM_POSITION_IRIS_STATUS = 18,
  PTZ_SC_PARAM_POSITION_FOCUS_STATUS = 19,
  PTZ_SC_PARAM_POSITION_BRIGHTNESS_STATUS = 20,
  PTZ_SC_PARAM_POSITION_UPDATE_RATE = 21,
  PTZ_SC_PARAM_POSITION_TIME_VAL = 22,
  PTZ_SC_PARAM_POSITION_PAN_STATUS_IDLE_TIME = 23,
  PTZ_SC_PARAM_POSITION_PAN_STATUS_MOVING_TIME = 24,
  PTZ_SC_PARAM_POSITION_TILT_STATUS_IDLE_TIME = 25,
  PTZ_SC_PARAM_POSITION_TILT_STATUS_MOVING_TIME = 26,
  PTZ_SC_PARAM_POSITION_ZOOM_STATUS_IDLE_TIME = 27,
  PTZ_SC_PARAM_POSITION_ZOOM_STATUS_MOVING_TIME = 28,
  PTZ_SC_PARAM_POSITION_FOCUS_STATUS_IDLE_TIME = 31,
  PTZ_SC_PARAM_POSITION_FOCUS_STATUS_MOVING_TIME = 32,
  PTZ_SC_PARAM_POSITION_IRIS_STATUS_IDLE_TIME = 29,
  PTZ_SC_PARAM_POSITION_IRIS_STATUS_MOVING_TIME = 30,
  PTZ_SC_PARAM_POSITION_BRIGHT_STATUS_IDLE_TIME = 33,
  PTZ_SC_PARAM_POSITION_BRIGHT_STATUS_MOVING_TIME = 34,
  PTZ_SC_PARAM_POSITION_GM_PAN_STATUS_IDLE_TIME = 35,
  PTZ_SC_PARAM_POSITION_GM_PAN_STATUS_MOVING_TIME = 36,
  PTZ_SC_PARAM_POSITION_GM_TILT_STATUS_IDLE_TIME = 37,
  PTZ_SC_PARAM_POSITION_GM_TILT_STATUS_MOVING_TIME = 38,
  PTZ_SC_PARAM_POSITION_GM_ZOOM_STATUS_IDLE_TIME = 39,
  PTZ_SC_PARAM_POSITION_GM_ZOOM_STATUS_MOVING_TIME = 40,
  PTZ_SC_PARAM_POSITION_GM_FOCUS_STATUS_IDLE_TIME = 43,
  PTZ_SC_PARAM_POSITION_GM_FOCUS_STATUS_MOVING_TIME = 44,
  PTZ_SC_PARAM_POSITION_GM_IRIS_STATUS_IDLE_TIME = 41,
  PTZ_SC_PARAM_POSITION_GM_IRIS_STATUS_MOVING_TIME = 42,
  PTZ_SC_PARAM_POSITION_GM_BRIGHT_STATUS_IDLE_TIME = 45,
  PTZ_SC_PARAM_POSITION_GM_BRIGHT_STATUS_MOVING_TIME = 46,
  PTZ_SC_PARAM_PRESET_NAME = 47,
  PTZ_SC_PARAM_PRESET_SIZE = 48,
  PTZ_SC_PARAM_VARIOUS_PAN_FLIPPED = 49,
  PTZ_SC_PARAM_VARIOUS_TILT_FLIPPED = 50,
  PTZ_SC_PARAM_VARIOUS_CAM_FLIPPED = 51,
  PTZ_SC_PARAM_VARIOUS_AUTO_FLIPPING = 52,
  PTZ_SC_PARAM_VARIOUS_PT_PRESET_MOVE = 53,
  PTZ_SC_PARAM_VARIOUS_AUTO_FOCUS = 54,
  PTZ_SC_PARAM_VARIOUS_AUTO_IRIS = 55,
  PTZ_SC_PARAM_VARIOUS_BACKLIGHT_COMPENSATION = 56,
  PTZ_SC_PARAM_VARIOUS_IR_CUT_FILTER = 57,
  PTZ_SC_PARAM_LIMIT_MIN_PAN = 59,
  PTZ_SC_PARAM_LIMIT_MAX_PAN = 60,
  PTZ_SC_PARAM_LIMIT_MIN_TILT = 61,
  PTZ_SC_PARAM_LIMIT_MAX_TILT = 62,
  PTZ_SC_PARAM_LIMIT_MIN_ZOOM = 63,
  PTZ_SC_PARAM_LIMIT_MAX_ZOOM = 64,
  PTZ_SC_PARAM_LIMIT_MIN_IRIS = 65,
  PTZ_SC_PARAM_LIMIT_MAX_IRIS = 66,
  PTZ_SC_PARAM_LIMIT_MIN_FOCUS = 67,
  PTZ_SC_PARAM_LIMIT_MAX_FOCUS = 68,
  PTZ_SC_PARAM_LIMIT_MIN_ANGLE = 69,
  PTZ_SC_PARAM_LIMIT_MAX_ANGLE = 70,
  PTZ_SC_PARAM_LIMIT_MIN_BRIGHTNESS = 71,
  PTZ_SC_PARAM_LIMIT_MAX_BRIGHTNESS = 72
} PTZSCParam;

/**
 * ptz_sc_param_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZSCParam"
 */
PTZ_API GType ptz_sc_param_get_type (void);

/**
 * PTZDriverState:
 * @PTZ_DRIVER_STATE_UNKNOWN: "unknown", nick "unknown driver state"
 * @PTZ_DRIVER_STATE_RUN: "run", nick "driver is running"
 * @PTZ_DRIVER_STATE_WARMING_UP: "warming up", nick "driver is warming up"
 * @PTZ_DRIVER_STATE_COOLING_DOWN: "cooling down", nick "driver is cooling down"
 * @PTZ_DRIVER_STATE_INIT: "init", nick "driver is initiating"
 * @PTZ_DRIVER_STATE_UPGRADING: "upgrading", nick "driver is upgrading"
 * @PTZ_DRIVER_STATE_DOWN: "down", nick "driver is down"
 * @PTZ_DRIVER_STATE_NOT_FUNCTIONAL: "not functional", nick "driver is not functional"
 * @PTZ_DRIVER_STATE_RECALIBRATING: "recalibrating", nick "Automatic Pan/Tilt calibration"
 * @PTZ_DRIVER_STATE_WAITING_FOR_POWER: "waiting for power", nick "driver is waiting for power allocation"
 *
 * The life state of a driver. Here the name is a word or two and the nick describes the state.
 */
typedef enum {
  PTZ_DRIVER_STATE_UNKNOWN = 0,
  PTZ_DRIVER_STATE_RUN = 1,
  PTZ_DRIVER_STATE_WARMING_UP = 2,
  PTZ_DRIVER_STATE_COOLING_DOWN = 3,
  PTZ_DRIVER_STATE_INIT = 4,
  PTZ_DRIVER_STATE_UPGRADING = 5,
  PTZ_DRIVER_STATE_DOWN = 6,
  PTZ_DRIVER_STATE_NOT_FUNCTIONAL = 7,
  PTZ_DRIVER_STATE_RECALIBRATING = 8,
  PTZ_DRIVER_STATE_WAITING_FOR_POWER = 9
} PTZDriverState;

/**
 * ptz_driver_state_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZDriverState"
 */
PTZ_API GType ptz_driver_state_get_type (void);

G_END_DECLS
