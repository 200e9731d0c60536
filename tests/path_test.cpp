// Path text and path lookup: how paths split into element names and value
// steps, and where a path leads in a tree of elements (type, offset, tags),
// checked against a small in-memory file.
#include "sd_element.h"
#include "sd_file.h"
#include "sd_path.h"
#include "sd_type.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

using namespace orva_sd;

namespace {

constexpr unsigned long AUTO = static_cast<unsigned long>(-1);

std::vector<std::string> as_vector(std::list<std::string> const& l)
{
    return {l.begin(), l.end()};
}

std::string steps_text(sd_projections const& p)
{
    std::string s;
    for (sd_projection const* step : p)
        s += step->to_string();
    return s;
}

struct parse_row {
    char const* path;
    int elements_rc;
    std::vector<std::string> names;
    long tail; // offset into path, -1 for none
    int projections_rc;
    char const* steps; // texts of the steps made, in order
};

// clang-format off
const parse_row parse_rows[] = {
    {"a/b/c",        0, {"a", "b", "c"},   -1, 0, ""},
    {"a/b.x[2].y",   0, {"a", "b"},         3, 0, ".x[2].y"},
    {"a[1][2]",      0, {"a"},              1, 0, "[1][2]"},
    {"a.b/c",        0, {"a.b", "c"},      -1, 0, ""},
    {"a[1]/c",       0, {"a[1]", "c"},     -1, 0, ""},
    {"a.b/",         0, {"a.b"},           -1, 0, ""},
    {"a/",           0, {"a"},             -1, 0, ""},
    {"/a",           0, {"", "a"},         -1, 0, ""},
    {"a//b",         0, {"a", "", "b"},    -1, 0, ""},
    {".(p.q)",       0, {".(p.q)"},        -1, 0, ""},
    {".(p.q).x",     0, {".(p.q)"},         6, 0, ".x"},
    {".(p)[3]",      0, {".(p)"},           4, 0, "[3]"},
    {"a/b/.(c.d)[0]", 0, {"a", "b", ".(c.d)"}, 10, 0, "[0]"},
    {".(p).x)",      0, {".(p).x)"},       -1, 0, ""},   // the last ")" decides
    {"",             0, {},                -1, 0, ""},
    {"/",            0, {""},              -1, 0, ""},
    {".x",          -1, {},                -1, 0, ""},
    {"[1]",         -1, {},                -1, 0, ""},
    {"a/.x",        -1, {"a"},             -1, 0, ""},
    {"a/[1]",       -1, {"a"},             -1, 0, ""},
    {"a.",           0, {"a"},              1, 0, "."},
    {"a[1].",        0, {"a"},              1, 0, "[1]."},
    {"a..",          0, {"a"},              1, -1, ""},
    {"a.[1]",        0, {"a"},              1, -1, ""},
    {"a.x..y",       0, {"a"},              1, -1, ".x"},  // steps made so far stay
    {"a[]",          0, {"a"},              1, -1, ""},
    {"a[x]",         0, {"a"},              1, -1, ""},
    {"a[--1]",       0, {"a"},              1, -1, ""},
    {"a[1",          0, {"a"},              1, -1, ""},
    {"a[ 7]",        0, {"a"},              1, 0, "[7]"},
    {"a[+7]",        0, {"a"},              1, 0, "[7]"},
    {"a[-1]",        0, {"a"},              1, 0, "[18446744073709551615]"},
    {"a[-18446744073709551615]", 0, {"a"},  1, 0, "[1]"},
    {"a[18446744073709551615]", 0, {"a"},   1, 0, "[18446744073709551615]"},
    {"a[18446744073709551616]", 0, {"a"},   1, -1, ""},
    {"a[1]x",        0, {"a"},              1, -1, "[1]"},
    {"a[1 ]",        0, {"a"},              1, -1, ""},
    {"a[1]]",        0, {"a"},              1, -1, "[1]"},
    {"a.b]c",        0, {"a"},              1, 0, ".b]c"},
    {"a.b)",         0, {"a"},              1, 0, ".b)"},
};
// clang-format on

} // namespace

TEST(Path, SplitsNamesAndSteps)
{
    for (parse_row const& r : parse_rows) {
        SCOPED_TRACE(r.path);
        std::list<std::string> names{"stale"};
        char const* tail = "stale";
        ASSERT_EQ(parse_elements(r.path, names, &tail), r.elements_rc);
        EXPECT_EQ(as_vector(names), r.names);
        if (r.elements_rc != 0)
            continue;
        EXPECT_EQ(tail ? tail - r.path : -1, r.tail);
        if (!tail)
            continue;
        sd_projections steps;
        steps.add_struct_projection("stale");
        EXPECT_EQ(parse_projections(tail, steps), r.projections_rc);
        EXPECT_EQ(steps_text(steps), r.steps);
    }
}

