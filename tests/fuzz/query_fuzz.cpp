// Packets from anyone: decoding the query name and building the local answer.
#include "config.h"
#include "server.h"
#include "svrutils.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    oDNS.listenfd = -1; // answers are built and go nowhere
    DnsRequest request = {};
    request.length = static_cast<int32_t>(std::min<size_t>(size, MAX_MESSAGE));
    std::memcpy(request.message, data, static_cast<size_t>(request.length));
    char name[QUERY_NAME_SIZE] = "";
    extract_url(name, request.message, QUESTION_OFFSET, request.client);
    divert(request.message, request.length, request.client, 0);
    return 0;
}
