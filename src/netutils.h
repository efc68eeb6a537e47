// Conversions between socket addresses, interface data and text: for the listen address, the
// daemon's host name, and every log line or database row that names a client.
#pragma once

#include <cstddef>
#include <cstdint>
#include <netinet/in.h>
#include <sys/types.h>

struct InterfaceAddress {
    char ipv4[16];
    char ipv6[40];
};

// The dotted text of a socket address, in a buffer that the same thread's next call overwrites.
const char *socket2ip(sockaddr_in address);

// Sends `length` bytes as one datagram. Returns their number, or -1 with errno; a negative length,
// that of a failed receive which was queued, fails with EMSGSIZE.
ssize_t send_datagram(int fd, const uint8_t *bytes, int32_t length, sockaddr_in to);

// Writes the text of an IPv6 address into `buffer` of INET6_ADDRSTRLEN bytes; null on failure.
const char *ipv6socket2ip(in6_addr address, char *buffer);

// Fills `address` with the texts of an interface. Returns 1, or ends the process with status 1 when
// it has no IPv4 address. Main thread, during start-up.
int get_address_from_interface(const char *name, InterfaceAddress *address);

// The dotted text of the last non-loopback IPv4 address in the interface list, empty when there is
// none; shares socket2ip()'s buffer. Without a caller in the daemon.
const char *get_host_address();

// Writes the text of the last IPv6 address of any interface but "lo" into `buffer` of
// INET6_ADDRSTRLEN bytes, which it returns. Without a caller in the daemon.
char *get_ipv6host_address(char *buffer);

// Prints "Host:  NAME" with the reverse-resolved name of an address. Without a caller in the
// daemon.
void getHostName(in_addr address);

// The last four bytes of the interface's hardware address as 8 upper-case hexadecimal digits; an
// empty text when it cannot be read, null without a socket. Heap text, the caller frees it.
char *getMacAddress(const char *name);

// Prints bytes in hexadecimal to standard output. Without a caller in the daemon.
void print_buffer(const unsigned char *bytes, size_t count);
