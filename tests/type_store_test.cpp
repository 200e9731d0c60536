// The type store: user types stored with the first element that uses them, dependencies
// first, one iid counter with the elements, and the chain read back at open.
#include "sd_stdio_file.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using namespace orva_sd;
using bytes = std::vector<unsigned char>;

namespace {

using sd_test::get;

// Positions of the type records, walked along next_block_pos from the header.
std::vector<long> type_chain(bytes const& d)
{
    std::vector<long> chain;
    for (long pos = get<long>(d, 16); pos != -1 && chain.size() < 100; pos = get<long>(d, pos + 12))
        chain.push_back(pos);
    return chain;
}

unsigned long const AUTO = static_cast<unsigned long>(-1);
constexpr long FIELD0_TYPE = 50, FIELD1_TYPE = 67; // of a struct of two one-letter fields

} // namespace

TEST(TypeStore, DependenciesAreStoredFirstAndOnlyOnce)
{
    std::string const path = sd_test::temp_path("types.sd");
    auto const en = std::make_shared<sd_enum_type>(-1, SD_INT16);
    en->add_value("lo", 1L);
    auto const st = std::make_shared<sd_struct_type>(-1, AUTO);
    st->add_field("e", en, AUTO);
    st->add_field("i", SD_INT8, AUTO);
    sd_stdio_file f(path.c_str(), true);
    auto const e1 = f.create_element("s1", SDE_SIGNAL, st, nullptr);
    ASSERT_TRUE(e1);
    EXPECT_EQ(e1->iid, 16);
    EXPECT_EQ(f.create_element("s2", SDE_SIGNAL, st, nullptr)->iid, 17);
    ASSERT_EQ(f.close(), 0);
    bytes const d = sd_test::read_file(path);
    auto const chain = type_chain(d);
    ASSERT_EQ(chain.size(), 2u); // the second element added no type
    EXPECT_EQ(chain[0], 40);
    EXPECT_EQ(get<long>(d, chain[1] + 4), 40);
    EXPECT_EQ(get<int>(d, 40 + 20), 14);
    EXPECT_EQ(d.at(40 + 24), 3); // enum
    EXPECT_EQ(get<int>(d, chain[1] + 20), 15);
    EXPECT_EQ(get<int>(d, chain[1] + FIELD0_TYPE), 14);
    EXPECT_EQ(get<int>(d, chain[1] + FIELD1_TYPE), 4);
    sd_stdio_file g(path.c_str(), false);
    EXPECT_EQ(g.find_root_element("s2")->type, g.user_types().at(15));
    EXPECT_EQ(g.create_element("s3", SDE_SIGNAL, nullptr, nullptr)->iid, 18);
    ASSERT_EQ(g.close(), 0);
    // width 1 patches only the low byte of value (the files are little-endian).
    // A bad klass is refused without a hook of the record reader, so only the
    // chain reader's one remains; a cut-short body fails by an out-of-range read,
    // also without a hook of its own. The enum record is 51 bytes long: 31 ends
    // it inside the enumerator count, behind its base.
    struct { char const* what; long at; int value, hooks; unsigned long width = 4; } const damaged[] = {
        {"field names an unknown iid", chain[1] + FIELD0_TYPE, 99, 2},
        {"field names a later record", chain[1] + FIELD0_TYPE, 15, 2},
        {"size below 4", chain[0], 3, 2}, {"size past the file", chain[1], 100000, 5},
        {"klass 0", chain[0] + 24, 0, 1, 1}, {"klass 6", chain[0] + 24, 6, 1, 1},
        {"enum base is a user iid", chain[0] + 25, 14, 2},
        {"enum body cut short", chain[0], 31, 1}};
    ASSERT_EQ(get<unsigned int>(d, chain[0]), 51u);
    for (auto const& c : damaged) {
        bytes x = d;
        std::memcpy(&x.at(c.at), &c.value, c.width);
        sd_test::expect_refused(path, x, c.hooks, c.what);
    }
}

TEST(TypeStore, ATypeReachedTwiceIsStoredTwiceAndReadBackApart)
{
    std::string const path = sd_test::temp_path("twice.sd");
    auto const arr = std::make_shared<sd_array_type>(-1, SD_INT32, std::vector<unsigned long>{3});
    auto const st = std::make_shared<sd_struct_type>(-1, AUTO);
    st->add_field("a", arr, AUTO);
    st->add_field("b", arr, AUTO);
    sd_stdio_file f(path.c_str(), true);
    auto const e = f.create_element("s", SDE_WIRE, st, nullptr);
    ASSERT_TRUE(e);
    EXPECT_EQ(e->iid, 17);
    EXPECT_EQ(arr->iid(), 15); // the later store wins on the object
    EXPECT_EQ(f.user_types().at(14), f.user_types().at(15)); // one object under both iids
    ASSERT_EQ(f.close(), 0);
    bytes const d = sd_test::read_file(path);
    auto const chain = type_chain(d);
    ASSERT_EQ(chain.size(), 3u);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(get<int>(d, chain[i] + 20), 14 + i);
    EXPECT_EQ(get<unsigned int>(d, chain[0]), 42u);
    EXPECT_EQ(get<int>(d, chain[2] + FIELD0_TYPE), 15);
    EXPECT_EQ(get<int>(d, chain[2] + FIELD1_TYPE), 15);
    sd_stdio_file g(path.c_str(), false);
    ASSERT_EQ(g.user_types().size(), 3u);
    auto const back = std::dynamic_pointer_cast<sd_struct_type>(g.user_types().at(16));
    ASSERT_TRUE(back);
    EXPECT_EQ(back->fields[0]->type, g.user_types().at(15));
    EXPECT_EQ(back->fields[1]->type, g.user_types().at(15));
    EXPECT_NE(g.user_types().at(14), g.user_types().at(15));
}
