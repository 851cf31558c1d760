// What the text of an IPv4 address costs, read and written, beside the C library's functions and beside streams.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <ios>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <TarnSocketIO/CIPString.h>
#include <TarnSocketIO/IPv4/IPAddress.h>

#include <benchmarks/support/CallLoop.h>
#include <benchmarks/support/TargetTable.h>

namespace {

using IPv4::IPAddress;
using TarnBenchmark::CompareResults;
using TarnBenchmark::ExpectNoAllocations;
using TarnBenchmark::IsSameText;
using TarnBenchmark::Plan;
using TarnBenchmark::SpeedClaim;
using TarnBenchmark::TargetTable;
using TarnSocketIO::CIPString;

using Manipulator = std::ios_base& (*)(std::ios_base&);

// A program meets the same peers again and again. With these few the processor comes to know the way through each text;
// with the many it cannot, and each call pays for wrong guesses.
constexpr unsigned int few = 256;
constexpr unsigned int many = 16384;
constexpr int calls = 8 * few;

TargetTable table;

struct Sample {
    in_addr address;
    char text[INET_ADDRSTRLEN];
};

/// Texts of an address that only the strict parser takes, up to 19 characters.
struct OddTexts {
    char octal_or_hexadecimal[20];
    char with_blanks[20];
};

/// An octet with one, two or three digits, each equally often, so that the texts have all lengths.
unsigned char RandomOctet(std::mt19937& random) {
    constexpr unsigned int limits[] = {0, 10, 100, 256};
    const auto digits = random() % 3;
    return static_cast<unsigned char>(limits[digits] + random() % (limits[digits + 1] - limits[digits]));
}

std::vector<Sample> MakeSamples() {
    std::mt19937 random(20240229);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same addresses in every run
    std::vector<Sample> samples(many);
    for (Sample& sample : samples) {
        unsigned char octets[4];
        for (unsigned char& octet : octets) {
            octet = RandomOctet(random);
        }
        std::memcpy(&sample.address, octets, sizeof octets);
        std::snprintf(sample.text, sizeof sample.text, "%u.%u.%u.%u", octets[0], octets[1], octets[2], octets[3]);
    }
    return samples;
}

const std::vector<Sample> samples = MakeSamples();

std::vector<OddTexts> MakeOddTexts() {
    std::vector<OddTexts> odd(few);
    for (std::size_t i = 0; i < few; ++i) {
        unsigned char octets[4];
        std::memcpy(octets, &samples[i].address, sizeof octets);
        const auto write = [&](char(&text)[20], const char* format) {
            std::snprintf(text, sizeof text, format, octets[0], octets[1], octets[2], octets[3]);
        };
        write(odd[i].octal_or_hexadecimal, i % 2 == 0 ? "0%o.0%o.0%o.0%o" : "0x%x.0x%x.0x%x.0x%x");
        write(odd[i].with_blanks, " %u. %u. %u. %u");
    }
    return odd;
}

const std::vector<OddTexts> odd_texts = MakeOddTexts();

const Sample& SampleOf(int call) {
    return samples[static_cast<unsigned int>(call) % few];
}

const OddTexts& OddTextsOf(int call) {
    return odd_texts[static_cast<unsigned int>(call) % few];
}

in_addr_t ReadWithInetPton(const char* text) {
    in_addr address{};
    return ::inet_pton(AF_INET, text, &address) == 1 ? address.s_addr : 0;
}

in_addr_t ReadWithInetAton(const char* text) {
    in_addr address{};
    return ::inet_aton(text, &address) != 0 ? address.s_addr : 0;
}

void WriteOctetByOctet(std::ostream& os, in_addr address) {
    unsigned char octets[4];
    std::memcpy(octets, &address, sizeof octets);
    os << static_cast<unsigned int>(octets[0]) << '.' << static_cast<unsigned int>(octets[1]) << '.'
       << static_cast<unsigned int>(octets[2]) << '.' << static_cast<unsigned int>(octets[3]);
}

/// A stream that is written from its start again and again.
class ReusedStream {
public:
    explicit ReusedStream(Manipulator base) { m_stream << base; }

    std::ostream& FromStart() {
        m_stream.seekp(0);
        return m_stream;
    }

