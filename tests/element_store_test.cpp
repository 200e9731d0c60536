// The element store: names among siblings, renames in place and moved,
// removal relinking, kinds, damaged records, and a large tree, each checked
// in the file's bytes and by reopening.
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

bytes file_bytes(sd_stdio_file const& f, std::string const& path)
{
    std::fflush(f.stream);
    return sd_test::read_file(path);
}

constexpr long PREV = 4, NEXT = 12; // offsets of the links in a record

} // namespace

TEST(ElementStore, NamesAreUniqueAmongSiblingsOnlyAndRefusalsCostNothing)
{
    std::string const path = sd_test::temp_path("names.sd");
    sd_stdio_file f(path.c_str(), true);
    auto a = f.create_element("a", SDE_OPERATOR, nullptr, nullptr);
    auto b = f.create_element("b", SDE_OPERATOR, nullptr, nullptr);
    ASSERT_TRUE(a && b);
    ASSERT_TRUE(f.create_element("a", SDE_INPUT, SD_INT8, a));
    ASSERT_TRUE(f.create_element("a", SDE_INPUT, SD_INT8, b));
    auto const size = file_bytes(f, path).size();
    for (auto const& parent : {sd_element_ptr(), a}) {
        sd_test::hook_counter hooks;
        EXPECT_FALSE(f.create_element("a", SDE_WIRE, SD_INT32, parent));
        EXPECT_EQ(hooks.calls(), 1);
    }
    EXPECT_EQ(file_bytes(f, path).size(), size);
    EXPECT_EQ(f.create_element("c", SDE_WIRE, nullptr, nullptr)->iid, 18);
    EXPECT_EQ(a->children.size(), 1u);
}

TEST(ElementStore, RenamesStayInPlaceWhenTheyFitAndMoveOtherwise)
{
    std::string const path = sd_test::temp_path("rename.sd");
    sd_stdio_file f(path.c_str(), true);
    for (char const* n : {"bb", "cc", "dd"}) // records of 55 bytes at 40, 95, 150
        ASSERT_TRUE(f.create_element(n, SDE_LOCAL, SD_INT16, nullptr));
    auto b = f.find_root_element("bb"), c = f.find_root_element("cc"), d = f.find_root_element("dd");

    ASSERT_EQ(f.set_element_name(d.get(), "ee"), 0); // same length: in place
    ASSERT_EQ(f.set_element_name(c.get(), "c"), 0);  // shorter: in place
    bytes x = file_bytes(f, path);
    EXPECT_EQ(x.size(), 205u);
    EXPECT_EQ(get<unsigned int>(x, 95), 54u);
    EXPECT_EQ(get<long>(x, 95 + PREV), 40);
    EXPECT_EQ(get<long>(x, 95 + NEXT), 150);

    ASSERT_EQ(f.set_element_name(c.get(), "cc"), 0); // the old length no longer fits
    x = file_bytes(f, path);
    EXPECT_EQ(x.size(), 260u);
    EXPECT_EQ(f.find_element_block_by_iid(15)->pos, 205);
    EXPECT_FALSE(f.find_element_block_by_pos(95));
    EXPECT_EQ(get<long>(x, 40 + NEXT), 205);
    EXPECT_EQ(get<long>(x, 150 + PREV), 205);
    EXPECT_EQ(get<long>(x, 205 + PREV), 40);
    EXPECT_EQ(get<long>(x, 205 + NEXT), 150);

    ASSERT_EQ(f.set_element_name(b.get(), "bbb"), 0); // one byte longer, at the head
    x = file_bytes(f, path);
    EXPECT_EQ(get<long>(x, 24), 260);
    EXPECT_EQ(get<unsigned int>(x, 260), 56u);
    EXPECT_EQ(get<long>(x, 260 + PREV), -1);
    EXPECT_EQ(get<long>(x, 260 + NEXT), 205);
    EXPECT_EQ(get<long>(x, 205 + PREV), 260);
    f.close();
    EXPECT_EQ(root_names(sd_stdio_file(path.c_str(), false)), names({"bbb", "cc", "ee"}));
}

TEST(ElementStore, RemovalRelinksNeighboursAndFreesTheGreatestIidForReuse)
{
    struct {
        int count, removed;
        long head, prev_next, next_prev; // expected header and neighbour links
    } const cases[] = {{1, 0, -1, 0, 0}, {3, 0, 95, 0, -1}, {3, 1, 40, 150, 40}, {3, 2, 40, -1, 0}};
    for (auto const& c : cases) {
        SCOPED_TRACE(std::to_string(c.removed) + " of " + std::to_string(c.count));
        std::string const path = sd_test::temp_path("remove.sd");
        names kept;
        {
            sd_stdio_file f(path.c_str(), true);
            for (int i = 0; i < c.count; ++i)
                ASSERT_TRUE(f.create_element("e" + std::to_string(i), SDE_PROBE, SD_UINT8, nullptr));
            auto victim = f.find_root_element("e" + std::to_string(c.removed));
            ASSERT_EQ(f.remove_element(victim.get()), 0);
            EXPECT_FALSE(f.find_element_by_iid(victim->iid));
            kept = root_names(f);
        }
        bytes const x = sd_test::read_file(path);
        long const at = 40 + 55L * c.removed;
        EXPECT_EQ(get<long>(x, 24), c.head);
        EXPECT_EQ(c.removed > 0 ? get<long>(x, at - 55 + NEXT) : 0, c.prev_next);
        EXPECT_EQ(c.removed < c.count - 1 ? get<long>(x, at + 55 + PREV) : 0, c.next_prev);

        sd_stdio_file g(path.c_str(), false);
        ASSERT_TRUE(g.is_open());
        EXPECT_EQ(root_names(g), kept);
        auto added = g.create_element("new", SDE_PROBE, nullptr, nullptr);
        bool const greatest = c.removed == c.count - 1;
        EXPECT_EQ(added->iid, 14 + c.count - (greatest ? 1 : 0));
        auto const blk = g.find_element_block_by_iid(added->iid);
        EXPECT_EQ(blk->prev_block_pos, c.count == 1 ? -1 : (greatest ? 95 : 150));
        EXPECT_EQ(g.first_element_block_pos, c.count == 1 ? blk->pos : c.head);
    }
}

