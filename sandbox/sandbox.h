// A place of its own for the daemon: the daemon rewrites /etc/resolv.conf, reads /etc/config and
// maps /dev/mem, which must never happen to the machine of somebody who only runs the tests. The
// system tests, scripts/run and scripts/sandbox all run it here, and nowhere else.
//
// Inside, a process is root in namespaces of its own (mount, network, process ids; as an ordinary
// user also a user namespace). The machine's files can be read, not written. These are private:
//   /etc                empty config/, an own resolv.conf; the other entries are the machine's
//   /tmp, /run, /var/run, /sys (with class/gpio), /proc
//   /dev                null, zero and so on, log (a socket), mem (a sparse regular file),
//                       ledchain0 (a regular file that keeps every frame written to it)
// The project's own tree stays visible and writable at its own path. The network is lo and a veth
// pair, all addresses are local: whoever binds to one of them is that machine.
#pragma once

#include <string>
#include <string_view>

namespace sandbox {

inline constexpr char INTERFACE_NAME[] = "apcli0";    // hardware address 00:11:22:AA:BB:CC
inline constexpr char ROUTER[] = "192.168.8.1";       // the address of apcli0
inline constexpr char CLIENT_PREFIX[] = "192.168.8."; // clients are .20 to .29
inline constexpr char UPSTREAM_PREFIX[] = "10.53.0."; // upstream servers are .1 to .4

// Every datagram that reached /dev/log, one per line, as it came: "<134>Nov 21 ... ident[1]: text".
inline constexpr char LOG_FILE[] = "/run/sandbox/log";

// Whether the calling process is inside.
bool inside();

// Ends the process at once, with status 125 and the step that failed on standard error: half a
// sandbox must never run anything.
void must(bool done, const std::string &step);

// Writes a file anew; it must succeed.
void write_file(const std::string &path, std::string_view text);

// Makes the place, runs the command (null-terminated, looked up in PATH) in it as a child and
// waits for it. Everything that still runs inside ends with it, or with the calling process.
// Returns the command's exit status, 128 + signal when a signal ended it, 125 when the place
// could not be made or the command not be run (said on standard error).
int run(char *const *command);

} // namespace sandbox
