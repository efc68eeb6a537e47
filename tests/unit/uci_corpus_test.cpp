// The configuration library. Recorded cases (tests/data/uci-corpus) hold calls with what each gives
// back and the bytes they leave behind.
#include "harness.h"
#include "hex.h"

#include <uci.h>

#include <algorithm>
#include <cstdlib>
#include <nlohmann/json.hpp>

using namespace harness;
using nlohmann::json;

namespace {

// Bytes that are no UTF-8 text stand as {"hex": "fffe"} in the files.
json plain(json value) {
    if (value.is_object() && value.contains("hex"))
        return from_hex(value["hex"]);
    if (value.is_structured())
        std::transform(value.begin(), value.end(), value.begin(), plain);
    return value;
}

std::string shown(const json &value) {
    return value.dump(-1, ' ', true, json::error_handler_t::replace);
}

json described(const char *text) {
    return text ? json(text) : json();
}

json described(const uci_list &list);

json described(const uci_element *e) {
    if (e->type == UCI_TYPE_SECTION) {
        const uci_section *s = uci_to_section(e);
        return {{"type", s->type}, {"name", e->name}, {"anonymous", s->anonymous}};
    }
    if (e->type != UCI_TYPE_OPTION)
        return e->name;
    const uci_option *o = uci_to_option(e);
    if (o->type == UCI_TYPE_STRING)
        return {{"name", e->name}, {"string", o->v.string}};
    return {{"name", e->name}, {"list", described(o->v.list)}};
}

json described(const uci_list &list) {
    json result = json::array();
    uci_element *e;
    uci_foreach_element(&list, e) {
        result.push_back(described(e));
        if (e->type == UCI_TYPE_SECTION)
            result.back()["options"] = described(uci_to_section(e)->options);
    }
    return result;
}

// A section or an option.
template <typename Record>
json described(const Record *record) {
    return record ? described(&record->e) : json();
}

// A member that lives as long as the step; null if it has none.
const char *text(const json &step, const char *member) {
    return step.contains(member) ? step[member].get_ref<const std::string &>().c_str() : nullptr;
}

constexpr char CONFIGURATION[] = "/etc/config", CHANGES[] = "/tmp/.uci";

void write(const std::string &directory, const json &files) {
    fs::create_directory(directory);
    for (const auto &[name, bytes] : files.items())
        write_file(directory + "/" + name, bytes.get_ref<const std::string &>());
}

json read(const char *directory) {
    json files = json::object();
    std::error_code none; // no directory, no files
    for (const auto &entry : fs::directory_iterator(directory, none))
        files[entry.path().filename()] = read_file(entry.path());
    return files;
}

struct Library {
    std::string key;
    uci_context *ctx = uci_alloc_context();
    uci_ptr ptr{};

    Library() = default;
    Library(const Library &) = delete;
    ~Library() { uci_free_context(ctx); }

    json run(const json &step);
};

json Library::run(const json &step) {
    static const char *const kinds[] = {"unspec", "delta", "package", "section", "option"};
    const std::string op = step["op"];
    if (op == "lookup") {
        key = step["key"];
        std::memset(static_cast<void *>(&ptr), 0x55, sizeof ptr);
        const int rc = uci_lookup_ptr(ctx, &ptr, key.data(), step["extended"]);
        return {{"rc", rc},
                {"flags", static_cast<int>(ptr.flags)},
                {"target", static_cast<int>(ptr.target)},
                {"p", ptr.p != nullptr},
                {"s", described(ptr.s)},
                {"o", described(ptr.o)},
                {"last", described(ptr.last ? kinds[ptr.last->type] : nullptr)},
                {"package", described(ptr.package)},
                {"section", described(ptr.section)},
                {"option", described(ptr.option)},
                {"value", described(ptr.value)}};
    }
    if (op == "set") {
        const char *option = text(step, "option");
        ptr.option = option ? option : ptr.option;
        ptr.value = text(step, "value");
        const int rc = uci_set(ctx, &ptr);
        return {{"rc", rc}, {"o", rc ? json() : described(ptr.o)}};
    }
    if (op == "add_section") {
        uci_section *s = nullptr;
        const int rc = uci_add_section(ctx, ptr.p, text(step, "type"), &s);
        return {{"rc", rc}, {"s", described(s)}};
    }
    if (op == "load") {
        uci_package *p = nullptr;
        const int rc = uci_load(ctx, text(step, "name"), &p);
        ptr.p = rc ? ptr.p : p;
        return {{"rc", rc}, {"sections", p ? described(p->sections) : json()}};
    }
    if (op == "dump")
        return {{"sections", described(ptr.p->sections)}};
    if (op == "delete")
        return {{"rc", uci_delete(ctx, &ptr)}};
    if (op == "save")
        return {{"rc", uci_save(ctx, ptr.p)}};
    if (op == "commit")
        return {{"rc", uci_commit(ctx, &ptr.p, step["overwrite"])}};
    if (op == "unload")
        return {{"rc", uci_unload(ctx, ptr.p)}};
    if (op == "new_context") {
        uci_free_context(ctx);
        ctx = uci_alloc_context();
        ptr = {};
    }
    return nullptr;
}

void play(const json &c) {
    Library uci;
    write(CONFIGURATION, c["files"]);
    if (c.contains("deltas"))
        write(CHANGES, c["deltas"]);
    for (const json &step : c["steps"]) {
        const json got = uci.run(step);
        ASSERT_TRUE(got == step.value("expect", json()))
            << shown(step) << "\n  gave " << shown(got);
    }
    const json left{read(CONFIGURATION), read(CHANGES)},
        expected{c["files_after"], c["deltas_after"]};
    EXPECT_TRUE(left == expected) << shown(left) << "\n  not " << shown(expected);
}

} // namespace

struct Uci : SystemTest {};

TEST_F(Uci, BehavesAsRecorded) {
    for (const std::string file : {"daemon", "delta", "grammar", "lookup", "set-commit"}) {
        const json data = json::parse(std::ifstream(TEST_DATA "/uci-corpus/" + file + ".json"));
        for (const json &c : data["cases"]) {
            SCOPED_TRACE(file + ": " + c["name"].get<std::string>());
            SetUp();
            play(plain(c));
        }
    }
}
