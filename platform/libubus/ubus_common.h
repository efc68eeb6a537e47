// What the client library and the bus daemon share.
#pragma once

// Where the bus listens unless told otherwise.
#ifndef UBUS_UNIX_SOCKET
#define UBUS_UNIX_SOCKET "/var/run/ubus/ubus.sock"
#endif