TEST(ElementStore, ChildrenOutliveARemovedParentUntilTheNextOpenFails)
{
    std::string const path = sd_test::temp_path("orphan.sd");
    {
        sd_stdio_file f(path.c_str(), true);
        auto p = f.create_element("p", SDE_AUTOMATON, nullptr, nullptr);
        auto c = f.create_element("c", SDE_STATE, nullptr, p);
        ASSERT_EQ(f.remove_element(p.get()), 0);
        EXPECT_EQ(f.find_element_by_iid(15), c);
        EXPECT_TRUE(f.root_elements()->empty());
        EXPECT_EQ(c->parent, p);
    }
    sd_test::hook_counter hooks;
    EXPECT_FALSE(sd_stdio_file(path.c_str(), false).is_open());
    EXPECT_EQ(hooks.calls(), 2);
}

TEST(ElementStore, KindKeepsItsLowByteSignedAcrossReopen)
{
    std::string const path = sd_test::temp_path("kind.sd");
    {
        sd_stdio_file f(path.c_str(), true);
        auto e = f.create_element("k", SDE_SENSOR, nullptr, nullptr);
        ASSERT_EQ(f.set_element_kind(e.get(), static_cast<sde_tag_kind>(200)), 0);
        EXPECT_EQ(e->kind, 200);
    }
    bytes const x = sd_test::read_file(path);
    EXPECT_EQ(x.size(), 94u); // rewritten in place
    EXPECT_EQ(x.at(40 + 45), 200);
    sd_stdio_file g(path.c_str(), false);
    ASSERT_TRUE(g.is_open());
    EXPECT_EQ(g.find_root_element("k")->kind, -56);
}

TEST(ElementStore, TextFormIndentsEachLevelByFourBlanks)
{
    sd_stdio_file f(sd_test::temp_path("text.sd").c_str(), true);
    auto op = f.create_element("op", SDE_OPERATOR, nullptr, nullptr);
    auto o = f.create_element("o", SDE_OUTPUT, SD_FLOAT64, op);
    ASSERT_TRUE(f.create_element("w", static_cast<sde_tag_kind>(20), nullptr, o));
    auto a = f.create_element("a", SDE_ASSERT, SD_CHAR8, op);
    EXPECT_EQ(op->to_string(""), "[14] OPERATOR op: t:none\n"
                                 "    [15] OUTPUT o: t:[13]\n"
                                 "        [16] w: t:none\n"
                                 "    [17] ASSERT a: t:[0]");
    EXPECT_EQ(a->to_string("> "), "> [17] ASSERT a: t:[0]");
}

TEST(ElementStore, DamagedRecordsRefuseTheWholeFile)
{
    std::string const path = sd_test::temp_path("damaged.sd");
    {
        sd_stdio_file f(path.c_str(), true);
        auto p = f.create_element("p", SDE_INSTANCE, nullptr, nullptr); // 54 bytes at 40
        ASSERT_TRUE(f.create_element("c", SDE_INPUT, SD_BOOL, p));        // 54 bytes at 94
    }
    bytes const good = sd_test::read_file(path);
    struct {
        char const* what;
        unsigned long at;
        int value, hooks;
    } const cases[] = {
        {"unknown parent", 94 + 50, 99, 2},   {"unknown type", 94 + 46, 99, 2},
        {"name past the record", 40 + 40, 200, 2}, {"size below 4", 94, 3, 2},
        {"size past the file", 94, 60, 5},    {"size far past the file", 94, -16, 5},
        {"next into nothing", 40 + 12, 1 << 20, 3},
    };
    for (auto const& c : cases) {
        bytes x = good;
        std::memcpy(&x.at(c.at), &c.value, 4);
        sd_test::write_file(path, x);
        sd_test::hook_counter hooks;
        EXPECT_FALSE(sd_stdio_file(path.c_str(), false).is_open()) << c.what;
        EXPECT_EQ(hooks.calls(), c.hooks) << c.what;
    }
}

TEST(ElementStore, AHundredThousandElementsRoundTripQuickly)
{
    std::string const path = sd_test::temp_path("big.sd");
    auto const start = std::chrono::steady_clock::now();
    {
        sd_stdio_file f(path.c_str(), true);
        for (int r = 0; r < 100; ++r) {
            auto root = f.create_element("r" + std::to_string(r), SDE_OPERATOR, nullptr, nullptr);
            for (int i = 0; i < 999; ++i)
                ASSERT_TRUE(f.create_element("c" + std::to_string(i), SDE_OUTPUT, SD_FLOAT64, root));
        }
    }
    sd_stdio_file g(path.c_str(), false);
    ASSERT_TRUE(g.is_open());
    EXPECT_EQ(g.all_elements().size(), 100000u);
    EXPECT_EQ(g.root_elements()->size(), 100u);
    auto const last = g.find_element_by_iid(g.last_iid);
    EXPECT_EQ(last->iid, 100013);
    EXPECT_EQ(last->name, "c998");
    EXPECT_EQ(last->parent->name, "r99");
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 20.0);
}