TEST(Path, NamesWithoutTailRefuseProjections)
{
    struct row {
        char const* path;
        int rc;
        std::vector<std::string> names;
    } rows[] = {
        {"a/b", 0, {"a", "b"}},
        {"a.b/", 0, {"a.b"}},
        {".(p.q)", 0, {".(p.q)"}},
        {"x/a.b", -1, {"x"}},        // nothing appended for the last component
        {"a[1]", -1, {}},
        {".(p.q).x", -1, {".(p.q)"}}, // the dotted name is appended first
    };
    for (auto const& r : rows) {
        std::list<std::string> names;
        EXPECT_EQ(parse_elements(r.path, names, nullptr), r.rc) << r.path;
        EXPECT_EQ(as_vector(names), r.names) << r.path;
    }
}

TEST(Path, StepClassesAndParsePath)
{
    std::list<std::string> names{"stale"};
    sd_projections steps;
    steps.add_array_projection(99);
    ASSERT_EQ(parse_path("top/a[2].x", names, steps), 0);
    EXPECT_EQ(as_vector(names), (std::vector<std::string>{"top", "a"}));
    ASSERT_EQ(steps.size(), 2u);
    auto index = dynamic_cast<sd_array_projection const*>(steps.front());
    auto field = dynamic_cast<sd_struct_projection const*>(steps.back());
    ASSERT_TRUE(index && field);
    EXPECT_EQ(index->index, 2u);
    EXPECT_EQ(index->to_string(), "[2]");
    EXPECT_EQ(field->name, "x");
    EXPECT_EQ(field->to_string(), ".x");

    EXPECT_EQ(parse_path("a..", names, steps), -1);
    EXPECT_EQ(parse_path(".x", names, steps), -1);
    EXPECT_TRUE(names.empty());
    EXPECT_TRUE(steps.empty());
}

// ---------------------------------------------------------------------------
// Lookup against an element tree

namespace {

// A file that is nothing but an element tree; the lookups under test use
// root_elements() alone.
class tree_file : public sd_file {
public:
    ~tree_file() override
    {
        // Parents and children hold each other; cut the links.
        for (auto& e : made_) {
            e->children.clear();
            e->parent.reset();
        }
    }

    sd_element_ptr add(char const* name, sd_type_ptr type, sd_element_ptr parent = nullptr)
    {
        auto e = std::make_shared<sd_element>(next_iid_++, name, SDE_LOCAL, std::move(type), parent,
                                              this);
        (parent ? parent->children : roots_).push_back(e);
        made_.push_back(e);
        return e;
    }

    bool null_roots = false;

    sd_element_list const* root_elements() const override { return null_roots ? nullptr : &roots_; }

