// Runs the recorded cases of tests/data/uci-corpus: calls of the configuration library with what
// each gives back and the bytes it leaves behind. Every case is a test of its own; both directories
// are fresh ones.
#include <uci.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

// Bytes that are no UTF-8 text stand as {"hex": "fffe"} in the files.
json plain(json value) {
    if (value.is_object() && value.contains("hex")) {
        const std::string hex = value["hex"];
        std::string bytes;
        for (size_t i = 0; i < hex.size(); i += 2)
            bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
        return bytes;
    }
    if (value.is_structured()) {
        for (auto &part : value)
            part = plain(part);
    }
    return value;
}

std::string shown(const json &value) {
    return value.dump(-1, ' ', true, json::error_handler_t::replace);
}

json text(const char *value) {
    return value ? json(value) : json();
}

json option_json(const uci_option *o) {
    if (!o)
        return nullptr;
    if (o->type == UCI_TYPE_STRING)
        return {{"name", o->e.name}, {"string", o->v.string}};
    json items = json::array();
    uci_element *e;
    uci_foreach_element(&o->v.list, e) items.push_back(e->name);
    return {{"name", o->e.name}, {"list", items}};
}

json section_json(const uci_section *s) {
    if (!s)
        return nullptr;
    return {{"type", s->type}, {"name", s->e.name}, {"anonymous", s->anonymous}};
}

json package_json(const uci_package *p) {
    if (!p)
        return nullptr;
    json sections = json::array();
    uci_element *s, *o;
    uci_foreach_element(&p->sections, s) {
        json section = section_json(uci_to_section(s));
        section["options"] = json::array();
        uci_foreach_element(&uci_to_section(s)->options, o) section["options"].push_back(
            option_json(uci_to_option(o)));
        sections.push_back(section);
    }
    return sections;
}

json kind_of(const uci_element *e) {
    static const std::map<uci_type, const char *> names = {
        {UCI_TYPE_PACKAGE, "package"}, {UCI_TYPE_SECTION, "section"}, {UCI_TYPE_OPTION, "option"}};
    return e ? json(names.at(e->type)) : json();
}

// A configuration and a save directory, and a context that looks nowhere else.
class Uci {
    fs::path base_;

  public:
    uci_context *ctx = nullptr;
    uci_ptr ptr = {};
    fs::path conf, save;

    Uci() {
        std::string name = testing::TempDir() + "uci-XXXXXX";
        if (!mkdtemp(name.data()))
            std::abort();
        base_ = name;
        conf = base_ / "conf";
        save = base_ / "save";
        fs::create_directory(conf);
        renew();
    }
    ~Uci() {
        uci_free_context(ctx);
        fs::remove_all(base_);
    }
    Uci(const Uci &) = delete;
    Uci &operator=(const Uci &) = delete;

    void renew() {
        if (ctx)
            uci_free_context(ctx);
        ctx = uci_alloc_context();
        ptr = {};
        uci_set_confdir(ctx, conf.c_str());
        // The default save directory would stay on the path: whatever the machine holds there must
        // not play a part.
        uci_element *standard = list_to_element(ctx->delta_path.next);
        std::free(standard->name);
        standard->name = strdup(save.c_str());
        uci_set_savedir(ctx, save.c_str());
#ifdef UCI_CONF2DIR
        uci_set_conf2dir(ctx, nullptr);
#endif
    }

    static void write(const fs::path &file, const std::string &bytes) {
        fs::create_directory(file.parent_path());
        std::ofstream(file, std::ios::binary) << bytes;
    }
    static json read(const fs::path &dir) {
        json files = json::object();
        if (!fs::exists(dir))
            return files;
        for (const auto &entry : fs::directory_iterator(dir)) {
            std::ifstream in(entry.path(), std::ios::binary);
            files[entry.path().filename()] = std::string(std::istreambuf_iterator<char>(in), {});
        }
        return files;
    }

    // `key` is split in place and must live as long as ptr is used.
    int lookup(std::string &key, bool extended = true) {
        std::memset(&ptr, 0x55, sizeof ptr);
        return uci_lookup_ptr(ctx, &ptr, key.data(), extended);
    }
    int set(const char *option, const char *value) {
        if (option)
            ptr.option = option;
        ptr.value = value;
        return uci_set(ctx, &ptr);
    }
};

