#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t max_size);

namespace TarnFuzz {

/// What texts look like that a parser accepts.
struct TextShape {
    char separator;
    unsigned fields;
    unsigned base;        ///< of a number without a prefix
    std::size_t longest;  ///< characters
};

/// Makes texts of numbers with a separator between them. Random bytes are next to never such a text; most of these are.
///
/// Inputs stay plain text this way: a seed, or an input that was found, can be read and written by hand.
class FieldTexts {
public:
    FieldTexts(const TextShape& shape, unsigned seed) : m_shape(shape), m_random(seed) {}

    /// Changes the input in place, as LLVMFuzzerCustomMutator does: one change in four is libFuzzer's own, on bytes;
    /// the others make all fields anew, or one.
    /// @return the new size, `max_size` at most.
    std::size_t Mutate(std::uint8_t* data, std::size_t size, std::size_t max_size) {
        if (OneIn(4)) {
            return LLVMFuzzerMutate(data, size, max_size);
        }
        const std::string text = OneIn(3) ? Change(std::string(data, data + size)) : MakeText();
        const std::size_t length = std::min(text.size(), max_size);
        std::copy_n(text.begin(), length, data);
        return length;
    }

private:
    std::size_t Below(std::size_t limit) { return m_random() % limit; }
    bool OneIn(std::size_t n) { return Below(n) == 0; }

    template <class Item, std::size_t count>
    Item OneOf(const Item (&items)[count]) {
        return items[Below(count)];
    }

    std::string Change(const std::string& text) {
        std::vector<std::string> fields(1);
        for (const char c : text) {
            if (c == m_shape.separator) {
                fields.emplace_back();
            } else {
                fields.back() += c;
            }
        }
        fields[Below(fields.size())] = MakeField();
        return Join(fields);
    }

    /// A few attempts keep most texts below the limit, or one above it; the rest are as long as they are.
    std::string MakeText() {
        std::string text;
        int attempts = 0;
        do {
            // One field too few or too many, now and then.
            std::vector<std::string> fields(OneIn(32) ? m_shape.fields - 1 + 2 * Below(2) : m_shape.fields);
            std::generate(fields.begin(), fields.end(), [this] { return MakeField(); });
            text = Join(fields);
        } while (text.size() > m_shape.longest + 1 && ++attempts < 8);
        return text;
    }

    std::string Join(const std::vector<std::string>& fields) const {
        std::string text = fields.front();
        for (auto field = fields.begin() + 1; field != fields.end(); ++field) {
            text += m_shape.separator + *field;
        }
        return text;
    }

    std::string MakeField() {
        struct Notation {
            const char* before;
            unsigned base;
        };
        const unsigned plain = m_shape.base;
        const Notation notations[] = {{"0x", 16},   {"0X", 16},    {"0", 8},      {"00", 8},    {"-0", 8},
                                      {" 0x", 16},  {"0", 10},     {"", 16},      {"+", plain}, {"-", plain},
                                      {" ", plain}, {"\t", plain}, {"\n", plain}, {"\v", plain}};
        static const char* const behind[] = {" ", "x", "-", "g", "9", "\n", "0000000"};
        if (OneIn(16)) {
            return "";
        }
        const Notation notation = OneIn(4) ? OneOf(notations) : Notation{"", plain};
        return notation.before + MakeDigits(notation.base) + (OneIn(64) ? OneOf(behind) : "");
    }

    /// A number that fits an octet, mostly.
    std::string MakeDigits(unsigned base) {
        static const unsigned edges[] = {0, 1, 7, 8, 9, 10, 15, 16, 63, 64, 99, 100, 127, 128, 199, 200, 254, 255};
        static const unsigned beyond[] = {256, 257, 260, 299, 300, 511, 512, 999, 1000, 4095, 65535, 65536};
        const char* const symbols = OneIn(2) ? "0123456789abcdef" : "0123456789ABCDEF";
        unsigned value = OneIn(2) ? OneOf(edges) : static_cast<unsigned>(Below(256));
        if (OneIn(64)) {
            value = OneOf(beyond);
        }

        std::string digits;
        do {
            digits.insert(digits.begin(), symbols[value % base]);
            value /= base;
        } while (value != 0);
        return digits;
    }

    TextShape m_shape;
    std::minstd_rand m_random;
};

}  // namespace TarnFuzz
