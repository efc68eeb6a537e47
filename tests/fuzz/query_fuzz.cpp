// Datagrams from anyone, each as a whole job: it is either forwarded or answered, once and with the
// right bytes, and the database is left in order. The message's id, which the daemon never looks
// at, chooses the client and the settings.
#include "blacklist.h"
#include "config.h"
#include "fuzz.h"
#include "log.h"
#include "request.h"
#include "statsdb.h"
#include "whitelist.h"

#include <algorithm>
#include <arpa/inet.h>
#include <arpa/nameser.h>
#include <fstream>
#include <sqlite3.h>
#include <syslog.h>

namespace {

using namespace std::literals;

constexpr const char *FILES[][2] = {
    {"blocked_device.lst", "192.0.2.1,4\n10.,2\n"},
    {"local_device.lst", "192.0.2.2,4\n.255,1\n"},
    {"local_white.lst", "ok.,2\nw%s\n"},
    {"white.lst", ".good,1\nexact.example,4\n"},
    {"local_black.lst", "b,4\n.bad,1\n"},
    {"black.lst", "ad\n.example,1\ntrack,2\nlabel\n"},
};

// What is made from the question is read by the C library, to the last byte.
void check_built(std::string_view query, std::string_view reply) {
    const auto mode = oDNS.block_answer;
    const size_t end = find_question_end(bytes_of(query), query.size());
    const std::string_view type_and_class = query.substr(end - 4, 4);
    const bool has_address =
        mode == BlockAnswer::NULL_ADDRESS &&
        (type_and_class == "\0\x01\0\x01"sv || type_and_class == "\0\x1c\0\x01"sv);
    static constexpr int CODES[] = {ns_r_noerror, ns_r_nxdomain, ns_r_noerror, ns_r_noerror,
                                    ns_r_refused};
    const int code = CODES[static_cast<size_t>(mode)];
    ns_msg read;
    check(ns_initparse(bytes_of(reply), static_cast<int>(reply.size()), &read) == 0);
    check(ns_msg_id(read) == ns_get16(bytes_of(query)) &&
          bytes_of(reply)[2] == (0x80 | (query[2] & 0x79)) && bytes_of(reply)[3] == (0x80 | code));
    check(ns_msg_count(read, ns_s_qd) == 1 && ns_msg_count(read, ns_s_an) == has_address &&
          ns_msg_count(read, ns_s_ns) == (!has_address && code != ns_r_refused));
    check(reply.substr(QUESTION_OFFSET)
              .starts_with(query.substr(QUESTION_OFFSET, end - QUESTION_OFFSET)));
    const bool may_have_edns = query.find("\0\0\x29"sv, end) != query.npos;
    check(ns_msg_count(read, ns_s_ar) <= may_have_edns);
}

std::string sent;
int forwards, answers;

void run(const std::string &sql) {
    check(sqlite3_exec(oDNS.db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK);
}

// Called for each row that changes: queries leave new ones of themselves and of hits, and touch no
// other.
void check_row(void *, int operation, const char *, const char *name, sqlite3_int64) {
    const std::string_view table = name;
    check(operation == SQLITE_INSERT && (table == "dns_traffic" || table.ends_with("_stats") ||
                                         table.ends_with("_fqdn") || table.ends_with("_hit")));
}

// Takes out what queries left, as a whole, which calls nobody.
void forget_queries() {
    run("delete from dns_traffic");
    for (const auto &[file, lines] : FILES)
        for (const char *rows : {"_stats", "_fqdn", "_hit"})
            run("delete from " + std::string(file, strcspn(file, ".")) + rows);
}

void set_up() {
    static char directory[] = "/dev/shm/query-fuzz-XXXXXX";
    check(mkdtemp(directory) && open_database(":memory:", &oDNS.db) == SQLITE_OK);
    for (const auto &[name, lines] : FILES)
        std::ofstream(std::string(directory) + '/' + name) << lines;
    set_logged_priorities(LOG_MASK(LOG_EMERG));
    oDNS.path = directory;
    oDNS.hostname = strdup("Vantrelle-0A1B2C3D");
    check(create_traffic_table() && pthread_mutex_init(&lock, nullptr) == 0);
    init_black_list();
    init_white_list();
    black_list.load()->index_at = 1;
    check(rmdir(directory) == 0); // the files were taken
    sqlite3_update_hook(oDNS.db, check_row, nullptr);
}

} // namespace

// The linker puts these two in the place of the daemon's forward_request() and send_datagram().
extern "C" void __wrap__Z15forward_requestPKhi11sockaddr_in(const uint8_t *message, int32_t length,
                                                            sockaddr_in) {
    sent = text_of(message, static_cast<size_t>(length));
    forwards++;
}
extern "C" ssize_t __wrap__Z13send_datagramiPKhi11sockaddr_in(int, const uint8_t *message,
                                                              int32_t length, sockaddr_in) {
    sent = text_of(message, static_cast<size_t>(length));
    answers++;
    return length;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static int round;
    if (round == 0)
        set_up();
    size = std::min<size_t>(size, MAX_MESSAGE);
    auto *request = static_cast<DnsRequest *>(std::calloc(1, sizeof(DnsRequest)));
    std::memcpy(request->message, data, size);
    request->length = static_cast<int32_t>(size);
    const unsigned client = request->message[0] & 3;
    request->client.sin_addr.s_addr = htonl(0xc0000200 + client);
    oDNS.record_traffic = request->message[1] & 1;
    oDNS.disabled = request->message[1] >= 0xfc;
    oDNS.block_answer = static_cast<BlockAnswer>((request->message[1] >> 1) % 5);
    oDNS.block_ttl = 12345;
    oDNS.ignore_case = request->message[0] >> 2 & 1;
    const int changes = sqlite3_total_changes(oDNS.db);
    forwards = answers = 0;
    _process_request(request);

    check(forwards + answers == 1 && (forwards || (client != 2 && !oDNS.disabled)));
    const std::string_view query = text_of(data, size);
    if (forwards) {
        check(sent == query);
    } else if (oDNS.block_answer != BlockAnswer::NONE && find_question_end(data, size) > 0) {
        check_built(query, sent);
    } else { // what is behind the header, and a record
        const size_t header = std::min<size_t>(size, QUESTION_OFFSET);
        check(sent.substr(header) == std::string(query.substr(header)) +
                                         "\xc0\x0c\0\1\0\1\0\0\5\x41\0\4\xff\xff\xff\xff"s);
    }
    // At most a hit on a white list, its name, both together, and the question.
    check(sqlite3_total_changes(oDNS.db) - changes <= (oDNS.record_traffic ? 4 : 0));
    if (++round % 8192 == 16) // also among the seeds
        forget_queries();
    return 0;
}
