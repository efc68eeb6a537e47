#include "svrutils.h"

#include "config.h"
#include "log.h"
#include "message.h"
#include "netutils.h"

#include <cstring>
#include <syslog.h>

// Queries for this name come every few seconds from most devices; they are traced once only.
static constexpr const char *NTP_POOL_NAME = "pool.ntp.org";

// With 8-bit positions a message has at most this many different labels. A decoder that has seen
// more of them is in a loop which only a crafted packet can build.
static constexpr int MAX_LABELS = 256;

static void decode_name(char (&name)[QUERY_NAME_SIZE], const uint8_t *message, uint8_t start) {
    uint8_t p = start; // both wrap at 256
    uint8_t w = 0;
    uint8_t length = message[p++];
    for (int labels = 0; length != 0 && labels < MAX_LABELS; labels++) {
        while (length-- > 0)
            name[w++] = static_cast<char>(message[p++]);
        length = message[p++];
        if (length != 0)
            name[w++] = '.';
    }
    name[w] = '\0';
}

static void fold_name(char *name) {
    for (; *name; name++)
        *name = static_cast<char>(lower(static_cast<uint8_t>(*name)));
}

void extract_url(char (&name)[QUERY_NAME_SIZE], const uint8_t *message, uint8_t start,
                 sockaddr_in client) {
    decode_name(name, message, start);
    if (oDNS.ignore_case == 1)
        fold_name(name);
    if (!is_logged(LOG_DEBUG))
        return;
    const char *address = socket2ip(client);
    syslog(LOG_DEBUG, "FQDN: %s, from: %s\n", name, address);
    // All other names are traced a second time; log readers count on the pair.
    if (!strstr(name, NTP_POOL_NAME))
        syslog(LOG_DEBUG, "FQDN: %s, from: %s\n", name, address);
}
