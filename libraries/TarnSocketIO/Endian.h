#pragma once

#include <type_traits>
#include <utility>

/// The order in which octets or a word are handed to an address type. Addresses are always kept in network order.
///
/// Only the value 1 is looked for: any other value of the type is allowed, and acts as LittleEndian.
enum Endian : unsigned int {
    LittleEndian = 0,  ///< least significant octet first: reversed before it is stored
    BigEndian = 1      ///< network order: stored unchanged
};

/// One byte has nothing to reverse. @return `value`.
constexpr unsigned char swap_endian(unsigned char value) {
    return value;
}

/// @return `value` with its bytes in reverse order, whatever the byte order of the machine.
/// @tparam Word  `unsigned int`, four bytes.
template <class Word>
constexpr Word swap_endian(Word value) {
    static_assert(std::is_same_v<Word, unsigned int> && sizeof(Word) == 4, "words of four bytes are reversed");
    return value << 24 | (value & 0xFF00) << 8 | (value >> 8 & 0xFF00) | value >> 24;
}

/// Reverses `n` bytes in place. Does nothing for a null `p`, or for `n` below 2.
/// @tparam Byte  `unsigned char`; no other type has bytes to reverse one by one.
template <class Byte>
void swap_endian(Byte* p, unsigned int n) {
    static_assert(std::is_same_v<Byte, unsigned char>, "bytes are reversed in place, not words");
    if (p == nullptr || n < 2) {
        return;
    }
    for (unsigned int first = 0, last = n - 1; first < last; ++first, --last) {
        std::swap(p[first], p[last]);
    }
}
