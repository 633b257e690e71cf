#include "tvoxsp.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <memory>
#include <set>
#include <string>

extern "C" size_t tvoxsp_c_sizeof_tervox(void);
extern "C" size_t tvoxsp_c_offsetof_str_format_out(void);

namespace
{

std::set<std::string> expected_exports()
{
    std::set<std::string> names;
    std::ifstream list(TVOXSP_EXPORT_LIST);
    for (std::string line; std::getline(list, line);)
        if (!line.empty())
            names.insert(line);
    return names;
}

// Names defined in the library's dynamic symbol table, less the version node.
std::set<std::string> defined_dynamic_symbols()
{
    std::set<std::string> names;
    const std::string command = "nm -D --defined-only '" TVOXSP_LIBRARY_PATH "'";
    std::unique_ptr<FILE, int (*)(FILE *)> pipe(popen(command.c_str(), "r"), pclose);
    if (!pipe)
        return names;
    std::array<char, 512> line{};
    while (fgets(line.data(), line.size(), pipe.get())) {
        std::string text(line.data());
        if (!text.empty() && text.back() == '\n')
            text.pop_back();
        const auto last_space = text.rfind(' ');
        const auto name = text.substr(last_space + 1);
        const auto type = last_space >= 1 ? text[last_space - 1] : ' ';
        if (type == 'A') // the version node the linker adds
            continue;
        names.insert(name.substr(0, name.find('@')));
    }
    return names;
}

TEST(Exports, LibraryExportsExactlyTheListedNames)
{
    const auto expected = expected_exports();
    ASSERT_FALSE(expected.empty());
    EXPECT_EQ(defined_dynamic_symbols(), expected);
}

TEST(Exports, HeaderLayoutIsTheSameInCAndCxx)
{
    EXPECT_EQ(tvoxsp_c_sizeof_tervox(), sizeof(tervox));
    EXPECT_EQ(tvoxsp_c_offsetof_str_format_out(), offsetof(tervox, str_format_out));
    EXPECT_EQ(offsetof(tervox, rtlog), offsetof(tervox, qdsp_ctls) + sizeof(void *));
    EXPECT_EQ(sizeof(tervox_cal_record), 6 * sizeof(uint32_t));
}

} // namespace
