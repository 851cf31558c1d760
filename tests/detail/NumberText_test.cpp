#include <TarnSocketIO/detail/NumberText.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/Random.h"

namespace {

using TarnSocketIO::detail::Number;
using TarnSocketIO::detail::ReadNumber;

constexpr long lowest = std::numeric_limits<long>::min();
constexpr long highest = std::numeric_limits<long>::max();

void ExpectAsStrtol(const std::string& text, int base) {
    SCOPED_TRACE(testing::PrintToString(text) + " in base " + std::to_string(base));
    char* end = nullptr;
    const long expected = std::strtol(text.c_str(), &end, base);
    const Number number = ReadNumber(text.c_str(), base);
    EXPECT_EQ(expected, number.value);
    EXPECT_EQ(end - text.c_str(), number.end - text.c_str());
}

TEST(ReadNumber, ReadsNumbersAndPlacesAsStrtol) {
    for (const char* const text :
         {"",     " ",      "+",    "-",      "- 1",  "+-1",  "0",     "00",   "07",       "08",     "8",    "19",
          "0x",   "0xg",    "0x1",  "0X1f",   "0x 1", "-0x1", "0x0x1", "x1",   "fF",       "1f",     "g",    "1.2",
          " 12",  "\t\n12", "\v12", "\f\r12", "\b12", "12 ",  "12-",   "\xa0", "\xff\x31", "0-1",    "00x1", "1x2",
          "-010", "+0",     "-0",   "-255",   "+255", "0777", "0o17",  "1e3",  "1,000",    "0x8000", "--1",  "99999"}) {
        for (const int base : {0, 10, 16}) {
            ExpectAsStrtol(text, base);
        }
    }
}

TEST(ReadNumber, KeepsTooLargeNumbersAtTheEndOfTheRange) {
    const std::string largest = std::to_string(highest);
    const std::string smallest = std::to_string(lowest);
    std::string beyond = largest;
    ++beyond.back();
    std::string below = smallest;
    ++below.back();
    const std::vector<std::string> texts = {largest,
                                            smallest,
                                            beyond,
                                            below,
                                            largest + "0",
                                            smallest + "0",
                                            std::string(60, '9'),
                                            "-" + std::string(60, '9'),
                                            std::string(60, 'f'),
                                            "-" + std::string(60, 'F'),
                                            "0" + std::string(60, '7'),
                                            "00000000000000000000001"};
    for (const std::string& text : texts) {
        for (const int base : {0, 10, 16}) {
            ExpectAsStrtol(text, base);
        }
    }
    EXPECT_EQ(highest, ReadNumber(beyond.c_str(), 10).value);
    EXPECT_EQ(lowest, ReadNumber(below.c_str(), 10).value);
    EXPECT_EQ(lowest, ReadNumber(smallest.c_str(), 10).value);
}

// Newer C libraries read 0b as a prefix of their own.
TEST(ReadNumber, HasNoBinaryPrefix) {
    const char* const text = "0b101";
    const Number number = ReadNumber(text, 0);
    EXPECT_EQ(0, number.value);
    EXPECT_EQ(text + 1, number.end);
}

TEST(ReadNumber, ReadsRandomTextAsStrtol) {
    TarnTest::Random random(20261120);
    // Without b, for the reason above.
    constexpr std::string_view characters = "0000112789 \t\n+-xXaAcCfFgG.\x80\xff";
    for (int round = 0; round < 20000; ++round) {
        const std::string text = random.Text(characters, 0, 25);
        for (const int base : {0, 10, 16}) {
            ExpectAsStrtol(text, base);
        }
        ASSERT_FALSE(HasFailure());
    }
}

}  // namespace
