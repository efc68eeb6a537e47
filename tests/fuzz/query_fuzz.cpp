// Datagrams from anyone, each as a whole job: it is either forwarded or answered, once and with the
// right bytes, and the database is left in order. The message's id, which the daemon never looks
// at, chooses the client and the settings. What a built answer has to hold is decided once more
// here.
#include "blacklist.h"
#include "config.h"
#include "fuzz.h"
#include "log.h"
#include "request.h"
#include "statsdb.h"
#include "whitelist.h"

#include <algorithm>
#include <arpa/inet.h>
#include <fstream>
#include <optional>
#include <sqlite3.h>
#include <string_view>
#include <syslog.h>
#include <utility>

namespace {

constexpr const char *FILES[][2] = {
    {"blocked_device.lst", "192.0.2.1,4\n10.,2\n"},
    {"local_device.lst", "192.0.2.2,4\n.255,1\n"},
    {"local_white.lst", "ok.,2\nw%s\n"},
    {"white.lst", ".good,1\nexact.example,4\n"},
    {"local_black.lst", "b,4\n.bad,1\n"},
    {"black.lst", "ad\n.example,1\ntrack,2\nlabel\n"},
};

struct Reader {
    std::string_view bytes;
    size_t at = 0;
    bool failed = false;

    std::string_view piece(size_t size) {
        failed = failed || bytes.size() - at < size;
        return failed ? "" : bytes.substr(std::exchange(at, at + size), size);
    }
    unsigned number() { // 0 when there is none
        const std::string_view two = piece(2);
        return failed ? 0 : static_cast<uint8_t>(two[0]) << 8 | static_cast<uint8_t>(two[1]);
    }
    // The bytes of a name as they stand.
    std::string_view name(bool may_point) {
        const size_t begin = at;
        for (bool ended = false; !ended && !failed;) {
            const std::string_view head = piece(1);
            const unsigned length = failed ? 0 : static_cast<uint8_t>(head[0]);
            failed = failed || (length > 63 && (!may_point || length < 192));
            piece(length > 63 ? 1 : length);
            ended = length == 0 || length > 63;
        }
        return bytes.substr(begin, at - begin);
    }
};

struct Message {
    std::string question;
    unsigned counts[4] = {};   // of the records in its sections
    bool is_whole = false;     // and has nothing behind them
    int edns = 0;              // EDNS records; one that is malformed or misplaced counts twice
    bool wants_dnssec = false; // by the EDNS bit "DNSSEC OK"
};

void read_record(Reader &reader, bool is_additional, Message &message) {
    const std::string_view name = reader.name(true);
    const unsigned type = reader.number();
    reader.number();
    const std::string_view ttl = reader.piece(4);
    Reader data{reader.piece(reader.number())};
    if (reader.failed || type != 41)
        return;
    while (!data.failed && data.at < data.bytes.size()) {
        data.number();
        data.piece(data.number());
    }
    message.edns += data.failed || name.size() != 1 || !is_additional ? 2 : 1;
    message.wants_dnssec = ttl[2] & 0x80;
}

// A message of one question with a plain name.
std::optional<Message> read_message(std::string_view bytes) {
    Reader reader{bytes};
    Message message;
    reader.piece(4);
    for (unsigned &count : message.counts)
        count = reader.number();
    message.question = reader.name(false);
    message.question += reader.piece(4);
    if (reader.failed || message.counts[0] != 1)
        return std::nullopt;
    for (int section = 1; section < 4; section++)
        for (unsigned i = 0; i < message.counts[section] && !reader.failed; i++)
            read_record(reader, section == 3, message);
    message.edns = reader.failed ? 0 : message.edns;
    message.is_whole = !reader.failed && reader.at == bytes.size();
    return message;
}

void check_built(std::string_view query, const Message &asked, std::string_view reply) {
    const auto mode = oDNS.block_answer;
    const auto read = read_message(reply);
    check(read && read->is_whole && read->question == asked.question &&
          reply.substr(0, 2) == query.substr(0, 2));
    const int code = mode == BlockAnswer::NXDOMAIN ? 3 : mode == BlockAnswer::REFUSED ? 5 : 0;
    check(static_cast<uint8_t>(reply[2]) == (0x80 | (query[2] & 0x79)) &&
          static_cast<uint8_t>(reply[3]) == (0x80 | code));
    const auto is_for = [&](char type) {
        return asked.question.ends_with(std::string{0, type, 0, 1});
    };
    const bool has_address = mode == BlockAnswer::NULL_ADDRESS && (is_for(1) || is_for(28));
    const bool has_edns = asked.edns == 1;
    check(read->counts[1] == has_address &&
          read->counts[2] == (!has_address && mode != BlockAnswer::REFUSED) &&
          read->counts[3] == has_edns && read->edns == has_edns &&
          (!has_edns || read->wants_dnssec == asked.wants_dnssec));
}

std::string sent;
int forwards, answers;

// The results of a text of SQL, one after the other.
std::string ask(const std::string &sql) {
    std::string text;
    const auto append = [](void *to, int, char **row, char **) {
        *static_cast<std::string *>(to) += row[0];
        return 0;
    };
    check(sqlite3_exec(oDNS.db, sql.c_str(), append, &text, nullptr) == SQLITE_OK);
    return text;
}

// What no query may change: all tables, and what the main black list holds.
std::string fixed_rows() {
    std::string text = ask("pragma integrity_check; select name from sqlite_master;"
                           "select id || frag || opt || disabled from black");
    check(text.starts_with("ok") && text.ends_with("label00"));
    return text;
}

// Takes out what queries left, so that the check of all rows stays as fast as it is.
void forget_queries() {
    ask(ask("select 'delete from ' || name || ';' from sqlite_master where type = 'table' and "
            "(name = 'dns_traffic' or name glob '*_stats' or name glob '*_fqdn' or "
            "name glob '*_hit')"));
}

std::string set_up() {
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
    return fixed_rows();
}

} // namespace

