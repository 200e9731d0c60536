// The element store: sibling names, records rewritten in place or moved, removal
// relinking, damaged records and a large tree, checked in the bytes and by reopening.
#include "sd_stdio_file.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

using namespace orva_sd;
using bytes = std::vector<unsigned char>;
using names = std::vector<std::string>;

namespace {

template <class T>
T get(bytes const& b, unsigned long at)
{
    T v;
    std::memcpy(&v, &b.at(at + sizeof(T) - 1) + 1 - sizeof(T), sizeof(T));
    return v;
}

names root_names(sd_stdio_file const& f)
{
    names n;
    for (auto const& e : *f.root_elements())
        n.push_back(e->name);
    return n;
}

constexpr long PREV = 4, NEXT = 12; // offsets of the links in a record

using links = std::vector<std::pair<long, long>>; // offset and expected position

// The file's bytes, once its size and the links at the given offsets are checked.
bytes check_file(sd_stdio_file const& f, std::string const& path, unsigned long size, links const& expected)
{
    std::fflush(f.stream);
    bytes const x = sd_test::read_file(path);
    EXPECT_EQ(x.size(), size);
    for (auto const& l : expected)
        EXPECT_EQ(get<long>(x, l.first), l.second) << "at " << l.first;
    return x;
}

} // namespace

TEST(ElementStore, NamesAreUniqueAmongSiblingsOnlyAndTheTreePrintsByLevel)
{
    std::string const path = sd_test::temp_path("names.sd");
    sd_stdio_file f(path.c_str(), true);
    auto root = f.create_element("o", SDE_OPERATOR, nullptr, nullptr);
    auto o = f.create_element("o", SDE_OUTPUT, SD_FLOAT64, root);
    ASSERT_TRUE(o && f.create_element("a", static_cast<sde_tag_kind>(20), nullptr, o));
    for (auto const& parent : {sd_element_ptr(), root}) {
        sd_test::hook_counter hooks;
        EXPECT_FALSE(f.create_element("o", SDE_WIRE, SD_INT32, parent));
        EXPECT_EQ(hooks.calls(), 1);
    }
    check_file(f, path, 40 + 3 * 54, {}); // the refusals wrote nothing, and used no iid: a is 17
    auto a = f.create_element("a", SDE_ASSERT, SD_CHAR8, root);
    ASSERT_TRUE(a);
    EXPECT_EQ(root->to_string(""), "[14] OPERATOR o: t:none\n    [15] OUTPUT o: t:[13]\n"
                                   "        [16] a: t:none\n    [17] ASSERT a: t:[0]");
    EXPECT_EQ(a->to_string("> "), "> [17] ASSERT a: t:[0]");
}

TEST(ElementStore, RecordsAreRewrittenInPlaceWhenTheyFitAndMovedOtherwise)
{
    std::string const path = sd_test::temp_path("rename.sd");
    sd_stdio_file f(path.c_str(), true);
    for (char const* n : {"bb", "cc", "dd"}) // records of 55 bytes at 40, 95, 150
        ASSERT_TRUE(f.create_element(n, SDE_LOCAL, SD_INT16, nullptr));
    auto b = f.find_root_element("bb"), c = f.find_root_element("cc"), d = f.find_root_element("dd");
    ASSERT_EQ(f.set_element_name(d.get(), "ee"), 0); // same length
    ASSERT_EQ(f.set_element_name(c.get(), "c"), 0);  // shorter
    ASSERT_EQ(f.set_element_kind(d.get(), static_cast<sde_tag_kind>(200)), 0);
    bytes x = check_file(f, path, 205, {{95 + PREV, 40}, {95 + NEXT, 150}});
    EXPECT_EQ(get<unsigned int>(x, 95), 54u);
    EXPECT_EQ(x.at(150 + 46), 200); // the kind follows the two-byte name
    ASSERT_EQ(f.set_element_name(c.get(), "cc"), 0); // the old length no longer fits
    check_file(f, path, 260, {{40 + NEXT, 205}, {150 + PREV, 205}, {205 + PREV, 40}, {205 + NEXT, 150}});
    EXPECT_FALSE(f.find_element_block_by_pos(95)); // the old place is forgotten
    ASSERT_EQ(f.set_element_name(b.get(), "bbb"), 0); // one byte longer, at the head
    x = check_file(f, path, 316, {{24, 260}, {260 + PREV, -1}, {260 + NEXT, 205}, {205 + PREV, 260}});
    EXPECT_EQ(get<unsigned int>(x, 260), 56u);
    f.close();
    sd_stdio_file g(path.c_str(), false);
    EXPECT_EQ(root_names(g), names({"bbb", "cc", "ee"}));
    EXPECT_EQ(g.find_root_element("ee")->kind, -56); // the file keeps one byte, read as signed
}

