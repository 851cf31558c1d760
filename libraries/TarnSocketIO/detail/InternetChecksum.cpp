#include <TarnSocketIO/detail/InternetChecksum.h>

#include <cstring>

namespace TarnSocketIO::detail {

namespace {

/// Adds up words of 32 bits. The sum of 16-bit words that is asked for is the same but for its carries, which are
/// folded in later; 64 bits have room for 2^32 words.
std::uint64_t SumOfWords(const unsigned char* bytes, std::size_t words) {
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < words; ++i) {
        std::uint32_t word;
        std::memcpy(&word, bytes + i * sizeof word, sizeof word);
        sum += word;
    }
    return sum;
}

}  // namespace

std::uint16_t InternetChecksum(const void* data, std::size_t length) {
    const auto* const bytes = static_cast<const unsigned char*>(data);
    const std::size_t words = length / sizeof(std::uint32_t);
    const std::size_t rest = length % sizeof(std::uint32_t);
    std::uint64_t sum = SumOfWords(bytes, words);
    if (rest != 0) {
        // As if zeros followed.
        std::uint32_t last = 0;
        std::memcpy(&last, bytes + length - rest, rest);
        sum += last;
    }
    sum = (sum >> 32) + (sum & 0xFFFFFFFF);
    sum = (sum >> 32) + (sum & 0xFFFFFFFF);
    sum = (sum >> 16) + (sum & 0xFFFF);
    sum = (sum >> 16) + (sum & 0xFFFF);
    return static_cast<std::uint16_t>(~sum);
}

}  // namespace TarnSocketIO::detail
