// The type store: user types adopted with the first element that uses them,
// dependencies first, one iid counter with the elements, and the type chain
// read back at open, where one bad record refuses the file.
#include "sd_stdio_file.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using namespace orva_sd;
using bytes = std::vector<unsigned char>;

namespace {

template <class T>
T get(bytes const& b, unsigned long at)
{
    T v;
    std::memcpy(&v, &b.at(at + sizeof(T) - 1) + 1 - sizeof(T), sizeof(T));
    return v;
}

// Positions of the type records, walked along next_block_pos from the header.
std::vector<long> type_chain(bytes const& d)
{
    std::vector<long> chain;
    for (long pos = get<long>(d, 16); pos != -1 && chain.size() < 100; pos = get<long>(d, pos + 12))
        chain.push_back(pos);
    return chain;
}

// A struct {e: enum of int16, i: int8}; its record puts the two field type
// iids at +50 and +67.
std::shared_ptr<sd_struct_type> enum_and_int8()
{
    auto en = std::make_shared<sd_enum_type>(-1, SD_INT16);
    en->add_value("lo", 1L);
    en->add_value("hi", 2L);
    auto st = std::make_shared<sd_struct_type>(-1, static_cast<unsigned long>(-1));
    st->add_field("e", en, static_cast<unsigned long>(-1));
    st->add_field("i", SD_INT8, static_cast<unsigned long>(-1));
    return st;
}

constexpr long FIELD0_TYPE = 50, FIELD1_TYPE = 67;

} // namespace

TEST(TypeStore, DependenciesAreStoredFirstAndOnlyOnce)
{
    std::string const path = sd_test::temp_path("types.sd");
    auto const st = enum_and_int8();
    {
        sd_stdio_file f(path.c_str(), true);
        auto e1 = f.create_element("s1", SDE_SIGNAL, st, nullptr);
        ASSERT_TRUE(e1);
        EXPECT_EQ(st->fields[0]->type->iid(), 14);
        EXPECT_EQ(st->iid(), 15);
        EXPECT_EQ(e1->iid, 16);
        std::list<sd_type_ptr> again;
        f.gather_user_types_to_add(st, again);
        EXPECT_TRUE(again.empty());

        std::fflush(f.stream);
        auto const before = sd_test::read_file(path).size();
        EXPECT_EQ(f.create_element("s2", SDE_SIGNAL, st, nullptr)->iid, 17);
        std::fflush(f.stream);
        EXPECT_EQ(sd_test::read_file(path).size(), before + 55); // one element record, no type
    }
    bytes const d = sd_test::read_file(path);
    auto const chain = type_chain(d);
    ASSERT_EQ(chain.size(), 2u);
    EXPECT_EQ(chain[0], 40);
    EXPECT_EQ(get<long>(d, chain[1] + 4), 40);
    EXPECT_EQ(get<int>(d, chain[0] + 20), 14);
    EXPECT_EQ(d.at(chain[0] + 24), 3); // enum
    EXPECT_EQ(get<int>(d, chain[1] + 20), 15);
    EXPECT_EQ(get<int>(d, chain[1] + FIELD0_TYPE), 14);
    EXPECT_EQ(get<int>(d, chain[1] + FIELD1_TYPE), 4);

    {
        sd_stdio_file g(path.c_str(), false);
        ASSERT_TRUE(g.is_open());
        EXPECT_EQ(g.last_iid, 17);
        EXPECT_EQ(g.user_types().size(), 2u);
        EXPECT_EQ(g.find_root_element("s2")->type, g.user_types().at(15));
        EXPECT_EQ(g.create_element("s3", SDE_SIGNAL, nullptr, nullptr)->iid, 18);
    }
    // One bad type record makes the whole file unopenable.
    struct {
        char const* what;
        long at;
        int value, hooks;
    } const damaged[] = {
        {"field names an unknown iid", chain[1] + FIELD0_TYPE, 99, 2},
        {"field names a later record", chain[1] + FIELD0_TYPE, 15, 2},
        {"size below 4", chain[0], 3, 2},
        {"size past the file", chain[1], 100000, 5},
    };
    for (auto const& c : damaged) {
        bytes x = d;
        std::memcpy(&x.at(c.at), &c.value, sizeof c.value);
        sd_test::write_file(path, x);
        sd_test::hook_counter hooks;
        EXPECT_FALSE(sd_stdio_file(path.c_str(), false).is_open()) << c.what;
        EXPECT_EQ(hooks.calls(), c.hooks) << c.what;
    }
}

TEST(TypeStore, ATypeReachedTwiceIsStoredTwiceAndReadBackApart)
{
    std::string const path = sd_test::temp_path("twice.sd");
    auto const arr = std::make_shared<sd_array_type>(-1, SD_INT32, std::vector<unsigned long>{3});
    auto const st = std::make_shared<sd_struct_type>(-1, static_cast<unsigned long>(-1));
    st->add_field("a", arr, static_cast<unsigned long>(-1));
    st->add_field("b", arr, static_cast<unsigned long>(-1));
    {
        sd_stdio_file f(path.c_str(), true);
        auto e = f.create_element("s", SDE_WIRE, st, nullptr);
        ASSERT_TRUE(e);
        EXPECT_EQ(e->iid, 17);
        EXPECT_EQ(arr->iid(), 15); // the later store wins on the object
        EXPECT_EQ(f.user_types().at(14), arr);
        EXPECT_EQ(f.user_types().at(15), arr);
    }
    bytes const d = sd_test::read_file(path);
    auto const chain = type_chain(d);
    ASSERT_EQ(chain.size(), 3u);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(get<int>(d, chain[i] + 20), 14 + i);
    EXPECT_EQ(get<unsigned int>(d, chain[0]), 42u);
    EXPECT_EQ(get<int>(d, chain[2] + FIELD0_TYPE), 15);
    EXPECT_EQ(get<int>(d, chain[2] + FIELD1_TYPE), 15);

    sd_stdio_file g(path.c_str(), false);
    ASSERT_TRUE(g.is_open());
    ASSERT_EQ(g.user_types().size(), 3u);
    auto const back = std::dynamic_pointer_cast<sd_struct_type>(g.user_types().at(16));
    ASSERT_TRUE(back);
    EXPECT_EQ(back->fields[0]->type, g.user_types().at(15));
    EXPECT_EQ(back->fields[1]->type, g.user_types().at(15));
    EXPECT_NE(g.user_types().at(14), g.user_types().at(15));
}