TEST(ElementStore, RemovalRelinksNeighboursAndFreesTheGreatestIidForReuse)
{
    struct { int count, removed; links after; } const cases[] = { // records of 55 bytes from 40
        {1, 0, {{24, -1}}}, {3, 0, {{24, 95}, {95 + PREV, -1}}},
        {3, 1, {{24, 40}, {40 + NEXT, 150}, {150 + PREV, 40}}}, {3, 2, {{24, 40}, {95 + NEXT, -1}}}};
    for (auto const& c : cases) {
        SCOPED_TRACE(std::to_string(c.removed) + " of " + std::to_string(c.count));
        std::string const path = sd_test::temp_path("remove.sd");
        sd_stdio_file f(path.c_str(), true);
        for (int i = 0; i < c.count; ++i)
            ASSERT_TRUE(f.create_element("e" + std::to_string(i), SDE_PROBE, SD_UINT8, nullptr));
        ASSERT_EQ(f.remove_element(f.find_root_element("e" + std::to_string(c.removed)).get()), 0);
        EXPECT_FALSE(f.find_element_by_iid(14 + c.removed) || f.find_element_block_by_iid(14 + c.removed));
        names const kept = root_names(f);
        check_file(f, path, 40 + 55 * c.count, c.after);
        ASSERT_EQ(f.close(), 0);
        sd_stdio_file g(path.c_str(), false);
        EXPECT_EQ(root_names(g), kept);
        auto added = g.create_element("new", SDE_PROBE, nullptr, nullptr);
        ASSERT_TRUE(added);
        bool const greatest = c.removed == c.count - 1;
        EXPECT_EQ(added->iid, 14 + c.count - (greatest ? 1 : 0));
        EXPECT_EQ(g.find_element_block_by_iid(added->iid)->prev_block_pos, c.count == 1 ? -1 : greatest ? 95 : 150);
        EXPECT_EQ(g.first_element_block_pos, c.removed == 0 ? 95 : 40);
    }
}

TEST(ElementStore, OrphansAndDamagedRecordsRefuseTheWholeFile)
{
    std::string const path = sd_test::temp_path("damaged.sd");
    sd_stdio_file f(path.c_str(), true);
    auto p = f.create_element("p", SDE_INSTANCE, nullptr, nullptr); // 54 bytes at 40
    auto child = f.create_element("c", SDE_INPUT, SD_BOOL, p);       // 54 bytes at 94
    bytes const good = check_file(f, path, 148, {});
    // The child outlives its removed parent in memory; the file names a parent it no longer holds.
    ASSERT_EQ(f.remove_element(p.get()), 0);
    EXPECT_EQ(f.find_element_by_iid(15), child);
    EXPECT_TRUE(f.root_elements()->empty());
    ASSERT_EQ(f.close(), 0);
    sd_test::hook_counter orphan_hooks;
    EXPECT_FALSE(sd_stdio_file(path.c_str(), false).is_open());
    EXPECT_EQ(orphan_hooks.calls(), 2);
    struct { char const* what; unsigned long at; int value, hooks; } const cases[] = {
        {"unknown parent", 94 + 50, 99, 2},        {"unknown type", 94 + 46, 99, 2},
        {"name past the record", 40 + 40, 200, 2}, {"size below 4", 94, 3, 2},
        {"size past the file", 94, 60, 5},         {"size far past the file", 94, -16, 5},
        {"next into nothing", 40 + 12, 1 << 20, 3},
    };
    for (auto const& c : cases) {
        bytes x = good;
        std::memcpy(&x.at(c.at), &c.value, 4);
        sd_test::expect_refused(path, x, c.hooks, c.what);
    }
}

// Guards against work per element that grows with the tree.
TEST(ElementStore, AHundredThousandElementsRoundTripQuickly)
{
    std::string const path = sd_test::temp_path("big.sd");
    auto const start = std::chrono::steady_clock::now();
    sd_stdio_file f(path.c_str(), true);
    for (int r = 0; r < 100; ++r) {
        auto root = f.create_element("r" + std::to_string(r), SDE_OPERATOR, nullptr, nullptr);
        for (int i = 0; i < 999; ++i)
            ASSERT_TRUE(f.create_element("c" + std::to_string(i), SDE_OUTPUT, SD_FLOAT64, root));
    }
    ASSERT_EQ(f.close(), 0);
    sd_stdio_file g(path.c_str(), false);
    EXPECT_EQ(g.all_elements().size(), 100000u);
    EXPECT_EQ(g.root_elements()->size(), 100u);
    auto const last = g.find_element_by_iid(g.last_iid);
    ASSERT_TRUE(last && last->parent);
    EXPECT_EQ(last->parent->name + "/" + last->name + std::to_string(last->iid), "r99/c998100013");
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 20.0);
}
