#include "support/sim_fixture.h"
#include "tvoxsp.h"

#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>

extern "C" size_t tvoxsp_c_sizeof_tervox(void);
extern "C" size_t tvoxsp_c_offsetof_str_format_out(void);

namespace
{

// The lines of a stream, less empty ones.
std::set<std::string> lines_of(std::istream &in)
{
    std::set<std::string> names;
    for (std::string line; std::getline(in, line);)
        if (!line.empty())
            names.insert(line);
    return names;
}

TEST(Exports, LibraryExportsExactlyTheListedNames)
{
    std::ifstream list(TVOXSP_EXPORT_LIST);
    const auto expected = lines_of(list);
    ASSERT_FALSE(expected.empty());
    // Names defined in the library's dynamic symbol table, less the version node (type A) and
    // the version of each name.
    const auto defined =
        tvox::test::SimTest::run_command("nm -D --defined-only '" TVOXSP_LIBRARY_PATH "' | "
                                         "awk '$2 != \"A\" { sub(/@.*/, \"\", $NF); print $NF }'");
    ASSERT_EQ(defined.status, 0);
    std::istringstream names(defined.output);
    EXPECT_EQ(lines_of(names), expected);
}

TEST(Exports, HeaderLayoutIsTheSameInCAndCxx)
{
    EXPECT_EQ(tvoxsp_c_sizeof_tervox(), sizeof(tervox));
    EXPECT_EQ(tvoxsp_c_offsetof_str_format_out(), offsetof(tervox, str_format_out));
    // Nothing between the two but the padding the ABI puts before doubles (4 bytes on 32-bit
    // ARM, where they align to 8, none where pointers are 8 bytes or doubles align to 4).
    constexpr size_t align = alignof(tervox_rtlog_channel);
    EXPECT_EQ(offsetof(tervox, rtlog),
              (offsetof(tervox, qdsp_ctls) + sizeof(void *) + align - 1) / align * align);
    EXPECT_EQ(sizeof(tervox_cal_record), 6 * sizeof(uint32_t));
}

} // namespace
