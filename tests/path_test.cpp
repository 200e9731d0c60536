// Path text and path lookup: how paths split into element names and value
// steps, and where a path leads in a tree of elements (type, offset, tags),
// checked against a small file whose element tree covers each case.
#include "sd_path.h"
#include "sd_stdio_file.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

using namespace orva_sd;

namespace {

constexpr unsigned long AUTO = static_cast<unsigned long>(-1);
using names_t = std::vector<std::string>;

names_t as_vector(std::list<std::string> const& l) { return {l.begin(), l.end()}; }

std::string steps_text(sd_projections const& p) { std::string s; for (auto step : p) s += step->to_string(); return s; }

} // namespace

TEST(Path, SplitsNamesAndSteps)
{
    // tail: offset into the path, -1 for none; steps: the texts of the steps made, in order
    struct row { char const* path; int elements_rc; names_t names; long tail; int projections_rc; char const* steps; };
    // clang-format off
    row const rows[] = {
        {"a/b/c",        0, {"a", "b", "c"},   -1, 0, ""},
        {"a/b.x[2].y",   0, {"a", "b"},         3, 0, ".x[2].y"},
        {"a[1][2]",      0, {"a"},              1, 0, "[1][2]"},
        {"a.b/",         0, {"a.b"},           -1, 0, ""},
        {"a.b/c",        0, {"a.b", "c"},      -1, 0, ""},
        {"a[1]/c",       0, {"a[1]", "c"},     -1, 0, ""},
        {"a/",           0, {"a"},             -1, 0, ""},
        {"/a",           0, {"", "a"},         -1, 0, ""},
        {".(p)[3]",      0, {".(p)"},           4, 0, "[3]"},
        {"[1]",         -1, {},                -1, 0, ""},
        {"a/[1]",       -1, {"a"},             -1, 0, ""},
        {"a[x]",         0, {"a"},              1, -1, ""},
        {"a//b",         0, {"a", "", "b"},    -1, 0, ""},
        {".(p.q)",       0, {".(p.q)"},        -1, 0, ""},
        {".(p.q).x",     0, {".(p.q)"},         6, 0, ".x"},
        {"a/b/.(c.d)[0]", 0, {"a", "b", ".(c.d)"}, 10, 0, "[0]"},
        {".(p).x)",      0, {".(p).x)"},       -1, 0, ""},   // the last ")" decides
        {"",             0, {},                -1, 0, ""},
        {"/",            0, {""},              -1, 0, ""},
        {".x",          -1, {},                -1, 0, ""},
        {"a/.x",        -1, {"a"},             -1, 0, ""},
        {"a.",           0, {"a"},              1, 0, "."},
        {"a..",          0, {"a"},              1, -1, ""},
        {"a.x..y",       0, {"a"},              1, -1, ".x"},  // steps made so far stay
        {"a[]",          0, {"a"},              1, -1, ""},
        {"a[ 7]",        0, {"a"},              1, 0, "[7]"},
        {"a[+7]",        0, {"a"},              1, 0, "[7]"},
        {"a[-1]",        0, {"a"},              1, 0, "[18446744073709551615]"},
        {"a[18446744073709551615]", 0, {"a"},   1, 0, "[18446744073709551615]"},
        {"a[18446744073709551616]", 0, {"a"},   1, -1, ""},
        {"a[1]x",        0, {"a"},              1, -1, "[1]"},
        {"a[1 ]",        0, {"a"},              1, -1, ""},
        {"a.b]c",        0, {"a"},              1, 0, ".b]c"},
        {"a.b)",         0, {"a"},              1, 0, ".b)"},
    };
    // clang-format on
    for (row const& r : rows) {
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

TEST(Path, WithoutTailAndParsePath)
{
    // Without a tail pointer projections are refused: the dotted-name form
    // appends its name first, the plain form nothing for the last component.
    struct row { char const* path; int rc; names_t names; } const rows[] = {
        {"a.b/", 0, {"a.b"}}, {"x/a.b", -1, {"x"}}, {"a[1]", -1, {}}, {".(p.q).x", -1, {".(p.q)"}}};
    for (auto const& r : rows) {
        std::list<std::string> names;
        EXPECT_EQ(parse_elements(r.path, names, nullptr), r.rc) << r.path;
        EXPECT_EQ(as_vector(names), r.names) << r.path;
    }

    std::list<std::string> names{"stale"};
    sd_projections steps;
    steps.add_array_projection(99);
    ASSERT_EQ(parse_path("top/a[2].x", names, steps), 0);
    EXPECT_EQ(as_vector(names), (names_t{"top", "a"}));
    EXPECT_EQ(steps_text(steps), "[2].x");
    EXPECT_EQ(parse_path(".x", names, steps), -1);
    EXPECT_TRUE(names.empty() && steps.empty());
}

namespace {

// A real file, whose root list can be taken away: the one failure of a
// lookup that calls the hook.
class tree_file : public sd_stdio_file {
public:
    using sd_stdio_file::sd_stdio_file;
    sd_element_list const* root_elements() const override
    {
        return null_roots ? nullptr : sd_stdio_file::root_elements();
    }
    bool null_roots = false;
};

using tag_list = std::vector<std::pair<unsigned long, int>>;
struct part { sd_element_ptr element; sd_type_ptr type; unsigned long offset; tag_list tags; long tail; };

class PathLookup : public ::testing::Test {
protected:
    void SetUp() override
    {
        auto pt = std::make_shared<sd_struct_type>(-1, 16); // {x:int32 @4, y:float64 @8}
        pt->add_field("x", SD_INT32, 4);
        pt->add_field("y", SD_FLOAT64, 8);
        // c: tag 2 at 0, int32 at 8; e: tag 3 at 0, no payload
        auto var = std::make_shared<sd_variant_type>(-1, 12);
        var->add_constructor("c", SD_INT32, 0, 2, 8);
        var->add_constructor("e", nullptr, 0, 3, 4);
        // deep: struct {k:int32 @0, w:outer @8}, the field k named like the
        // constructor of outer: k, tag 7 at 4, payload at 8: struct {p:int8 @0, q:var @4}
        auto inner = std::make_shared<sd_struct_type>(-1, AUTO);
        inner->add_field("p", SD_INT8, 0);
        inner->add_field("q", var, 4);
        auto outer = std::make_shared<sd_variant_type>(-1, AUTO);
        outer->add_constructor("k", inner, 4, 7, 8);
        auto deep = std::make_shared<sd_struct_type>(-1, AUTO);
        deep->add_field("k", SD_INT32, 0);
        deep->add_field("w", outer, 8);

        auto add = [this](char const* name, sd_type_ptr type, sd_element_ptr parent = nullptr) {
            return file.create_element(name, SDE_LOCAL, type, parent);
        };
        using dims = std::vector<unsigned long>;
        a = add("a", pt);
        arr = add("arr", std::make_shared<sd_array_type>(-1, pt, dims{4}));
        m = add("m", std::make_shared<sd_array_type>(-1, SD_INT16, dims{2, 3}));
        v = add("v", var);
        dp = add("deep", deep);
        g = add("g", nullptr);
        gb1 = add("b", SD_INT16, g); // before its namesake
        sd_element_ptr const ga = add("a", SD_INT8, g), gb2 = add("b2", SD_INT32, g);
        gdot = add("a.b", SD_UINT8, g);
        ASSERT_TRUE(a && arr && m && v && dp && g && ga && gb1 && gb2 && gdot);
        ASSERT_EQ(file.set_element_name(gb2.get(), "b"), 0); // siblings made equal
    }

    // find_element_part with every output primed with junk first.
    part lookup(char const* path) const
    {
        char const* tail = "stale";
        sd_type_ptr type = SD_BOOL;
        unsigned long offset = 77;
        std::list<variant_tag_info_t> tags{{999, -5}};
        part p{file.find_element_part(path, &tail, type, offset, tags), type, offset, {}, tail ? tail - path : -1};
        bool const kept = !tags.empty() && tags.front().offset == 999u;
        EXPECT_TRUE(kept) << "tags are added behind what the list holds";
        for (auto it = kept ? std::next(tags.begin()) : tags.begin(); it != tags.end(); ++it)
            p.tags.emplace_back(it->offset, it->value);
        return p;
    }

    tree_file file{sd_test::temp_path("paths.sd").c_str(), true};
    sd_element_ptr a, arr, m, v, dp, g, gb1, gdot;
};

} // namespace

TEST_F(PathLookup, PartsOfValues)
{
    struct row { char const* path; sd_element_ptr element; sd_type const* type; unsigned long offset;
                 tag_list tags; long tail; } const rows[] = {
        {"a.y", a, SD_FLOAT64.get(), 8, {}, 1},
        {"arr[2].y", arr, SD_FLOAT64.get(), 40, {}, 3},
        {"m[1][2]", m, SD_INT16.get(), 10, {}, 1},
        {"v.c", v, SD_INT32.get(), 8, {{0, 2}}, 1},
        {"v.e", v, nullptr, 4, {{0, 3}}, 1}, // payload-free: no type
        {"deep.w.k.q.c", dp, SD_INT32.get(), 28, {{12, 7}, {20, 2}}, 4},
        {"deep.k", dp, SD_INT32.get(), 0, {}, 4}, // on a struct, k is a field
        {"g/b", gb1, SD_INT16.get(), 0, {}, -1}, // first of equal names
        {"g/a.b/", gdot, SD_UINT8.get(), 0, {}, -1},
        {"g", g, nullptr, 0, {}, -1},
    };
    for (auto const& r : rows) {
        SCOPED_TRACE(r.path);
        sd_test::hook_counter hooks;
        part p = lookup(r.path);
        EXPECT_EQ(p.element, r.element);
        EXPECT_EQ(p.type.get(), r.type);
        EXPECT_EQ(p.offset, r.offset);
        EXPECT_EQ(p.tags, r.tags);
        EXPECT_EQ(p.tail, r.tail);
        EXPECT_EQ(hooks.calls(), 0);
    }

    // A row of a two-dimensional array is a new type that only the caller keeps alive.
    part row = lookup("m[1]");
    EXPECT_EQ(row.element, m);
    EXPECT_EQ(row.offset, 6u);
    EXPECT_EQ(row.type.use_count(), 1);
    ASSERT_TRUE(std::dynamic_pointer_cast<sd_array_type>(row.type));
    EXPECT_EQ(row.type->to_string(), "int16^3");
}

TEST_F(PathLookup, FailuresAreSilentButAMissingRootListCallsTheHook)
{
    char const* failing[] = {
        "", "zzz", "a/x", "g/zz",         // names nothing, no such root, no such child
        "a.z", "v.z",                     // no such field, no such constructor
        "g/a.x", "arr.x", "g.x", "v.e.x", // field step on a scalar, an array, nothing
        "a[0]", "g/a[0]", "g[0]",         // index step on a non-array
        "arr[4]", "m[2]", "m[1][3]", "m[1][2][0]", // out of range
        ".x", "a..", "a[1]x",             // syntax errors
    };
    sd_test::hook_counter silent;
    for (char const* path : failing)
        EXPECT_EQ(lookup(path).element, nullptr) << path;
    // find_element refuses a path that reaches into a value.
    EXPECT_EQ(file.find_element("g/a.b/"), gdot);
    EXPECT_EQ(file.find_element("a.y"), nullptr);
    EXPECT_EQ(file.find_element("g/a.b"), nullptr);
    EXPECT_EQ(silent.calls(), 0);

    // The root list is asked for only once the path has parsed.
    file.null_roots = true;
    std::pair<char const*, long> const rows[] = {{"a.y", 1}, {"", 1}, {".x", 0}, {"a..", 0}};
    for (auto const& r : rows) {
        sd_test::hook_counter hooks;
        EXPECT_EQ(lookup(r.first).element, nullptr) << r.first;
        EXPECT_EQ(hooks.calls(), r.second) << r.first;
    }
}