struct Case {
    std::string name;
    json data;
};
void PrintTo(const Case &c, std::ostream *out) {
    *out << c.name;
}

std::vector<Case> all_cases() {
    std::vector<Case> cases;
    for (const auto &file : fs::directory_iterator(TEST_DATA "/uci-corpus")) {
        if (file.path().extension() != ".json")
            continue;
        std::ifstream in(file.path());
        const json data = json::parse(in);
        for (const json &c : data.at("cases")) {
            std::string name = file.path().stem().string() + "_" + c.at("name").get<std::string>();
            std::replace(name.begin(), name.end(), '-', '_');
            cases.push_back({name, plain(c)});
        }
    }
    return cases;
}

class UciCorpus : public testing::TestWithParam<Case> {
  protected:
    Uci uci_;
    std::vector<std::string> texts_; // what the pointer refers to

    const char *keep(const json &value) { return texts_.emplace_back(value).c_str(); }

    json lookup(const json &step) {
        std::string &key = texts_.emplace_back(step["key"]);
        const int rc = uci_.lookup(key, step["extended"]);
        const uci_ptr &ptr = uci_.ptr;
        return {{"rc", rc},
                {"flags", static_cast<int>(ptr.flags)},
                {"target", static_cast<int>(ptr.target)},
                {"p", ptr.p != nullptr},
                {"s", section_json(ptr.s)},
                {"o", option_json(ptr.o)},
                {"last", kind_of(ptr.last)},
                {"package", text(ptr.package)},
                {"section", text(ptr.section)},
                {"option", text(ptr.option)},
                {"value", text(ptr.value)}};
    }

    json run(const json &step) {
        const std::string op = step["op"];
        uci_context *ctx = uci_.ctx;
        uci_ptr &ptr = uci_.ptr;
        if (op == "lookup")
            return lookup(step);
        if (op == "set") {
            const char *option = step.contains("option") ? keep(step["option"]) : nullptr;
            const int rc = uci_.set(option, keep(step["value"]));
            return {{"rc", rc}, {"o", rc ? json() : option_json(ptr.o)}};
        }
        if (op == "add_section") {
            uci_section *s = nullptr;
            const int rc = uci_add_section(ctx, ptr.p, keep(step["type"]), &s);
            return {{"rc", rc}, {"s", section_json(s)}};
        }
        if (op == "load") {
            uci_package *p = nullptr;
            const int rc = uci_load(ctx, keep(step["name"]), &p);
            ptr.p = rc ? ptr.p : p;
            return {{"rc", rc}, {"sections", package_json(p)}};
        }
        if (op == "dump")
            return {{"sections", package_json(ptr.p)}};
        if (op == "delete")
            return {{"rc", uci_delete(ctx, &ptr)}};
        if (op == "save")
            return {{"rc", uci_save(ctx, ptr.p)}};
        if (op == "commit")
            return {{"rc", uci_commit(ctx, &ptr.p, step["overwrite"])}};
        if (op == "unload")
            return {{"rc", uci_unload(ctx, ptr.p)}};
        if (op == "new_context")
            uci_.renew();
        return nullptr;
    }
};

TEST_P(UciCorpus, BehavesAsRecorded) {
    const json &c = GetParam().data;
    texts_.reserve(200); // no text may move
    const json before = c.value("deltas", json::object());
    for (const auto &[name, bytes] : c["files"].items())
        Uci::write(uci_.conf / name, bytes);
    for (const auto &[name, bytes] : before.items())
        Uci::write(uci_.save / name, bytes);
    for (const json &step : c["steps"]) {
        const json got = run(step);
        const json expected = step.value("expect", json());
        ASSERT_TRUE(got == expected) << shown(step) << "\n  gave " << shown(got);
    }
    const json files = Uci::read(uci_.conf), deltas = Uci::read(uci_.save);
    EXPECT_TRUE(files == c["files_after"]) << shown(files) << "\n  not " << shown(c["files_after"]);
    EXPECT_TRUE(deltas == c["deltas_after"])
        << shown(deltas) << "\n  not " << shown(c["deltas_after"]);
}

INSTANTIATE_TEST_SUITE_P(Case, UciCorpus, testing::ValuesIn(all_cases()),
                         [](const auto &test) { return test.param.name; });

} // namespace
