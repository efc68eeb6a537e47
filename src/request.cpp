#include "request.h"

#include "blacklist.h"
#include "blockedlist.h"
#include "config.h"
#include "counters.h"
#include "forward.h"
#include "ledutils.h"
#include "localanswer.h"
#include "log.h"
#include "netutils.h"
#include "recorder.h"
#include "relay.h"
#include "svrutils.h"
#include "tcp.h"
#include "utils.h"
#include "whitelist.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <strings.h>
#include <syslog.h>

static int is_reverse(const char *name, sockaddr_in client) {
    // IPv6 reverse names are not recognised.
    if (strlen(name) < 13 || !strstr(name, "in-addr.arpa"))
        return 0;
    syslog(LOG_DEBUG, "%s is a reverse lookup (%s)", name, socket2ip(client));
    return 1;
}

static bool is_own_name(const char *name) {
    if (strcasecmp(name, "vantrelle") == 0 || strcasecmp(name, "vantrelle.localdomain") == 0)
        return true;
    const size_t length = strlen(oDNS.hostname);
    if (strncasecmp(name, oDNS.hostname, length) != 0)
        return false;
    // The buffer cuts the suffix to ".loca", on purpose: queries for the full name go through the
    // lists like any other.
    char with_suffix[24];
    snprintf(with_suffix, sizeof with_suffix, "%s.local", oDNS.hostname);
    return !name[length] || strcasecmp(name, with_suffix) == 0;
}

static int is_local(const char *name, sockaddr_in client) {
    if (!is_own_name(name))
        return 0;
    syslog(LOG_INFO, "%s is local server (%s)", name, socket2ip(client));
    return 1;
}

static void count_diverted(int blocked) {
    syslog(LOG_DEBUG, "Diverting");
    if (blocked == 1) {
        update_stats(1, 1, 0, 0);
        multi_led_red();
    } else {
        multi_led_green();
    }
}

void divert(const uint8_t *message, int32_t length, sockaddr_in client, int blocked) {
    count_diverted(blocked);
    if (length < 0)
        length = 0;
    uint8_t reply[MAX_MESSAGE + LOCAL_ANSWER_GROWTH];
    const size_t size = make_local_answer({message, static_cast<size_t>(length)}, oDNS.block_answer,
                                          static_cast<uint32_t>(oDNS.block_ttl), reply);
    const ssize_t sent = send_datagram(oDNS.listenfd, reply, static_cast<int32_t>(size), client);
    if (sent < 0)
        syslog(LOG_ERR, "[%lu] Divert Received error: %s %d\n",
               static_cast<unsigned long>(pthread_self()), error_text(), static_cast<int>(sent));
}

// The first rule that matches decides. Blocked devices win over everything, white over black.
static Decision decide(const char *name, sockaddr_in client) {
    if (oDNS.disabled == 1 || is_local(name, client) || is_reverse(name, client))
        return Decision::FORWARD;
    const Query query{name, socket2ip(client)};
    if (is_blocked_device(query))
        return Decision::DIVERT;
    if (is_whitelisted(query))
        return Decision::FORWARD_AND_RECORD;
    return is_blacklisted(query) ? Decision::DIVERT : Decision::FORWARD_AND_RECORD;
}

// Decides unless that is done, and diverts what is blocked. Returns whether it was. Sets the name.
static bool divert_if_blocked(DnsRequest &request, char (&name)[QUERY_NAME_SIZE]) {
    extract_url(name, request.message, QUESTION_OFFSET, request.client);
    if (request.decision == Decision::OPEN)
        request.decision = decide(name, request.client);
    if (request.decision != Decision::DIVERT)
        return false;
    divert(request.message, request.length, request.client, 1);
    return true;
}

// Forwards in the way that is switched on. Returns whether the query may be recorded.
static bool forward(const DnsRequest &request) {
    if (oDNS.concurrent_queries > 0)
        return relay_request(request.message, request.length, request.client);
    forward_request(request.message, request.length, request.client);
    return true;
}

static void answer(DnsRequest &request) {
    char name[QUERY_NAME_SIZE] = "";
    if (divert_if_blocked(request, name) || !forward(request))
        return;
    if (request.decision == Decision::FORWARD_AND_RECORD && oDNS.record_traffic == 1)
        record_query(name, request.client);
}

bool answer_at_once(DnsRequest &request) {
    const MutexAttempt attempt(lock); // a worker may have got a query over TCP, and may get more
    if (!attempt || is_report_due(read_counter(oDNS.requests) + 1))
        return false;
    if (oDNS.concurrent_queries > 0) {
        answer(request);
        return true;
    }
    char name[QUERY_NAME_SIZE] = "";
    return divert_if_blocked(request, name);
}

namespace {

// Traces how long the processor was at work on a request.
class RequestTrace {
    const bool is_on_ = is_logged(LOG_DEBUG); // reading the processor clock is a system call
    const clock_t start_ = is_on_ ? clock() : 0;

  public:
    RequestTrace() {
        if (is_on_)
            debugLog("Request Start", start_);
    }
    ~RequestTrace() {
        if (!is_on_)
            return;
        syslog(LOG_DEBUG, "Request End: %lf",
               static_cast<double>(clock() - start_) / CLOCKS_PER_SEC);
        syslog(LOG_DEBUG, "_____________________________________________________________");
    }
    RequestTrace(const RequestTrace &) = delete;
    RequestTrace &operator=(const RequestTrace &) = delete;
};

} // namespace

void *_process_request(void *job) {
    const MutexGuard guard(lock);
    const RequestTrace trace;
    const std::unique_ptr<DnsRequest, FreeMemory> request(static_cast<DnsRequest *>(job));
    answer(*request);
    return nullptr;
}

// --- over TCP ------------------------------------------------------------------------------------

// The local answer, or where it would be longer than a message can be, the query as malformed.
static TcpMessage *local_answer(TcpMessage *query) {
    const uint8_t *bytes = content_of(query);
    TcpMessage *reply =
        new_tcp_message(std::min<size_t>(query->length + LOCAL_ANSWER_GROWTH, MAX_TCP_MESSAGE));
    if (!reply)
        return nullptr;
    size_t length = make_local_answer({bytes, query->length}, oDNS.block_answer,
                                      static_cast<uint32_t>(oDNS.block_ttl),
                                      {content_of(reply), reply->length});
    if (length == 0) {
        length = query->length;
        memcpy(content_of(reply), bytes, length);
        mark_malformed(content_of(reply));
    }
    shorten_message(reply, length);
    return reply;
}

void process_tcp_query(TcpQuery *query) {
    const MutexGuard guard(lock);
    const RequestTrace trace;
    const sockaddr_in client = query->client;
    char name[QUERY_NAME_SIZE] = "";
    extract_url(name, content_of(query->message), QUESTION_OFFSET, client);
    const Decision decision = decide(name, client);
    if (decision == Decision::DIVERT) {
        count_diverted(1);
        reply_over_tcp(query, local_answer(query->message));
    } else if (forward_over_tcp(query) && decision == Decision::FORWARD_AND_RECORD &&
               oDNS.record_traffic == 1) {
        record_query(name, client);
    }
}
