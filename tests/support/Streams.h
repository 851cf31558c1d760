#pragma once

#include <cstddef>
#include <locale>
#include <streambuf>
#include <string>

namespace TarnTest {

/// The locale of a country that puts a mark behind every digit: 1'9'2.
inline const std::locale& MarkedDigits() {
    class Marks : public std::numpunct<char> {
    protected:
        char do_thousands_sep() const override { return '\''; }
        std::string do_grouping() const override { return "\1"; }
    };
    static const std::locale locale(std::locale::classic(), new Marks);
    return locale;
}

/// The C++ locale of the process for as long as the object lives. Streams made before keep theirs.
class GlobalLocale {
public:
    explicit GlobalLocale(const std::locale& locale) : m_before(std::locale::global(locale)) {}
    ~GlobalLocale() { std::locale::global(m_before); }
    GlobalLocale(const GlobalLocale&) = delete;
    GlobalLocale& operator=(const GlobalLocale&) = delete;

private:
    const std::locale m_before;
};

/// Takes as many characters as there is room for; the next one fails.
class ShortBuffer : public std::streambuf {
public:
    explicit ShortBuffer(std::size_t room) : m_room(room) {}
    const std::string& Text() const { return m_text; }

protected:
    int_type overflow(int_type c) override {
        if (m_text.size() == m_room) {
            return traits_type::eof();
        }
        m_text += traits_type::to_char_type(c);
        return c;
    }

private:
    const std::size_t m_room;
    std::string m_text;
};

}  // namespace TarnTest
