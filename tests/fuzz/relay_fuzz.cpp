// What a server sends back to a query of many: whether it is taken for the answer, and what of it
// is changed for the client. The input is a query and a datagram; how their questions compare is
// decided once more here, label by label.
#include "fuzz.h"
#include "message.h"

#include <algorithm>
#include <optional>
#include <vector>

namespace {

bool has_questions(const std::string &message, char count) {
    return message.size() >= 12 && message[4] == 0 && message[5] == count;
}

// The question section with small letters in the name; nothing for a message that has not exactly
// one question, or where it does not read.
std::optional<std::string> question_of(const std::string &message) {
    if (!has_questions(message, 1))
        return std::nullopt;
    std::string rest = message.substr(12), question;
    while (!rest.empty() && rest[0] != 0) {
        const size_t size = size_t{1} + static_cast<uint8_t>(rest[0]);
        if (size > 64 || rest.size() < size)
            return std::nullopt;
        for (const char letter : rest.substr(0, size))
            question += letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter | 32) : letter;
        rest.erase(0, size);
    }
    return rest.size() < 5 ? std::nullopt : std::optional(question + rest.substr(0, 5));
}

bool is_answer(const std::string &answer, const std::string &asked) {
    if (answer.size() < 12 || !(answer[2] & 0x80))
        return false;
    const int code = answer[3] & 15;
    return has_questions(answer, 0) ? code != 0 && code != 3 : question_of(answer) == asked;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input(data, size, 1 << 16);
    const std::string query = input.text().substr(0, MAX_MESSAGE);
    std::string answer = input.text(); // up to what a datagram holds
    // So that the fuzzer need not spell a question twice: the answer begins as the query does, but
    // for a few bytes.
    if (const unsigned plan = input.byte(); plan & 1) {
        answer.replace(0, query.size(), query);
        for (unsigned changes = plan >> 1 & 7; changes > 0 && !answer.empty(); changes--) {
            const unsigned at = input.number();
            answer[at % std::min<size_t>(answer.size(), 64)] ^= static_cast<char>(input.byte());
        }
        if (plan & 0x10)
            answer.resize(std::min<size_t>(answer.size(), input.number()));
    }

    const std::optional<std::string> question = question_of(query);
    const size_t end = question ? 12 + question->size() : 0;
    check(find_question_end(bytes_of(query), query.size()) == end);
    if (!question)
        return 0;
    std::vector<uint8_t> buffer(answer.begin(), answer.end()); // of just this size
    const bool is_taken = make_reply(buffer.data(), buffer.size(), bytes_of(query), end);
    check(is_taken == is_answer(answer, *question));
    if (is_taken)
        answer.replace(0, 2, query, 0, 2);
    check(std::string(buffer.begin(), buffer.end()) == answer);
    return 0;
}
