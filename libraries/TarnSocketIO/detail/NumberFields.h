#pragma once

#include <TarnSocketIO/detail/NumberText.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <stdexcept>

namespace TarnSocketIO::detail {

/// How a text of numbers with separators between them is written, and what is thrown for one that is not.
struct FieldGrammar {
    char separator;
    int fields;
    int base;              ///< as for ReadNumber
    std::size_t shortest;  ///< characters of the whole text
    std::size_t longest;
    const char* bad_length;  ///< a text that is shorter or longer
    const char* bad_format;  ///< another number of fields
    const char* bad_number;  ///< a field with more in it than a number; an empty one is 0
};

/// Reads the fields in their order, and hands each one's place and number to `store`, which may throw for a number that
/// it does not take. Of the text "0", which stands for all fields, every number is 0.
/// @throws std::runtime_error with the texts of the grammar.
template <class Store>
void ReadNumberFields(const char* text, const FieldGrammar& grammar, Store store) {
    if (std::strcmp(text, "0") == 0) {
        for (int i = 0; i < grammar.fields; ++i) {
            store(i, 0L);
        }
        return;
    }
    const std::size_t length = ::strnlen(text, grammar.longest + 1);
    if (length < grammar.shortest || length > grammar.longest) {
        throw std::runtime_error(grammar.bad_length);
    }
    if (std::count(text, text + length, grammar.separator) != grammar.fields - 1) {
        throw std::runtime_error(grammar.bad_format);
    }
    for (int i = 0; i < grammar.fields; ++i) {
        const auto [value, end] = ReadNumber(text, grammar.base);
        // The separators are counted: where a number ends at one, the next field begins.
        if (*end != grammar.separator && *end != '\0') {
            throw std::runtime_error(grammar.bad_number);
        }
        store(i, value);
        text = end + 1;
    }
}

}  // namespace TarnSocketIO::detail