    unsigned int format_version() const override { return 1001000; }
    char const* format_version_str() const override { return "1.1"; }
    bool is_open() const override { return true; }
    int close() override { return 0; }
    sd_element_ptr create_element(std::string const&, sde_tag_kind, sd_type_ptr const&,
                                  sd_element_ptr const&) override { return nullptr; }
    sd_element_map const& all_elements() const override { return all_; }
    int set_element_name(sd_element*, std::string const&) override { return -1; }
    int set_element_type(sd_element*, sd_type_ptr const&) override { return -1; }
    int set_element_kind(sd_element*, sde_tag_kind) override { return -1; }
    int remove_element(sd_element*) override { return -1; }
    sd_type_map const& user_types() const override { return types_; }
    int append_raw_value(sd_element const*, void const*) override { return -1; }
    sd_value_iterator* create_value_iterator(sd_element const*, sd_type_ptr const&) const override
    {
        return nullptr;
    }
    sd_value_iterator* create_value_iterator(char const*, sd_type_ptr const&) const override
    {
        return nullptr;
    }
    int append_sequence(sd_element const*, sd_sequence*) override { return -1; }
    sd_sequence_iterator* create_sequence_iterator(sd_element const*) const override
    {
        return nullptr;
    }

private:
    int next_iid_ = 14;
    sd_element_list roots_;
    std::vector<sd_element_ptr> made_;
    sd_element_map all_;
    sd_type_map types_;
};

using tag_list = std::vector<std::pair<unsigned long, int>>;

tag_list as_pairs(std::list<variant_tag_info_t> const& tags)
{
    tag_list v;
    for (auto const& t : tags)
        v.emplace_back(t.offset, t.value);
    return v;
}

class PathLookup : public ::testing::Test {
protected:
    void SetUp() override
    {
        // struct {x:int32 @4, y:float64 @8}, 16 bytes
        pt = std::make_shared<sd_struct_type>(-1, 16);
        pt->add_field("x", SD_INT32, 4);
        pt->add_field("y", SD_FLOAT64, 8);
        // c: tag 2 at 0, int32 at 8; e: tag 3 at 0, no payload
        var = std::make_shared<sd_variant_type>(-1, 12);
        var->add_constructor("c", SD_INT32, 0, 2, 8);
        var->add_constructor("e", nullptr, 0, 3, 4);
        // struct {c:int64 @4}: a field named like the constructor
        same = std::make_shared<sd_struct_type>(-1, AUTO);
        same->add_field("c", SD_INT64, 4);
        // struct {pad:int64 @0, f:var @16}
        holder = std::make_shared<sd_struct_type>(-1, AUTO);
        holder->add_field("pad", SD_INT64, 0);
        holder->add_field("f", var, 16);
        // struct {h:int32 @0, w:outer @8}; outer: k, tag 7 at 4, payload at 8:
        // struct {p:int8 @0, q:var @4}
        auto inner = std::make_shared<sd_struct_type>(-1, AUTO);
        inner->add_field("p", SD_INT8, 0);
        inner->add_field("q", var, 4);
        auto outer = std::make_shared<sd_variant_type>(-1, AUTO);
        outer->add_constructor("k", inner, 4, 7, 8);
        deep = std::make_shared<sd_struct_type>(-1, AUTO);
        deep->add_field("h", SD_INT32, 0);
        deep->add_field("w", outer, 8);
        auto colour = std::make_shared<sd_enum_type>(-1, SD_INT32);
        colour->add_value("x", 1L);

        a = file.add("a", pt);
        using dims = std::vector<unsigned long>;
        arr = file.add("arr", std::make_shared<sd_array_type>(-1, pt, dims{4}));
        m = file.add("m", std::make_shared<sd_array_type>(-1, SD_INT16, dims{2, 3}));
        v = file.add("v", var);
        sv = file.add("sv", holder);
        dp = file.add("deep", deep);
        sm = file.add("same", same);
        plain = file.add("plain", SD_INT32);
        en = file.add("en", colour);
        imp = file.add("imp", std::make_shared<sd_imported_type>(-1, 8));
        g = file.add("g", nullptr);
        ga = file.add("a", SD_INT8, g);
        gb1 = file.add("b", SD_INT16, g);
        gb2 = file.add("b", SD_INT32, g); // equal sibling name, as after a rename
        gdot = file.add("a.b", SD_UINT8, g);
    }

    tree_file file;
    std::shared_ptr<sd_struct_type> pt, same, holder, deep;
    std::shared_ptr<sd_variant_type> var;
    sd_element_ptr a, arr, m, v, sv, dp, sm, plain, en, imp, g, ga, gb1, gb2, gdot;
};

} // namespace

TEST_F(PathLookup, PartsOfValues)
{
    struct row {
        char const* path;
        sd_element_ptr element;
        sd_type const* type;
        unsigned long offset;
        tag_list tags;
        long tail;
    } rows[] = {
        {"a", a, pt.get(), 0, {}, -1},
        {"a.y", a, SD_FLOAT64.get(), 8, {}, 1},
        {"a.x", a, SD_INT32.get(), 4, {}, 1},
        {"arr[2].y", arr, SD_FLOAT64.get(), 40, {}, 3},
        {"arr[3]", arr, pt.get(), 48, {}, 3},
        {"m[1][2]", m, SD_INT16.get(), 10, {}, 1},
        {"m[0][1]", m, SD_INT16.get(), 2, {}, 1},
        {"v.c", v, SD_INT32.get(), 8, {{0, 2}}, 1},
        {"v.e", v, nullptr, 4, {{0, 3}}, 1}, // payload-free: no type
        {"sv.f.c", sv, SD_INT32.get(), 24, {{16, 2}}, 2},
        {"deep.w.k.q.c", dp, SD_INT32.get(), 28, {{12, 7}, {20, 2}}, 4},
        {"deep.w.k.p", dp, SD_INT8.get(), 16, {{12, 7}}, 4},
        {"same.c", sm, SD_INT64.get(), 4, {}, 4}, // same text, a field step
        {"g/a", ga, SD_INT8.get(), 0, {}, -1},
        {"g/b", gb1, SD_INT16.get(), 0, {}, -1}, // first of equal names
        {"g/a.b/", gdot, SD_UINT8.get(), 0, {}, -1},
        {"g", g, nullptr, 0, {}, -1},
    };
    for (auto const& r : rows) {
        SCOPED_TRACE(r.path);
        sd_test::hook_counter hooks;
        char const* tail = "stale";
        sd_type_ptr type = SD_BOOL;
        unsigned long offset = 77;
        std::list<variant_tag_info_t> tags{{999, -5}}; // kept: new tags go behind
        auto e = file.find_element_part(r.path, &tail, type, offset, tags);
        EXPECT_EQ(e, r.element);
        EXPECT_EQ(type.get(), r.type);
        EXPECT_EQ(offset, r.offset);
        tag_list want{{999, -5}};
        want.insert(want.end(), r.tags.begin(), r.tags.end());
        EXPECT_EQ(as_pairs(tags), want);
        EXPECT_EQ(tail ? tail - r.path : -1, r.tail);
        EXPECT_EQ(hooks.calls(), 0);
    }
}

