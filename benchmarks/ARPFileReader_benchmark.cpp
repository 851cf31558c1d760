// What it costs to read the ARP table's file, beside word-by-word extraction from a stream into the same map, and what
// a look-up costs beside one in that map.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <TarnSocketIO/IPv4/ARPFileReader.h>
#include <TarnSocketIO/IPv4/IPAddress.h>
#include <TarnSocketIO/eth/MACAddress.h>

#include <benchmarks/support/CallLoop.h>
#include <benchmarks/support/TargetTable.h>

namespace {

using IPv4::IPAddress;
using TarnBenchmark::Plan;
using TarnBenchmark::SpeedClaim;
using TarnBenchmark::TargetTable;
using TarnSocketIO::MACAddress;

TargetTable table;

/// A file that goes with its object.
class TemporaryFile {
public:
    TemporaryFile(const char* name, const std::string& text)
        : m_name(std::filesystem::temp_directory_path() / (name + std::to_string(::getpid()))) {
        std::ofstream(m_name) << text;
    }
    ~TemporaryFile() { std::filesystem::remove(m_name); }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    std::string Name() const { return m_name; }

private:
    const std::filesystem::path m_name;
};

/// As a program without the library reads addresses.
struct CLibraryParsers {
    static void Read(const std::string& text, IPAddress& address) {
        in_addr parsed{};
        if (::inet_pton(AF_INET, text.c_str(), &parsed) != 1) {
            throw std::runtime_error("no address: " + text);
        }
        address = parsed;
    }

    static void Read(const std::string& text, MACAddress& address) {
        TarnSocketIO::Octet* const octets = address.OctetForm();
        // NOLINTNEXTLINE(cert-err34-c): bytes of two digits each cannot be out of range
        const int fields = std::sscanf(text.c_str(), "%2hhx:%2hhx:%2hhx:%2hhx:%2hhx:%2hhx", octets, octets + 1,
                                       octets + 2, octets + 3, octets + 4, octets + 5);
        if (fields != 6) {
            throw std::runtime_error("no hardware address: " + text);
        }
    }
};

/// As the library itself reads them, to see what the rest of it is worth.
struct LibraryParsers {
    static void Read(const std::string& text, IPAddress& address) { address = text; }
    static void Read(const std::string& text, MACAddress& address) { address = text.c_str(); }
};

/// The obvious way to read the file: the stream's own extraction of words, and one insertion for each entry.
template <class Parsers>
class WordByWord {
public:
    void Set(const char* file) { m_file_name = file; }

    void CacheFileContent() {
        m_file.close();
        m_file.clear();
        m_file.open(m_file_name, std::ios::in);
        m_entries.clear();
        char header[79];
        m_file.getline(header, sizeof header);
        std::string words[6];
        while (m_file >> words[0] >> words[1] >> words[2] >> words[3] >> words[4] >> words[5]) {
            ARPFileReader::ARPTableLineEntry entry;
            Parsers::Read(words[0], entry.m_IPAddress);
            Parsers::Read(words[3], entry.m_HWAddress);
            m_has_duplicates = !m_entries.emplace(entry.m_IPAddress, entry).second || m_has_duplicates;
        }
        m_file.close();
    }

    MACAddress GetCachedMACAddress(IPAddress ip) const {
        const auto found = m_entries.find(ip);
        return found != m_entries.end() ? found->second.m_HWAddress : MACAddress();
    }

