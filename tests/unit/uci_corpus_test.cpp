// The configuration library. Recorded cases (tests/data/uci-corpus) hold calls with what each gives
// back and the bytes they leave behind; every case is a test of its own. The tests at the end try
// what such cases cannot hold. All directories are fresh ones.
#include <uci.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
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
    if (value.is_structured())
        std::transform(value.begin(), value.end(), value.begin(), plain);
    return value;
}

std::string shown(const json &value) {
    return value.dump(-1, ' ', true, json::error_handler_t::replace);
}

json text(const char *value) {
    return value ? json(value) : json();
}

template <typename Convert>
json items(const uci_list &list, Convert convert) {
    json result = json::array();
    uci_element *e;
    uci_foreach_element(&list, e) {
        result.push_back(convert(e));
    }
    return result;
}

json option_json(const uci_option *o) {
    if (!o)
        return nullptr;
    if (o->type == UCI_TYPE_STRING)
        return {{"name", o->e.name}, {"string", o->v.string}};
    return {{"name", o->e.name},
            {"list", items(o->v.list, [](uci_element *e) { return json(e->name); })}};
}

json section_json(const uci_section *s) {
    if (!s)
        return nullptr;
    return {{"type", s->type}, {"name", s->e.name}, {"anonymous", s->anonymous}};
}

json package_json(const uci_package *p) {
    return !p ? json() : items(p->sections, [](uci_element *e) {
        json section = section_json(uci_to_section(e));
        section["options"] = items(uci_to_section(e)->options,
                                   [](uci_element *o) { return option_json(uci_to_option(o)); });
        return section;
    });
}

json kind_of(const uci_element *e) {
    static const char *const names[] = {"unspec", "delta", "package", "section", "option"};
    return e ? json(names[e->type]) : json();
}

void write(const fs::path &file, const std::string &bytes) {
    fs::create_directory(file.parent_path());
    std::ofstream(file, std::ios::binary) << bytes;
}

json read(const fs::path &dir) {
    json files = json::object();
    std::error_code none; // no directory, no files
    for (const auto &entry : fs::directory_iterator(dir, none)) {
        std::ifstream in(entry.path(), std::ios::binary);
        files[entry.path().filename()] = std::string(std::istreambuf_iterator<char>(in), {});
    }
    return files;
}

// A configuration and a save directory, and a context that looks nowhere else.
class Uci : public testing::Test {
    fs::path base_;

  protected:
    uci_context *ctx = nullptr;
    uci_ptr ptr = {};
    fs::path conf, save;
    std::vector<std::string> texts; // what the pointer refers to

    Uci() {
        std::string name = testing::TempDir() + "uci-XXXXXX";
        if (!mkdtemp(name.data()))
            std::abort();
        base_ = name;
        conf = base_ / "conf";
        save = base_ / "save";
        fs::create_directory(conf);
        texts.reserve(200); // no text may move
        renew();
    }
    ~Uci() override {
        uci_free_context(ctx);
        fs::remove_all(base_);
    }

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
    const char *keep(const json &value) {
        return texts.emplace_back(value).c_str();
    }
    int lookup(const json &key, bool extended = true) {
        std::memset(static_cast<void *>(&ptr), 0x55, sizeof ptr);
        return uci_lookup_ptr(ctx, &ptr, texts.emplace_back(key).data(), extended);
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
    for (const std::string file : {"daemon", "delta", "grammar", "lookup", "set-commit"}) {
        std::ifstream in(TEST_DATA "/uci-corpus/" + file + ".json");
        const json data = json::parse(in);
        for (const json &c : data.at("cases")) {
            std::string name = file + "_" + c.at("name").get<std::string>();
            std::replace(name.begin(), name.end(), '-', '_');
            cases.push_back({name, plain(c)});
        }
    }
    return cases;
}

class UciCorpus : public Uci, public testing::WithParamInterface<Case> {
  protected:
    json run(const json &step) {
        const std::string op = step["op"];
        if (op == "lookup") {
            const int rc = lookup(step["key"], step["extended"]);
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
        if (op == "set") {
            const char *option = step.contains("option") ? keep(step["option"]) : nullptr;
            const int rc = set(option, keep(step["value"]));
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
            renew();
        return nullptr;
    }
};

TEST_P(UciCorpus, BehavesAsRecorded) {
    const json &c = GetParam().data;
    const json before = c.value("deltas", json::object());
    for (const auto &[name, bytes] : c["files"].items())
        write(conf / name, bytes);
    for (const auto &[name, bytes] : before.items())
        write(save / name, bytes);
    for (const json &step : c["steps"]) {
        const json got = run(step), expected = step.value("expect", json());
        ASSERT_TRUE(got == expected) << shown(step) << "\n  gave " << shown(got);
    }
    const json files = read(conf), deltas = read(save);
    EXPECT_TRUE(files == c["files_after"]) << shown(files) << "\n  not " << shown(c["files_after"]);
    EXPECT_TRUE(deltas == c["deltas_after"])
        << shown(deltas) << "\n  not " << shown(c["deltas_after"]);
}

INSTANTIATE_TEST_SUITE_P(Case, UciCorpus, testing::ValuesIn(all_cases()),
                         [](const auto &test) { return test.param.name; });

TEST_F(Uci, CommitReplacesTheTargetOfALinkAndKeepsItsMode) {
    write(conf / "target", "config m\n");
    fs::create_symlink("target", conf / "p");
    fs::permissions(conf / "target", fs::perms(0640));
    ASSERT_EQ(lookup("p.@m[0]"), UCI_OK);
    ASSERT_EQ(set("a", "b"), UCI_OK);
    ASSERT_EQ(uci_commit(ctx, &ptr.p, false), UCI_OK);
    const std::string written = "\nconfig m\n\toption a 'b'\n\n";
    EXPECT_EQ(read(conf), (json{{"target", written}, {"p", written}}));
    EXPECT_TRUE(fs::is_symlink(conf / "p"));
    EXPECT_EQ(fs::status(conf / "target").permissions(), fs::perms(0640));
}

TEST_F(Uci, AChangeSurvivesAFileThatBreaksBeforeItsCommit) {
    write(conf / "p", "config m 'x'\n");
    ASSERT_EQ(lookup("p.x"), UCI_OK);
    ASSERT_EQ(set("a", "b"), UCI_OK);
    write(conf / "p", "junk\n");
    EXPECT_EQ(uci_commit(ctx, &ptr.p, false), UCI_ERR_PARSE);
    EXPECT_EQ(read(conf), (json{{"p", "junk\n"}}));
    EXPECT_EQ(read(save), (json{{"p", "p.x.a='b'\n"}}));
}

TEST_F(Uci, NothingChangesWithoutASaveDirectory) {
    write(conf / "p", "config m 'x'\n");
    write(save, "not a directory");
    ASSERT_EQ(lookup("p.x"), UCI_OK);
    ASSERT_EQ(set("a", "b"), UCI_OK);
    EXPECT_EQ(uci_commit(ctx, &ptr.p, false), UCI_ERR_IO);
    EXPECT_EQ(read(conf), (json{{"p", "config m 'x'\n"}}));
}

} // namespace
