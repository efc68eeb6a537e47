// The configuration library. Recorded cases (tests/data/uci-corpus) hold calls with what each gives
// back and the bytes they leave behind: those that the daemon makes, and loads, which show what was
// read.
#include "harness.h"
#include "hex.h"

#include <uci.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>

using namespace harness;
using nlohmann::json;

namespace {

constexpr char CONFIGURATION[] = "/etc/config", CHANGES[] = "/tmp/.uci";

// Bytes that are no UTF-8 text stand as {"hex": "fffe"} in the files.
json plain(json value) {
    if (value.is_object() && value.contains("hex"))
        return from_hex(value["hex"]);
    if (value.is_structured())
        std::transform(value.begin(), value.end(), value.begin(), plain);
    return value;
}

json described(const char *text) {
    return text ? json(text) : json();
}

json described(const uci_list &list);

json described(const uci_element *e) {
    if (e->type == UCI_TYPE_SECTION) {
        const uci_section *s = uci_to_section(e);
        return {{"type", s->type},
                {"name", e->name},
                {"anonymous", s->anonymous},
                {"options", described(s->options)}};
    }
    if (e->type != UCI_TYPE_OPTION)
        return e->name;
    const uci_option *o = uci_to_option(e);
    return o->type == UCI_TYPE_STRING ? json{{"name", e->name}, {"string", o->v.string}}
                                      : json{{"name", e->name}, {"list", described(o->v.list)}};
}

json described(const uci_list &list) {
    json result = json::array();
    uci_element *e;
    uci_foreach_element(&list, e) result.push_back(described(e));
    return result;
}

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

struct Uci : SystemTest {
    std::string key;
    std::unique_ptr<uci_context, decltype(&uci_free_context)> ctx{nullptr, uci_free_context};
    uci_ptr ptr{};

    json lookup(const json &step) {
        static const char *const kinds[] = {"unspec", "delta", "package", "section", "option"};
        key = step["key"];
        std::memset(static_cast<void *>(&ptr), 0x55, sizeof ptr);
        const int rc = uci_lookup_ptr(ctx.get(), &ptr, key.data(), step["extended"]);
        json section = ptr.s ? described(&ptr.s->e) : json();
        if (ptr.s)
            section.erase("options");
        return {{"rc", rc},
                {"flags", static_cast<int>(ptr.flags)},
                {"target", static_cast<int>(ptr.target)},
                {"p", ptr.p != nullptr},
                {"s", section},
                {"o", ptr.o ? described(&ptr.o->e) : json()},
                {"last", described(ptr.last ? kinds[ptr.last->type] : nullptr)},
                {"package", described(ptr.package)},
                {"section", described(ptr.section)},
                {"option", described(ptr.option)},
                {"value", described(ptr.value)}};
    }
    json run(const json &step) {
        if (step["op"] == "lookup")
            return lookup(step);
        if (step["op"] == "set") {
            if (step.contains("option"))
                ptr.option = step["option"].get_ref<const std::string &>().c_str();
            ptr.value = step["value"].get_ref<const std::string &>().c_str();
            const int rc = uci_set(ctx.get(), &ptr);
            return {{"rc", rc}, {"o", rc || !ptr.o ? json() : described(&ptr.o->e)}};
        }
        if (step["op"] == "load") {
            uci_package *p = nullptr;
            const int rc =
                uci_load(ctx.get(), step["name"].get_ref<const std::string &>().c_str(), &p);
            ptr.p = rc ? ptr.p : p;
            return {{"rc", rc}, {"sections", p ? described(p->sections) : json()}};
        }
        if (step["op"] == "commit")
            return {{"rc", uci_commit(ctx.get(), &ptr.p, step["overwrite"])}};
        ctx.reset(uci_alloc_context());
        ptr = {};
        return nullptr;
    }
};

} // namespace

TEST_F(Uci, BehavesAsRecorded) {
    for (const std::string file : {"daemon", "delta", "grammar", "lookup", "set-commit"}) {
        const json data = json::parse(std::ifstream(TEST_DATA "/uci-corpus/" + file + ".json"));
        for (const json &recorded : data["cases"]) {
            const json c = plain(recorded);
            SCOPED_TRACE(file + ": " + c["name"].get<std::string>());
            SetUp();
            run({{"op", "new_context"}});
            write(CONFIGURATION, c["files"]);
            write(CHANGES, c.value("deltas", json::object()));
            for (const json &step : c["steps"]) {
                const json got = run(step);
                ASSERT_EQ(got, step.value("expect", json())) << step;
            }
            EXPECT_EQ(read(CONFIGURATION), c["files_after"]);
            EXPECT_EQ(read(CHANGES), c["deltas_after"]);
        }
    }
}