    bool HasDuplicates() const { return m_has_duplicates; }

private:
    std::string m_file_name;
    std::ifstream m_file;
    std::map<IPAddress, ARPFileReader::ARPTableLineEntry> m_entries;
    bool m_has_duplicates = false;
};

/// Hosts of one network, beginning with the `first` one, in no order: the kernel's table is in that of its hashes.
std::vector<IPAddress> MakeHosts(unsigned int first, std::size_t count) {
    std::mt19937 random(20240229);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same hosts in every run
    std::vector<IPAddress> hosts;
    hosts.reserve(count);
    for (unsigned int host = first; hosts.size() < count; ++host) {
        hosts.emplace_back(htonl(0x0A200000 + host), BigEndian);
    }
    std::shuffle(hosts.begin(), hosts.end(), random);
    return hosts;
}

/// A table as the kernel writes it.
std::string MakeTable(const std::vector<IPAddress>& hosts) {
    std::mt19937 random(20240301);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same table in every run
    std::string text = "IP address       HW type     Flags       HW address            Mask     Device\n";
    for (const IPAddress host : hosts) {
        const unsigned char* const octets = host.OctetForm();
        char address[16];
        std::snprintf(address, sizeof address, "%u.%u.%u.%u", octets[0], octets[1], octets[2], octets[3]);
        const auto mac = static_cast<unsigned int>(random());
        char line[128];
        std::snprintf(line, sizeof line, "%-16s 0x%-10x0x%-10x02:00:%02x:%02x:%02x:%02x     *        eth0\n", address,
                      1, 2, mac >> 24, mac >> 16 & 255, mac >> 8 & 255, mac & 255);
        text += line;
    }
    return text;
}

bool IsSame(const MACAddress& left, const MACAddress& right) {
    return std::equal(left.OctetForm(), left.OctetForm() + 6, right.OctetForm());
}

template <class Reader>
std::string ErrorOf(Reader& reader) {
    try {
        reader.CacheFileContent();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "";
}

/// @return whether both have read the same from the table, and ended alike.
template <class Parsers>
bool ReadsAlike(const std::string& text, const std::vector<IPAddress>& hosts) {
    const TemporaryFile file("arp_compared_", text);
    ARPFileReader library(file.Name().c_str());
    WordByWord<Parsers> baseline;
    baseline.Set(file.Name().c_str());
    if (ErrorOf(library) != ErrorOf(baseline) || baseline.HasDuplicates()) {
        return false;
    }
    return std::all_of(hosts.begin(), hosts.end(), [&](IPAddress host) {
        return IsSame(library.GetCachedMACAddress(host), baseline.GetCachedMACAddress(host));
    });
}

/// Cut, with an address of too few fields, with one out of range, and with too long a header.
bool ReadsMalformedTablesAlike(const std::string& text, const std::vector<IPAddress>& hosts) {
    const std::size_t line = text.find('\n', text.size() / 2) + 1;
    std::string bad_address = text;
    bad_address.insert(line, "1.2.3 ");
    std::string bad_field = text;
    bad_field.insert(line, "999");
    return ReadsAlike<LibraryParsers>(text.substr(0, line + 40), hosts) &&
           ReadsAlike<LibraryParsers>(bad_address, hosts) && ReadsAlike<LibraryParsers>(bad_field, hosts) &&
           ReadsAlike<LibraryParsers>(std::string(79, 'x') + text, hosts);
}

/// A table of one size, and what must be reached with it.
struct Size {
    std::size_t entries;
    int reads;  ///< in a slice
    int pairs;
    SpeedClaim beside_c_library;
    SpeedClaim beside_own_parsers;
};

constexpr Size sizes[] = {
    {100, 200, 201, {"ARP file, 100 / extraction", 5}, {"ARP file, 100 / extraction, own parsers", 3}},
    {1000, 20, 201, {"ARP file, 1,000 / extraction", 5}, {"ARP file, 1,000 / extraction, own parsers", 5}},
    {10000, 2, 101, {"ARP file, 10,000 / extraction", 4}, {"ARP file, 10,000 / extraction, own parsers", 4}},
    {100000, 2, 21, {"ARP file, 100,000 / extraction", 3}, {"ARP file, 100,000 / extraction, own parsers", 3}},
};

/// Reads two tables in turn: between one reading and the next, one host in ten has gone and another one has come.
template <class Parsers>
void Read(benchmark::State& state, const Size& size, const SpeedClaim& claim) {
    const std::vector<IPAddress> before = MakeHosts(0, size.entries);
    const std::vector<IPAddress> after = MakeHosts(static_cast<unsigned int>(size.entries / 10), size.entries);
    const std::string texts[] = {MakeTable(before), MakeTable(after)};
    if (!ReadsAlike<Parsers>(texts[0], before) || !ReadsAlike<Parsers>(texts[1], after) ||
        !ReadsMalformedTablesAlike(texts[0], before)) {
        table.Fail(state, "library and baseline read different tables");
        return;
    }
    const TemporaryFile files[] = {{"arp_before_", texts[0]}, {"arp_after_", texts[1]}};
    const std::string names[] = {files[0].Name(), files[1].Name()};
    const auto read = [&names](auto& reader, int i) {
        reader.Set(names[i % 2].c_str());
        reader.CacheFileContent();
    };
    ARPFileReader library;
    WordByWord<Parsers> baseline;
    const TarnBenchmark::PairedRatio pairs = TarnBenchmark::Compare(
        state, size.reads, [&](int i) { read(library, i); }, [&](int i) { read(baseline, i); });
    const auto figure = [&](const char* counter) {
        return TarnBenchmark::Figure(state.counters.at(counter) / static_cast<double>(size.entries), 1, "ns/entry");
    };
    table.AddRatio(state, claim.what, pairs, figure("library_ns"), figure("baseline_ns"), claim.at_least);
}

void LookUp(benchmark::State& state) {
    constexpr std::size_t entries = 1000;
    constexpr int calls = entries;
    const std::vector<IPAddress> hosts = MakeHosts(0, entries);
    const TemporaryFile file("arp_looked_up_", MakeTable(hosts));
    ARPFileReader library(file.Name().c_str());
    library.CacheFileContent();
    std::map<IPAddress, ARPFileReader::ARPTableLineEntry> baseline;
    std::vector<IPAddress> sorted = hosts;
    std::sort(sorted.begin(), sorted.end());
    for (const IPAddress host : sorted) {
        ARPFileReader::ARPTableLineEntry& entry = baseline[host];
        entry.m_IPAddress = host;
        entry.m_HWAddress = library.GetCachedMACAddress(host);
    }
    TarnBenchmark::CompareResults(
        table, state, {"ARP look-up among 1,000 / std::map::find", 0.7}, calls, IsSame,
        [&](int i) { return library.GetCachedMACAddress(hosts[static_cast<std::size_t>(i)]); },
        [&](int i) { return baseline.find(hosts[static_cast<std::size_t>(i)])->second.m_HWAddress; });
}

void RegisterBenchmarks(const Plan& plan) {
    for (const Size& size : sizes) {
        const auto add = [&](const char* name, auto read) {
            benchmark::RegisterBenchmark((name + std::to_string(size.entries)).c_str(), read)
                ->Iterations(plan.Pairs(size.pairs))
                ->UseManualTime();
        };
        add("ARPFileReader/read/",
            [&size](benchmark::State& state) { Read<CLibraryParsers>(state, size, size.beside_c_library); });
        add("ARPFileReader/read_own_parsers/",
            [&size](benchmark::State& state) { Read<LibraryParsers>(state, size, size.beside_own_parsers); });
    }
    benchmark::RegisterBenchmark("ARPFileReader/look_up", LookUp)->Iterations(plan.Pairs(201))->UseManualTime();
}

}  // namespace

int main(int argc, char** argv) {
    return table.Run(argc, argv, RegisterBenchmarks);
}