// The linker puts these two in the place of the daemon's forward_request() and send_datagram().
extern "C" void __wrap__Z15forward_requestPKhi11sockaddr_in(const uint8_t *message, int32_t length,
                                                            sockaddr_in) {
    sent.assign(reinterpret_cast<const char *>(message), static_cast<size_t>(length));
    forwards++;
}
extern "C" ssize_t __wrap__Z13send_datagramiPKhi11sockaddr_in(int, const uint8_t *message,
                                                              int32_t length, sockaddr_in) {
    sent.assign(reinterpret_cast<const char *>(message), static_cast<size_t>(length));
    answers++;
    return length;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const std::string fixed = set_up();
    static int round;
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
    std::string expected(reinterpret_cast<const char *>(data), size);
    if (const auto asked = read_message(expected);
        answers && asked && oDNS.block_answer != BlockAnswer::NONE) {
        check_built(expected, *asked, sent);
        expected = sent;
    } else if (answers) { // a name error with one answer, as far as the header came
        const int third = size > 3 ? data[3] | 0x83 : 0;
        for (const auto &[at, value] :
             {std::pair{2, 0x80}, {3, third}, {6, 0}, {7, 1}, {10, 0}, {11, 0}})
            if (static_cast<size_t>(at) < size)
                expected[static_cast<size_t>(at)] = static_cast<char>(value);
        expected += std::string("\xc0\x0c\0\1\0\1\0\0\5\x41\0\4\xff\xff\xff\xff", 16);
    }
    check(sent == expected);
    // At most a hit on a white list, its name, both together, and the question.
    check(sqlite3_total_changes(oDNS.db) - changes <= (oDNS.record_traffic ? 4 : 0));
    if (++round % 8192 == 16) { // also among the seeds
        check(fixed_rows() == fixed);
        forget_queries();
    }
    return 0;
}
