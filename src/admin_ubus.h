// The administration object on the system bus: "vantrelle" with its eight methods, served by one
// thread of its own.
//
// The server starts the thread before the lists are loaded. Handlers read settings and counters
// and edit lists without taking `lock`; what keeps them off a daemon that is not yet, or no longer,
// whole is the gate, which every handler passes and the main thread closes around start-up and
// shutdown.
#pragma once

// The thread: connects to the bus, registers the object and serves it for as long as the process
// lives. The argument is not used. Returns null when there is no bus or its loop ends.
void *admin_ubus_main(void *);

// Close and open the gate. While it is closed calls from the bus wait. Closing waits a few seconds
// for the call that is being served, and returns false when that one does not end: the bus or the
// configuration store may be stuck. Main thread.
bool close_admin_gate();
void open_admin_gate();
