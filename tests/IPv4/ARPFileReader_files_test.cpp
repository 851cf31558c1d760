// Files that are not there, that are no plain files, or that have no end.

#include <TarnSocketIO/IPv4/ARPFileReader.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <typeinfo>
#include <utility>

#include "tests/support/AllDescriptorsTaken.h"
#include "tests/support/ArpTables.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LibcAssertion.h"
#include "tests/support/Resources.h"
#include "tests/support/SocketState.h"

namespace {

using IPv4::IPAddress;
using TarnTest::arp_header;
using TarnTest::ArpLine;
using TarnTest::ChildProcess;
using TarnTest::CountOpenDescriptors;
using TarnTest::Known;
using TarnTest::not_known;
using TarnTest::OwnedDescriptor;
using TarnTest::RefusalBy;
using TarnTest::TableFile;

constexpr const char* mac = "00:11:22:33:44:55";
const IPAddress ip(10, 0, 0, 1);
const IPAddress later_ip(10, 0, 0, 2);
const std::string entry = ArpLine("10.0.0.1", mac);
const std::string later_entry = ArpLine("10.0.0.2", mac);

constexpr std::size_t mebibyte = 1048576;

/// A folder of the test's own.
class Folder {
public:
    Folder() {
        if (mkdtemp(m_name.data()) == nullptr) {
            throw std::runtime_error("no folder for a test");
        }
    }
    ~Folder() { std::filesystem::remove_all(m_name); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string Path(const char* name) const { return m_name + "/" + name; }

private:
    std::string m_name = testing::TempDir() + "tarn_XXXXXX";
};

/// A named pipe that gives whoever opens it a text, then a piece again and again, and an end.
class Spring {
public:
    struct Water {
        std::string first;
        std::string piece;
        std::size_t pieces;
        std::string last;
    };

    explicit Spring(Water water) : m_water(std::move(water)), m_name(m_folder.Path("arp")) {
        if (mkfifo(m_name.c_str(), 0600) != 0) {
            throw std::runtime_error("no named pipe");
        }
        m_thread = std::thread([this] { Give(); });
    }
    ~Spring() { WasLeft(); }
    Spring(const Spring&) = delete;
    Spring& operator=(const Spring&) = delete;

    const std::string& Name() const { return m_name; }

