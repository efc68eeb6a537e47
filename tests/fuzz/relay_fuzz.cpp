// What a server sends back to a query of many: whether it is taken for the answer, and what of it
// is changed for the client. The input is a query and a datagram; how their questions compare is
// decided once more here, label by label.
#include "fuzz.h"
#include "message.h"

#include <algorithm>
#include <vector>

namespace {

unsigned word(const std::string &bytes, size_t at) {
    return static_cast<unsigned>(static_cast<uint8_t>(bytes[at])) << 8 |
           static_cast<uint8_t>(bytes[at + 1]);
}

const uint8_t *data_of(const std::string &bytes) {
    return reinterpret_cast<const uint8_t *>(bytes.data());
}

struct Question {
    std::vector<std::string> labels; // in small letters
    std::string type_and_class;
    bool operator==(const Question &) const = default;
};

// The question of a message that has exactly one; false when it has not, or does not read.
bool read_question(const std::string &message, Question &question, size_t &end) {
    if (message.size() < 12 || word(message, 4) != 1)
        return false;
    for (size_t at = 12; at < message.size(); at += 1 + question.labels.back().size()) {
        const size_t length = static_cast<uint8_t>(message[at]);
        if (length == 0) {
            end = at + 5;
            question.type_and_class = message.substr(at + 1, 4);
            return question.type_and_class.size() == 4;
        }
        std::string label = message.substr(at + 1, length);
        if (length > 63 || label.size() < length)
            return false;
        for (char &letter : label)
            letter = letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter | 32) : letter;
        question.labels.push_back(label);
    }
    return false;
}

bool is_answer(const std::string &answer, const Question &asked) {
    if (answer.size() < 12 || !(answer[2] & 0x80))
        return false;
    const int code = answer[3] & 15;
    Question question;
    size_t end;
    if (word(answer, 4) == 0)
        return code != 0 && code != 3;
    return read_question(answer, question, end) && question == asked;
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

    Question question;
    size_t end = 0;
    const bool is_readable = read_question(query, question, end);
    check(find_question_end(data_of(query), query.size()) == (is_readable ? end : 0));
    if (!is_readable)
        return 0;
    std::vector<uint8_t> buffer(answer.begin(), answer.end()); // of just this size
    const bool is_taken = make_reply(buffer.data(), buffer.size(), data_of(query), end);
    check(is_taken == is_answer(answer, question));
    if (is_taken)
        answer.replace(0, 2, query, 0, 2);
    check(
        std::equal(buffer.begin(), buffer.end(), data_of(answer), data_of(answer) + answer.size()));
    return 0;
}
