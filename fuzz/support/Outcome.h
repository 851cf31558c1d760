#pragma once

#include <array>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <type_traits>
#include <typeinfo>

namespace TarnFuzz {

/// @return the octets as one text, in which different octets differ.
template <std::size_t count>
std::string Listed(const std::array<unsigned char, count>& octets) {
    std::string list;
    for (const unsigned char octet : octets) {
        char shown[] = "[255]";
        std::snprintf(shown, sizeof shown, "[%u]", octet);
        list += shown;
    }
    return list;
}

/// What became of a parse.
template <class Octets>
struct Outcome {
    std::optional<Octets> octets;  ///< empty if the text was refused
    std::string text;              ///< the octets, or the type and text of what was thrown
};

/// Parses by `parse`, which returns an array of octets or throws.
template <class Parse>
Outcome<std::invoke_result_t<Parse>> OutcomeOf(Parse parse) {
    try {
        const auto octets = parse();
        return {octets, Listed(octets)};
    } catch (const std::exception& refusal) {
        return {std::nullopt, std::string(typeid(refusal).name()) + ": " + refusal.what()};
    }
}

}  // namespace TarnFuzz
