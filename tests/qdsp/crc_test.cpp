// crc32 against zlib on random blocks, and the edges of its size word.
#include "tvoxsp.h"
#include "zlib_oracle.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace
{

TEST(Crc32, MatchesZlibOnRandomBlocksOfEverySize)
{
    std::mt19937 random(20260611);
    for (uint32_t size = 2; size <= 300; ++size) {
        std::vector<uint32_t> block(size);
        for (uint32_t &word : block)
            word = random();
        block[0] = size;
        ASSERT_EQ(crc32(block.data()), tvox::test::zlib_crc(std::span(block).first(size - 1)))
            << "N = " << size;
    }
}

TEST(Crc32, KnownValueAndSizeWordsThatCoverNothing)
{
    uint32_t example[] = {5, 100, 200, 300, 0};
    EXPECT_EQ(crc32(example), 4292077319u);
    for (uint32_t size : {1u, 0u, 0xFFFFFFFFu, 0x80000000u}) {
        uint32_t block[] = {size, 7};
        EXPECT_EQ(crc32(block), 0u) << size;
    }
}

} // namespace
