#include "forward.h"

#include "config.h"
#include "counters.h"
#include "ledutils.h"
#include "message.h"
#include "netutils.h"
#include "utils.h"

#include <cstdlib>
#include <ctime>
#include <poll.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

static constexpr int TIMEOUTS_BEFORE_SWITCH = 5;

// Datagrams that are thrown away before a query is sent; more of them cost a fresh socket instead.
static constexpr int MAX_DISCARDED = 64;

void _open_upstream_dns_connection() {
    if (oDNS.upstreamfd >= 0) {
        syslog(LOG_WARNING, "Upstream DNS Socket is already open");
        return;
    }
    oDNS.upstreamfd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (oDNS.upstreamfd < 0) {
        syslog(LOG_CRIT, "Cannot open upstream DNS connection");
        exit(EXIT_FAILURE);
    }
    // Spelt so; log readers match it.
    syslog(LOG_DEBUG, "Upsteam socket fd is: %d", oDNS.upstreamfd);
}

void _close_upstream_dns_connection() {
    if (oDNS.upstreamfd < 0) {
        syslog(LOG_WARNING, "Upstream DNS connection already closed");
        return;
    }
    shutdown(oDNS.upstreamfd, SHUT_RDWR);
    close(oDNS.upstreamfd);
    oDNS.upstreamfd = -1;
}

static void replace_upstream_socket() {
    _close_upstream_dns_connection();
    usleep(500);
    _open_upstream_dns_connection();
}

// A fresh socket, so that a late answer to one query is never read as the answer to the next.
static void reset_dns_connection() {
    syslog(LOG_DEBUG, "Reset upstream DNS connection");
    multi_led_orange();
    update_stats(0, 0, 1, 0);
    replace_upstream_socket();
}

// Empties the socket: what came before a query was sent, be it an answer's duplicate or a packet
// that nobody asked for, would otherwise be read as the answer to it, and shift all that follow.
static void discard_what_came_before() {
    char byte;
    int discarded = 0;
    while (recv(oDNS.upstreamfd, &byte, sizeof byte, MSG_DONTWAIT) >= 0)
        if (++discarded > MAX_DISCARDED) {
            syslog(LOG_DEBUG, "Replacing the upstream socket, too much came unasked");
            replace_upstream_socket();
            return;
        }
}

void switch_dns() {
    static constexpr const char *MOVES[UPSTREAM_SLOTS] = {
        "Switching to Primary Upstream DNS",
        "Switching to Secondary Upstream DNS",
        "Switching to Tertiary Upstream DNS",
        "Switching to Quaternary Upstream DNS",
    };
    oDNS.dns_timeouts = 0;
    multi_led_orange();
    const bool has_next = oDNS.current_dns >= 0 && oDNS.current_dns < UPSTREAM_SLOTS - 1;
    oDNS.current_dns = has_next ? oDNS.current_dns + 1 : 0;
    syslog(LOG_INFO, "%s", MOVES[oDNS.current_dns]);
    oDNS.secondary_since = time(nullptr);
}

void dns_config_changed() {
    oDNS.current_dns = UPSTREAM_SLOTS - 1;
    switch_dns();
}

void switch_after_timeouts() {
    if (oDNS.dns_timeouts >= TIMEOUTS_BEFORE_SWITCH)
        switch_dns();
}

void choose_upstream() {
    switch_after_timeouts();
    if (oDNS.current_dns <= 0 || oDNS.secondary_since == 0)
        return;
    // Switch time minus now: not positive while the clock runs forward, so the daemon stays on a
    // secondary for as long as it answers, whatever the maximum says: owners rely on that.
    const int64_t since = oDNS.secondary_since - time(nullptr);
    if (since > oDNS.dns_max_time_on_secondary) {
        syslog(LOG_INFO, "Switching to Primary Upstream DNS (Max Time On Secondary)");
        oDNS.current_dns = -1;
        switch_dns();
    }
}

static bool wait_for_answer() {
    pollfd waiting = {.fd = oDNS.upstreamfd, .events = POLLIN, .revents = 0};
    return poll(&waiting, 1, oDNS.dns_timeout) == 1;
}

// Neither the id nor the source of the answer is compared with the query.
static void relay_answer(sockaddr_in client) {
    uint8_t reply[MAX_MESSAGE + 1] = {};
    const ssize_t length = recv(oDNS.upstreamfd, reply, MAX_MESSAGE, 0);
    if (length < 0) {
        syslog(LOG_ERR, "Received error: %s %d\n", error_text(), static_cast<int>(length));
        return;
    }
    const ssize_t sent = send_datagram(oDNS.listenfd, reply, static_cast<int32_t>(length), client);
    if (sent < 0)
        syslog(LOG_ERR, "Received error: %s %d\n", error_text(), static_cast<int>(sent));
    else if (oDNS.debug == 1)
        syslog(LOG_DEBUG, "Received: %s", reinterpret_cast<const char *>(reply));
}

void forward_request(const uint8_t *message, int32_t length, sockaddr_in client) {
    syslog(LOG_DEBUG, "Forwarding request");
    multi_led_blue();
    choose_upstream();
    update_stats(1, 0, 0, 0);
    sockaddr_in upstream = {};
    upstream.sin_family = AF_INET;
    upstream.sin_port = upstream_port();
    upstream.sin_addr.s_addr = upstream_address(oDNS.current_dns);
    syslog(LOG_DEBUG, "s_addr size:  %d, req_size: %d", static_cast<int>(sizeof upstream), length);
    discard_what_came_before();
    const ssize_t sent = send_datagram(oDNS.upstreamfd, message, length, upstream);
    if (sent < 0) {
        syslog(LOG_ERR, "[%lu] Sendto Error: %s %d\n", static_cast<unsigned long>(pthread_self()),
               error_text(), static_cast<int>(sent));
        return;
    }
    if (wait_for_answer()) {
        relay_answer(client);
        oDNS.dns_timeouts = 0;
        return;
    }
    oDNS.dns_timeouts++;
    syslog(LOG_ERR, "ERROR: Upstream DNS Response timed out, Resetting connection (%d)\n",
           oDNS.dns_timeouts);
    reset_dns_connection();
}
