/* ptz_port_index.h - translates between the three ways in which a device numbers its serial ports.
 *
 * The mapping file /usr/share/ptz/port_mapping.conf, a key file with one group per direction, is loaded by the first
 * call and kept. In each group a key is a source number in decimal and its value the target number. A group that
 * holds the key "NoManagers" maps every number to itself.
 *
 * A file that cannot be loaded is logged by every call, which then returns -1; the next call tries again.
 */
#pragma once

#include "ptz_api.h"

G_BEGIN_DECLS

/**
 * ptz_port_index_comport2portmanager:
 * @number: a communication-port number
 *
 * Thread: any, but the first call of this module must not race with another.
 *
 * Returns: the port-manager number by the group "Comport2Portmanager"; -1 when there is none
 */
PTZ_API gint32 ptz_port_index_comport2portmanager (gint32 number);

/**
 * ptz_port_index_portmanager2comport:
 * @number: a port-manager number
 *
 * Thread: any, but the first call of this module must not race with another.
 *
 * Returns: the communication-port number by the group "Portmanager2Comport"; -1 when there is none
 */
PTZ_API gint32 ptz_port_index_portmanager2comport (gint32 number);

/**
 * ptz_port_index_comport2serialport:
 * @number: a communication-port number
 *
 * Thread: any, but the first call of this module must not race with another.
 *
 * Returns: the serial-port number by the group "Comport2Serialport"; -1 when there is none
 */
PTZ_API gint32 ptz_port_index_comport2serialport (gint32 number);

/**
 * ptz_port_index_serialport2comport:
 * @number: a serial-port number
 *
 * Thread: any, but the first call of this module must not race with another.
 *
 * Returns: the communication-port number by the group "Serialport2Comport"; -1 when there is none
 */
PTZ_API gint32 ptz_port_index_serialport2comport (gint32 number);

G_END_DECLS
