#include <TarnSocketIO/detail/TableText.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <istream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <utility>

namespace {

using TarnSocketIO::detail::TableText;
using TarnSocketIO::detail::WordText;

/// A file that cannot be read behind a text, which comes in parts of a size.
class FailingFile : public std::streambuf {
public:
    FailingFile(std::string text, std::size_t part) : m_text(std::move(text)), m_part(part) {}

protected:
    int_type underflow() override {
        if (m_at == m_text.size()) {
            throw std::runtime_error("an error of the disk");
        }
        char* const begin = &m_text[m_at];
        m_at += std::min(m_part, m_text.size() - m_at);
        setg(begin, begin, &m_text[0] + m_at);
        return traits_type::to_int_type(*begin);
    }

private:
    std::string m_text;
    const std::size_t m_part;
    std::size_t m_at = 0;
};

TEST(TableText, AWordIsNoneWhereItsEndCannotBeRead) {
    for (std::size_t part = 1; part < 24; ++part) {
        FailingFile file("header\none two three", part);
        std::istream stream(&file);
        TableText text(stream);
        WordText word;
        ASSERT_TRUE(text.SkipHeader(6)) << part;
        ASSERT_TRUE(text.TakeWord(word)) << part;
        EXPECT_STREQ("one", word.Get()) << part;
        EXPECT_TRUE(text.SkipWord()) << part;
        EXPECT_FALSE(text.TakeWord(word)) << part;
        EXPECT_TRUE(stream.bad()) << part;
    }
}

TEST(TableText, WhatIsAtHandIsTakenOrLeftAsAWhole) {
    FailingFile file("header\none two", 100);
    std::istream stream(&file);
    TableText text(stream);
    ASSERT_TRUE(text.SkipHeader(6));
    std::string seen;
    const auto see = [&seen](bool take) {
        return [&seen, take](const char*& at, const char* end) {
            seen.assign(at, end);
            at += 4;
            return take;
        };
    };
    EXPECT_FALSE(text.TakeAtHand(see(false)));
    EXPECT_EQ("one two", seen);
    EXPECT_TRUE(text.TakeAtHand(see(true)));
    EXPECT_FALSE(text.TakeAtHand(see(false)));
    EXPECT_EQ("two", seen);
}

}  // namespace