TEST_F(PathLookup, RowOfTwoDimensionalArrayIsTemporaryType)
{
    char const* tail = nullptr;
    sd_type_ptr type;
    unsigned long offset = 0;
    std::list<variant_tag_info_t> tags;
    ASSERT_EQ(file.find_element_part("m[1]", &tail, type, offset, tags), m);
    EXPECT_EQ(offset, 6u);
    EXPECT_EQ(type.use_count(), 1); // only the caller keeps it alive
    auto row = std::dynamic_pointer_cast<sd_array_type>(type);
    ASSERT_TRUE(row);
    EXPECT_NE(row.get(), m->type.get());
    EXPECT_EQ(row->iid(), -1);
    EXPECT_EQ(row->dims, (std::vector<unsigned long>{3}));
    EXPECT_EQ(row->base_type, SD_INT16);
    EXPECT_EQ(row->mem_size(), 6u);
}

TEST_F(PathLookup, FailuresAreSilent)
{
    char const* failing[] = {
        "",             // names nothing
        "zzz",          // no such root
        "a/x",          // no such child
        "g/zz",
        "a.z",          // no such field
        "v.z",          // no such constructor
        "plain.x",      // field step on a scalar
        "en.x",         // ... on an enum
        "imp.x",        // ... on an imported type
        "arr.x",        // ... on an array
        "g.x",          // ... on an element without type
        "v.e.x",        // ... on a payload-free constructor
        "a[0]",         // index step on a struct
        "plain[0]",
        "g[0]",
        "arr[4]",       // out of range
        "m[2]",
        "m[1][3]",
        "m[1][2][0]",
        ".x",           // syntax errors
        "a..",
        "a[1]x",
    };
    for (char const* path : failing) {
        sd_test::hook_counter hooks;
        char const* tail = nullptr;
        sd_type_ptr type;
        unsigned long offset = 0;
        std::list<variant_tag_info_t> tags;
        EXPECT_EQ(file.find_element_part(path, &tail, type, offset, tags), nullptr) << path;
        EXPECT_EQ(hooks.calls(), 0) << path;
    }
}

TEST_F(PathLookup, MissingRootListCallsHookAfterParsing)
{
    file.null_roots = true;
    struct row {
        char const* path;
        long hooks;
    } rows[] = {{"a.y", 1}, {"", 1}, {".x", 0}, {"a..", 0}};
    for (auto const& r : rows) {
        sd_test::hook_counter hooks;
        char const* tail = nullptr;
        sd_type_ptr type;
        unsigned long offset = 0;
        std::list<variant_tag_info_t> tags;
        EXPECT_EQ(file.find_element_part(r.path, &tail, type, offset, tags), nullptr) << r.path;
        EXPECT_EQ(hooks.calls(), r.hooks) << r.path;
    }
}

TEST_F(PathLookup, FindElementRefusesParts)
{
    sd_test::hook_counter hooks;
    EXPECT_EQ(file.find_element("a"), a);
    EXPECT_EQ(file.find_element("g/b"), gb1);
    EXPECT_EQ(file.find_element("g/a.b/"), gdot);
    EXPECT_EQ(file.find_element("a.y"), nullptr); // exists, but is a part
    EXPECT_EQ(file.find_element("m[0]"), nullptr);
    EXPECT_EQ(file.find_element("g/a.b"), nullptr);
    EXPECT_EQ(file.find_element(""), nullptr);
    EXPECT_EQ(file.find_element("zzz"), nullptr);
    EXPECT_EQ(hooks.calls(), 0);
}