    /// To be asked when whoever has opened it has closed it: whether that was before the end.
    bool WasLeft() {
        if (m_thread.joinable()) {
            // If nobody has: it waits for somebody.
            OwnedDescriptor visitor(open(m_name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
            visitor.Close();
            m_thread.join();
        }
        return m_was_left;
    }

private:
    void Give() {
        sigset_t broken_pipe;
        sigemptyset(&broken_pipe);
        sigaddset(&broken_pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &broken_pipe, nullptr);
        const OwnedDescriptor end(open(m_name.c_str(), O_WRONLY | O_CLOEXEC));
        bool is_taken = Write(end.Number(), m_water.first);
        for (std::size_t i = 0; is_taken && i < m_water.pieces; ++i) {
            is_taken = Write(end.Number(), m_water.piece);
        }
        m_was_left = !is_taken || !Write(end.Number(), m_water.last);
    }

    static bool Write(int fd, const std::string& text) {
        std::size_t written = 0;
        while (written < text.size()) {
            const ssize_t part = write(fd, text.data() + written, text.size() - written);
            if (part < 0 && errno != EINTR) {
                return false;
            }
            written += part > 0 ? static_cast<std::size_t>(part) : 0;
        }
        return true;
    }

    const Water m_water;
    const Folder m_folder;
    const std::string m_name;
    bool m_was_left = false;
    std::thread m_thread;
};

/// Expects that reading ends the process.
void ExpectDeath(const std::function<void()>& act) {
    ChildProcess child(act);
    EXPECT_EQ(SIGABRT, child.EndingSignal());
    EXPECT_EQ("", child.Failures());
    EXPECT_EQ("file could not be open\n", child.Output());
    EXPECT_THAT(child.Errors(),
                TarnTest::SaysThat(TarnTest::LibcAssertion{"libraries/TarnSocketIO/IPv4/ARPFileReader.cpp", 80,
                                                           "void ARPFileReader::CacheFileContent()", "0"}));
}

// --- no file ---

TEST(ARPFileReaderMissingFile, EndsTheProcess) {
    for (const char* const name : {"/no/such/file", "", static_cast<const char*>(nullptr)}) {
        ExpectDeath([&] { ARPFileReader(name).CacheFileContent(); });
    }
}

TEST(ARPFileReaderMissingFile, EndsTheProcessThatHasReadAnother) {
    const TableFile file(arp_header + entry);
    for (const char* const name : {"/no/such/file", "", static_cast<const char*>(nullptr)}) {
        ExpectDeath([&] {
            ARPFileReader reader(file.Name().c_str());
            reader.CacheFileContent();
            reader.Set(name);
            reader.CacheFileContent();
        });
    }
}

TEST(ARPFileReaderMissingFile, EndsTheProcessWhenItHasVanishedSinceItWasRead) {
    const Folder folder;
    const std::string name = folder.Path("arp");
    std::ofstream(name) << arp_header << entry;
    ExpectDeath([&] {
        ARPFileReader reader(name.c_str());
        reader.CacheFileContent();
        EXPECT_EQ(mac, Known(reader, ip));
        EXPECT_EQ(0, unlink(name.c_str()));
        EXPECT_EQ(mac, Known(reader, ip));
        reader.CacheFileContent();
    });
    EXPECT_FALSE(std::filesystem::exists(name));
}

TEST(ARPFileReaderMissingFile, EndsTheProcessThatHasNoDescriptorLeft) {
    const TableFile file(arp_header + entry);
    ExpectDeath([&] {
        ARPFileReader reader(file.Name().c_str());
        // Once before: a sanitizer needs a descriptor for its first look at a stream.
        reader.CacheFileContent();
        const TarnTest::AllDescriptorsTaken none_left;
        reader.CacheFileContent();
    });
}

TEST(ARPFileReaderFile, IsReadAgainUnderItsNameAndNotUnderItsDescriptor) {
    const Folder folder;
    const std::string name = folder.Path("arp");
    std::ofstream(name) << arp_header << entry;
    ARPFileReader reader(name.c_str());
    reader.CacheFileContent();
    const std::string other_name = folder.Path("other");
    std::ofstream(other_name) << arp_header << later_entry;
    std::filesystem::rename(other_name, name);
    EXPECT_EQ(mac, Known(reader, ip));
    reader.CacheFileContent();
    EXPECT_EQ(not_known, Known(reader, ip));
    EXPECT_EQ(mac, Known(reader, later_ip));
}

// --- files that cannot be read, or have nothing in them ---

TEST(ARPFileReaderUnreadableFile, HasNoEntries) {
    for (const char* const name : {"/", "/proc/self/mem", "/dev/null", "/dev/zero"}) {
        const TableFile file(arp_header + entry);
        ARPFileReader reader(file.Name().c_str());
        reader.CacheFileContent();
        reader.Set(name);
        const std::size_t descriptors = CountOpenDescriptors();
        EXPECT_EQ("", RefusalBy(reader)) << name;
        EXPECT_EQ(descriptors, CountOpenDescriptors()) << name;
        EXPECT_EQ(not_known, Known(reader, ip)) << name;
        reader.Set(file.Name().c_str());
        EXPECT_EQ("", RefusalBy(reader)) << name;
        EXPECT_EQ(mac, Known(reader, ip)) << name;
    }
}

// --- files without an end ---

/// Expects that a reader closes the pipe before its end, and knows the first entry or not.
void ExpectLeft(const Spring::Water& water, const std::string& known, const std::string& refusal = "") {
    Spring spring(water);
    {
        ARPFileReader reader(spring.Name().c_str());
        EXPECT_EQ(refusal, RefusalBy(reader));
        EXPECT_EQ(known, Known(reader, ip));
        EXPECT_EQ(not_known, Known(reader, IPAddress()));
    }
    EXPECT_TRUE(spring.WasLeft());
}

TEST(ARPFileReaderEndlessFile, IsLeftInAHeaderThatDoesNotEnd) {
    for (const char c : {'h', ' ', '\0', '\xff', '\r'}) {
        ExpectLeft({"", std::string(4096, c), 64 * mebibyte / 4096, "\n" + entry}, not_known);
    }
}

TEST(ARPFileReaderEndlessFile, IsLeftInAWordThatDoesNotEnd) {
    for (const char c : {'1', '\0', '\xff'}) {
        for (const char* const begin : {"", "10.0.0.2 ", "10.0.0.2 0x1 0x2 00:11:22:33:44:55 * "}) {
            ExpectLeft({arp_header + entry + begin, std::string(4096, c), 64 * mebibyte / 4096, "\n"}, mac);
        }
    }
}

TEST(ARPFileReaderEndlessFile, IsLeftAtAWordThatIsNoAddress) {
    ExpectLeft({arp_header + entry, "ten. ", 64 * mebibyte / 5, "\n"}, mac,
               std::string(typeid(std::runtime_error).name()) + ": bad ip address string length");
}

TEST(ARPFileReaderEndlessFile, IsLeftInWhiteSpaceThatDoesNotEnd) {
    for (const char c : {' ', '\n', '\t'}) {
        for (const char* const begin : {"", "10.0.0.2", "10.0.0.2 0x1 0x2 00:11:22:33:44:55 * "}) {
            ExpectLeft({arp_header + entry + begin, std::string(4096, c), 64 * mebibyte / 4096, "\n"}, mac);
        }
    }
}

TEST(ARPFileReaderEndlessFile, OfOneEntryEndsTheProcess) {
    Spring spring({arp_header, later_entry, 64 * mebibyte / later_entry.size(), "\n"});
    ChildProcess child([&] { ARPFileReader(spring.Name().c_str()).CacheFileContent(); });
    EXPECT_EQ(SIGABRT, child.EndingSignal());
    EXPECT_THAT(child.Errors(), testing::HasSubstr("m_IPARPEntryMap.find(tblentry.m_IPAddress)"));
    EXPECT_TRUE(spring.WasLeft());
}

TEST(ARPFileReaderEndlessFile, OfOneEntryBehindAWholeTableEndsTheProcess) {
    std::string table = arp_header;
    for (int host = 0; host < 140000; ++host) {
        table += "10." + std::to_string(host / 65536 + 1) + "." + std::to_string(host / 256 % 256) + "." +
                 std::to_string(host % 256) + " 1 2 0 * -\n";
    }
    Spring spring({table, later_entry, 64 * mebibyte / later_entry.size(), "\n"});
    ChildProcess child([&] { ARPFileReader(spring.Name().c_str()).CacheFileContent(); });
    EXPECT_EQ(SIGABRT, child.EndingSignal());
    EXPECT_TRUE(spring.WasLeft());
}

TEST(ARPFileReaderPipe, IsReadBehindAMillionCharactersOfWhiteSpace) {
    for (const char* const piece : {"    ", "\n\n\n\n", " \t\r\n"}) {
        Spring spring({arp_header + entry, piece, 249999, later_entry});
        ARPFileReader reader(spring.Name().c_str());
        EXPECT_EQ("", RefusalBy(reader));
        EXPECT_EQ(mac, Known(reader, ip));
        EXPECT_EQ(mac, Known(reader, later_ip));
        EXPECT_FALSE(spring.WasLeft());
    }
}

TEST(ARPFileReaderFile, IsLeftBehindOneMoreCharacterOfWhiteSpace) {
    const std::string line = entry.substr(0, entry.size() - 1);
    const TableFile within(arp_header + line + std::string(1000000, ' ') + later_entry);
    ARPFileReader reader(within.Name().c_str());
    EXPECT_EQ("", RefusalBy(reader));
    EXPECT_EQ(mac, Known(reader, later_ip));

    const TableFile beyond(arp_header + line + std::string(1000001, ' ') + later_entry);
    reader.Set(beyond.Name().c_str());
    EXPECT_EQ("", RefusalBy(reader));
    EXPECT_EQ(mac, Known(reader, ip));
    EXPECT_EQ(not_known, Known(reader, later_ip));
}

/// Reads what is in a pipe whose writer goes on to have it open, in a child: it would wait for more.
void ExpectNotWaited(const std::string& text, const std::string& known, const std::string& refusal = "") {
    const Folder folder;
    const std::string name = folder.Path("arp");
    ASSERT_EQ(0, mkfifo(name.c_str(), 0600));
    const OwnedDescriptor both_ends(open(name.c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(static_cast<ssize_t>(text.size()), write(both_ends.Number(), text.data(), text.size()));
    TarnTest::InChild([&] {
        ARPFileReader reader(name.c_str());
        EXPECT_EQ(refusal, RefusalBy(reader));
        EXPECT_EQ(known, Known(reader, ip));
    });
}

TEST(ARPFileReaderPipe, IsNotWaitedForWhenReadingHasEnded) {
    ExpectNotWaited(std::string(79, 'h'), not_known);
    ExpectNotWaited(arp_header + entry + "10.0.0.2 0x1 0x2 1 * eth0\n", mac,
                    std::string(typeid(std::runtime_error).name()) + ": incorrect length for MAC address string");
}

TEST(ARPFileReaderPipe, IsReadToItsEndWhateverPiecesItComesIn) {
    const std::string text = "\n" + entry + later_entry;
    for (std::size_t cut = 0; cut <= text.size(); ++cut) {
        Spring spring({arp_header.substr(0, cut % 78), arp_header.substr(cut % 78, 77 - cut % 78) + text.substr(0, cut),
                       1, text.substr(cut)});
        ARPFileReader reader(spring.Name().c_str());
        ASSERT_EQ("", RefusalBy(reader)) << cut;
        ASSERT_EQ(mac, Known(reader, ip)) << cut;
        ASSERT_EQ(mac, Known(reader, later_ip)) << cut;
        ASSERT_FALSE(spring.WasLeft()) << cut;
    }
}

}  // namespace
