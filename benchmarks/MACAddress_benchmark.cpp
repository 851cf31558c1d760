// What the text of a hardware address costs, read and written, beside the C library's formats.

#include <benchmark/benchmark.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <random>

#include <TarnSocketIO/CMacAddress.h>
#include <TarnSocketIO/eth/MACAddress.h>

#include <benchmarks/support/CallLoop.h>
#include <benchmarks/support/TargetTable.h>

namespace {

using TarnBenchmark::CompareResults;
using TarnBenchmark::ExpectNoAllocations;
using TarnBenchmark::IsSameText;
using TarnBenchmark::Plan;
using TarnBenchmark::TargetTable;
using TarnSocketIO::CMacAddress;
using TarnSocketIO::MACAddress;

constexpr std::size_t octet_count = 6;
constexpr std::size_t text_size = sizeof "00:1a:2b:3c:4d:5e";
constexpr std::size_t sample_count = 256;
constexpr int calls = 8 * sample_count;

TargetTable table;

/// An address, and texts that the parser takes for it.
struct Sample {
    unsigned char octets[octet_count];
    char text[text_size];
    char short_text[text_size];  ///< without leading zeros
};

std::array<Sample, sample_count> MakeSamples() {
    std::mt19937 random(20240229);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same addresses in every run
    std::array<Sample, sample_count> samples{};
    for (Sample& sample : samples) {
        for (unsigned char& octet : sample.octets) {
            octet = static_cast<unsigned char>(random());
        }
        const auto write = [&octets = sample.octets](char* text, const char* format) {
            std::snprintf(text, text_size, format, octets[0], octets[1], octets[2], octets[3], octets[4], octets[5]);
        };
        write(sample.text, "%02x:%02x:%02x:%02x:%02x:%02x");
        write(sample.short_text, "%x:%x:%x:%x:%x:%x");
    }
    return samples;
}

const std::array<Sample, sample_count> samples = MakeSamples();

const Sample& SampleOf(int call) {
    return samples[static_cast<unsigned int>(call) % sample_count];
}

bool AreSameOctets(const unsigned char* left, const unsigned char* right) {
    return std::memcmp(left, right, octet_count) == 0;
}

void Parse(benchmark::State& state) {
    MACAddress library;
    unsigned char baseline[octet_count] = {};
    CompareResults(
        table, state, {"MAC parse / sscanf", 15}, calls, AreSameOctets,
        [&](int i) {
            library.Set(SampleOf(i).text);
            return library.OctetForm();
        },
        [&](int i) {
            // NOLINTNEXTLINE(cert-err34-c): two digits always fit into an octet
            const int fields = std::sscanf(SampleOf(i).text, "%2hhx:%2hhx:%2hhx:%2hhx:%2hhx:%2hhx", &baseline[0],
                                           &baseline[1], &baseline[2], &baseline[3], &baseline[4], &baseline[5]);
            benchmark::DoNotOptimize(fields);
            return baseline;
        });
}

void Text(benchmark::State& state) {
    CMacAddress library;
    char baseline[text_size] = {};
    CompareResults(
        table, state, {"MAC text / snprintf", 20}, calls, IsSameText,
        [&](int i) {
            std::memcpy(library.m_Octets, SampleOf(i).octets, sizeof library.m_Octets);
            return library.GetString();
        },
        [&](int i) {
            const unsigned char* const octets = SampleOf(i).octets;
            std::snprintf(baseline, sizeof baseline, "%02x:%02x:%02x:%02x:%02x:%02x", octets[0], octets[1], octets[2],
                          octets[3], octets[4], octets[5]);
            return static_cast<const char*>(baseline);
        });
}

void AllocationsOfParsing(benchmark::State& state) {
    MACAddress address;
    ExpectNoAllocations(table, state, "MAC parse, any form: allocations", calls, [&](int i) {
        address.Set(SampleOf(i).text);
        address.Set(SampleOf(i).short_text);
    });
}

void Register(const Plan& plan) {
    const auto add = [&](const char* name, void (*benchmark_function)(benchmark::State&)) {
        constexpr int pairs = 1000;
        benchmark::RegisterBenchmark(name, benchmark_function)->Iterations(plan.Pairs(pairs))->UseManualTime();
    };
    add("MACAddress/parse", Parse);
    add("MACAddress/parse/allocations", AllocationsOfParsing);
    add("CMacAddress/text", Text);
}

}  // namespace

int main(int argc, char** argv) {
    return table.Run(argc, argv, Register);
}
