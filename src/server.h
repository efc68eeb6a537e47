// The daemon's life: start-up and shutdown in a fixed order, the listening socket and the receive
// loop, which queues each query for the worker pool or diverts it at once (request.h).
//
// main() calls server_run(); everything here belongs to the main thread.
#pragma once

// Runs the daemon until it is told to stop. Ends the process when start-up fails: status 1 without
// an address, an upstream socket or a thread for signals, 6 without a mutex, abort without a
// listener.
void server_run();

// Pauses the workers and empties the main and local black and white lists and the list of excluded
// devices, which the next lookup loads again; the list of blocked devices stays. Without a caller
// in the daemon.
void reload_lists();
