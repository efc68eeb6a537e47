#include "netutils.h"

#include "guards.h"
#include "log.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <sys/ioctl.h>
#include <syslog.h>

namespace {

struct FreeAddresses {
    void operator()(ifaddrs *list) const { freeifaddrs(list); }
};
using AddressList = std::unique_ptr<ifaddrs, FreeAddresses>;

} // namespace

static AddressList interface_addresses() {
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0)
        list = nullptr;
    return AddressList(list);
}

static int family_of(const ifaddrs *entry) {
    return entry->ifa_addr ? entry->ifa_addr->sa_family : AF_UNSPEC;
}

// The sockaddr of an entry may be read as the type of its family only after a copy.
template <typename Address>
static Address address_of(const ifaddrs *entry) {
    Address address;
    memcpy(&address, entry->ifa_addr, sizeof address);
    return address;
}

const char *socket2ip(sockaddr_in address) {
    static thread_local char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
}

ssize_t send_datagram(int fd, const uint8_t *bytes, int32_t length, sockaddr_in to) {
    if (length < 0) {
        errno = EMSGSIZE;
        return -1;
    }
    return sendto(fd, bytes, static_cast<size_t>(length), 0, reinterpret_cast<sockaddr *>(&to),
                  sizeof to);
}

const char *ipv6socket2ip(in6_addr address, char *buffer) {
    return inet_ntop(AF_INET6, &address, buffer, INET6_ADDRSTRLEN);
}

int get_address_from_interface(const char *name, InterfaceAddress *address) {
    syslog(LOG_DEBUG, "Getting ip address from interface %s", name);
    bool found = false;
    {
        const AddressList list = interface_addresses();
        // The walk ends at the IPv4 match: an IPv6 address listed behind it is never taken.
        for (const ifaddrs *entry = list.get(); entry && !found; entry = entry->ifa_next) {
            syslog(LOG_DEBUG, "Checking %s is the same as %s", entry->ifa_name, name);
            const int family = family_of(entry);
            if (strcmp(entry->ifa_name, name) != 0)
                continue;
            if (family == AF_INET) {
                snprintf(address->ipv4, sizeof address->ipv4, "%s",
                         socket2ip(address_of<sockaddr_in>(entry)));
                found = true;
            } else if (family == AF_INET6) {
                char text[INET6_ADDRSTRLEN] = "";
                ipv6socket2ip(address_of<sockaddr_in6>(entry).sin6_addr, text);
                syslog(LOG_DEBUG, "Retrieved ip: %s", text);
                snprintf(address->ipv6, sizeof address->ipv6, "%.39s", text);
            }
        }
        if (!found) {
            syslog(LOG_CRIT, "No such interface: %s", name);
            exit(EXIT_FAILURE);
        }
        syslog(LOG_DEBUG, "Before freeing structures");
    }
    syslog(LOG_DEBUG, "After freeing structures");
    return 1;
}

const char *get_host_address() {
    static char none[16];
    const char *text = none;
    const AddressList list = interface_addresses();
    for (const ifaddrs *entry = list.get(); entry; entry = entry->ifa_next)
        if (family_of(entry) == AF_INET && !(entry->ifa_flags & IFF_LOOPBACK))
            text = socket2ip(address_of<sockaddr_in>(entry));
    return text;
}

char *get_ipv6host_address(char *buffer) {
    const AddressList list = interface_addresses();
    for (const ifaddrs *entry = list.get(); entry; entry = entry->ifa_next)
        if (family_of(entry) == AF_INET6 && strcmp(entry->ifa_name, "lo") != 0)
            ipv6socket2ip(address_of<sockaddr_in6>(entry).sin6_addr, buffer);
    return buffer;
}

void getHostName(in_addr address) {
    const hostent *host = gethostbyaddr(&address, sizeof address, AF_INET);
    printf("Host:  %s\n", shown(host ? host->h_name : nullptr));
}

char *getMacAddress(const char *name) {
    const UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        perror("socket");
        return nullptr;
    }
    ifreq request = {};
    snprintf(request.ifr_name, sizeof request.ifr_name, "%s", name);
    if (ioctl(fd.get(), SIOCGIFHWADDR, &request) != 0) {
        perror("ioctl");
        return strdup("");
    }
    unsigned char mac[6];
    memcpy(mac, request.ifr_hwaddr.sa_data, sizeof mac);
    char text[20];
    snprintf(text, sizeof text, "%02X%02X%02X%02X", mac[2], mac[3], mac[4], mac[5]);
    return strdup(text);
}

void print_buffer(const unsigned char *bytes, size_t count) {
    // Bytes are widened with their sign, so that 0x80 and above print as four digits.
    for (size_t i = 0; i < count; i++)
        printf(" %02hx", static_cast<unsigned short>(static_cast<signed char>(bytes[i])));
    printf("\n");
}