    std::string Text() { return m_stream.str().substr(0, static_cast<std::size_t>(m_stream.tellp())); }

private:
    std::ostringstream m_stream;
};

void StrictParse(benchmark::State& state) {
    CompareResults(
        table, state, {"address parse, strict / inet_pton", 2}, calls, std::equal_to<>(),
        [](int i) { return IPv4::StrToAddress<BigEndian>(SampleOf(i).text); },
        [](int i) { return ReadWithInetPton(SampleOf(i).text); });
}

void StrictParseOfNewAddresses(benchmark::State& state) {
    const auto text_of = [](int i) { return samples[static_cast<unsigned int>(i)].text; };
    CompareResults(
        table, state, {"address parse, strict, always new / inet_pton", 1}, static_cast<int>(many), std::equal_to<>(),
        [=](int i) { return IPv4::StrToAddress<BigEndian>(text_of(i)); },
        [=](int i) { return ReadWithInetPton(text_of(i)); });
}

void StrictParseInOtherBases(benchmark::State& state) {
    CompareResults(
        table, state, {"address parse, octal and hexadecimal / inet_aton", 1}, calls, std::equal_to<>(),
        [](int i) { return IPv4::StrToAddress<BigEndian>(OddTextsOf(i).octal_or_hexadecimal); },
        [](int i) { return ReadWithInetAton(OddTextsOf(i).octal_or_hexadecimal); });
}

in_addr_t WordOf(const CIPString& address) {
    return static_cast<IPAddress>(address).NetworkNumericForm();
}

void LenientParse(benchmark::State& state) {
    CIPString address;
    CompareResults(
        table, state, {"address parse, lenient / inet_aton", 1}, calls, std::equal_to<>(),
        [&](int i) {
            address.Parse(SampleOf(i).text);
            return WordOf(address);
        },
        [](int i) { return ReadWithInetAton(SampleOf(i).text); });
}

/// Measures a way to make the decimal text beside inet_ntop.
///
/// @param text_of  callable that makes the text of an in_addr and returns it.
template <class TextOf>
void BesideInetNtop(benchmark::State& state, const SpeedClaim& claim, TextOf text_of) {
    char baseline_text[INET_ADDRSTRLEN];
    CompareResults(
        table, state, claim, calls, IsSameText, [&](int i) { return text_of(SampleOf(i).address); },
        [&](int i) { return ::inet_ntop(AF_INET, &SampleOf(i).address, baseline_text, sizeof baseline_text); });
}

void PresentationInBuffer(benchmark::State& state) {
    char text[INET_ADDRSTRLEN];
    BesideInetNtop(state, {"address text in a buffer / inet_ntop", 15}, [&](IPAddress address) {
        address.GetPresentation(text, sizeof text, std::dec);
        return static_cast<const char*>(text);
    });
}

void TextOfChangedObject(benchmark::State& state) {
    CIPString object;
    BesideInetNtop(state, {"address text of a changed CIPString / inet_ntop", 15}, [&](IPAddress address) {
        object = address;
        return object.c_str();
    });
}

void PresentationInString(benchmark::State& state) {
    CompareResults(
        table, state, {"address text in a string / new ostringstream", 2}, calls, std::equal_to<>(),
        [](int i) {
            std::string text;
            IPAddress(SampleOf(i).address).GetPresentation(text, std::dec);
            return text;
        },
        [](int i) {
            std::ostringstream stream;
            WriteOctetByOctet(stream, SampleOf(i).address);
            return stream.str();
        });
}

void ToStream(benchmark::State& state, const SpeedClaim& claim, Manipulator base) {
    ReusedStream library(base);
    ReusedStream baseline(base);
    CompareResults(
        table, state, claim, calls,
        [](ReusedStream* left, ReusedStream* right) { return left->Text() == right->Text(); },
        [&](int i) {
            library.FromStart() << IPAddress(SampleOf(i).address);
            return &library;
        },
        [&](int i) {
            WriteOctetByOctet(baseline.FromStart(), SampleOf(i).address);
            return &baseline;
        });
}

void ToDecimalStream(benchmark::State& state) {
    ToStream(state, {"address to a stream / octet by octet", 2}, std::dec);
}

void ToHexadecimalStream(benchmark::State& state) {
    ToStream(state, {"address to a stream, hex / octet by octet", 2}, std::hex);
}

void AllocationsOfParsing(benchmark::State& state) {
    CIPString lenient;
    ExpectNoAllocations(table, state, "address parse, any form: allocations", calls, [&](int i) {
        const OddTexts& odd = OddTextsOf(i);
        for (const char* const text : {SampleOf(i).text, odd.octal_or_hexadecimal, odd.with_blanks}) {
            benchmark::DoNotOptimize(IPv4::StrToAddress<BigEndian>(text));
            lenient.Parse(text);
        }
    });
}

void AllocationsOfComparing(benchmark::State& state) {
    ExpectNoAllocations(table, state, "address comparison: allocations", calls, [](int i) {
        const IPAddress left = SampleOf(i).address;
        const IPAddress right = SampleOf(i + 1).address;
        benchmark::DoNotOptimize(left == right);
        benchmark::DoNotOptimize(left != right);
        benchmark::DoNotOptimize(left < right);
    });
}

void Register(const Plan& plan) {
    const auto add = [&](const char* name, void (*benchmark_function)(benchmark::State&), int pairs = 1000) {
        benchmark::RegisterBenchmark(name, benchmark_function)->Iterations(plan.Pairs(pairs))->UseManualTime();
    };
    add("IPAddress/parse/ordinary", StrictParse);
    add("IPAddress/parse/always_new", StrictParseOfNewAddresses, 300);
    add("IPAddress/parse/octal_and_hexadecimal", StrictParseInOtherBases);
    add("IPAddress/parse/allocations", AllocationsOfParsing);
    add("IPAddress/comparison/allocations", AllocationsOfComparing);
    add("IPAddress/presentation/buffer", PresentationInBuffer);
    add("IPAddress/presentation/string", PresentationInString);
    add("IPAddress/stream/decimal", ToDecimalStream);
    add("IPAddress/stream/hexadecimal", ToHexadecimalStream);
    add("CIPString/parse", LenientParse);
    add("CIPString/text", TextOfChangedObject);
}

}  // namespace

int main(int argc, char** argv) {
    return table.Run(argc, argv, Register);
}
