#include <TarnSocketIO/Asserter.h>
#include <TarnSocketIO/IPv4/IPAddress.h>
#include <gmock/gmock.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeindex>
#include <typeinfo>
#include <vector>

#include "tests/support/ErrorCapture.h"

namespace {

using IPv4::IPAddress;
using TarnTest::ErrorCapture;
using TarnTest::Says;
using testing::ElementsAre;
using testing::KilledBySignal;

struct Value {
    std::type_index type;
    const void* where;
    std::string name;
};

/// Remembers what it is called with, and goes on.
class Recorder {
public:
    void ReportWhat(const char* banner, const char* function, const char* file, unsigned int line,
                    const char* expression, const char* extra_text, int extra_level) {
        texts = {banner, function, file, expression, extra_text};
        lines.push_back(line);
        levels.push_back(extra_level);
    }
    template <class T>
    void ReportValue(const T& value, const char* name) {
        values.push_back({typeid(T), &value, name});
    }
    void DoAction() { ++actions; }

    std::vector<const char*> texts;
    std::vector<unsigned int> lines;
    std::vector<int> levels;
    std::vector<Value> values;
    int actions = 0;
};

/// Writes as every reporter does; its action is remembered beyond its end.
class KeepsGoing : public AssertFailStdErrBase {
public:
    KeepsGoing() {
        actions = 0;
        destroyed = 0;
    }
    ~KeepsGoing() override { ++destroyed; }
    KeepsGoing(const KeepsGoing&) = delete;
    KeepsGoing& operator=(const KeepsGoing&) = delete;
    void DoAction() override { ++actions; }

    static inline int actions = 0;
    static inline int destroyed = 0;
};

template <class Reporter>
class Failed : public Asserter<Reporter> {
public:
    explicit Failed(bool condition = false) : Asserter<Reporter>("B", "X", condition, "F", "P", 26, "", 3) {}
};

constexpr char header[] = "B\n expression: X\n function: F\n file: P\n line: 26";

struct ThrowsWhenWritten {};
std::ostream& operator<<(std::ostream&, ThrowsWhenWritten) {
    throw std::runtime_error("written");
}

// The object

TEST(Asserter, GivesTheReporterItsArgumentsInAnotherOrder) {
    static constexpr char banner[] = "banner", expression[] = "expression", function[] = "function", file[] = "file",
                          extra_text[] = "extra text";
    const Asserter<Recorder> asserter(banner, expression, false, function, file, 2147483647, extra_text, -9);
    EXPECT_THAT(asserter.texts, ElementsAre(banner, function, file, expression, extra_text));
    EXPECT_THAT(asserter.lines, ElementsAre(2147483647U));
    EXPECT_THAT(asserter.levels, ElementsAre(-9));
    EXPECT_EQ(0, asserter.actions);
}

TEST(Asserter, GivesANegativeLineOnAsUnsigned) {
    const Asserter<Recorder> asserter("", "", false, "", "", -1, "", 3);
    EXPECT_THAT(asserter.lines, ElementsAre(UINT_MAX));
}

TEST(Asserter, CallsNoReportWhatWhereTheConditionHolds) {
    Failed<Recorder> asserter(true);
    EXPECT_TRUE(asserter.lines.empty());
    EXPECT_EQ(0, asserter.actions);
    asserter.ReportValue(5U, "five");
    ASSERT_EQ(1U, asserter.values.size());
    EXPECT_EQ("five", asserter.values[0].name);
    ++asserter;
    EXPECT_EQ(1, asserter.actions);
    EXPECT_TRUE(asserter.lines.empty());
}

TEST(Asserter, WritesValuesAndActsAlsoWhereTheConditionHolds) {
    const ErrorCapture errors;
    Failed<KeepsGoing> asserter(true);
    EXPECT_EQ("", errors.Text());
    ++asserter.ReportValue(-5, "five");
    EXPECT_EQ("\n five: -5", errors.Text());
    EXPECT_EQ(1, KeepsGoing::actions);
}

TEST(Asserter, RefersToItselfTwice) {
    Failed<Recorder> asserter;
    EXPECT_EQ(&asserter, &asserter.SOCKETIO_ASSERT_A);
    EXPECT_EQ(&asserter, &asserter.SOCKETIO_ASSERT_B);
    Failed<Recorder> holds(true);
    EXPECT_EQ(&holds, &holds.SOCKETIO_ASSERT_A);
    EXPECT_EQ(&holds, &holds.SOCKETIO_ASSERT_B);
}

TEST(Asserter, ReturnsItselfFromEachOperation) {
    Failed<Recorder> asserter;
    EXPECT_EQ(&asserter, &asserter.ReportValue(1, "int"));
    EXPECT_EQ(&asserter, &asserter.ReportValue(1U, "unsigned int"));
    EXPECT_EQ(&asserter, &asserter.ReportValue(std::string("s"), "string"));
    EXPECT_EQ(&asserter, &++asserter);
    static_assert(std::is_same_v<Asserter<Recorder>&, decltype(asserter.ReportValue(1, ""))>);
    static_assert(std::is_same_v<Asserter<Recorder>&, decltype(asserter.ReportValue(1U, ""))>);
    static_assert(std::is_same_v<Asserter<Recorder>&, decltype(++asserter)>);
}

TEST(Asserter, ReportsAValueAsTheTypeThatItHas) {
    const int i = 1;
    const unsigned int u = 1;
    const unsigned short s = 1;
    const std::string text = "1";
    const IPAddress address;
    Failed<Recorder> asserter;
    asserter.ReportValue(i, "i").ReportValue(u, "u").ReportValue(s, "s").ReportValue(text, "t").ReportValue(address,
                                                                                                            "a");
    ASSERT_EQ(5U, asserter.values.size());
    const std::type_index types[] = {typeid(int), typeid(unsigned int), typeid(unsigned short), typeid(std::string),
                                     typeid(IPAddress)};
    const void* const objects[] = {&i, &u, &s, &text, &address};
    const char* const names[] = {"i", "u", "s", "t", "a"};
    for (std::size_t n = 0; n < 5; ++n) {
        SCOPED_TRACE(names[n]);
        EXPECT_EQ(types[n], asserter.values[n].type);
        EXPECT_EQ(names[n], asserter.values[n].name);
        // A number that others may change is copied when it is reported, the rest is looked at where it is.
        EXPECT_EQ(types[n] == typeid(int), asserter.values[n].where != objects[n]);
    }
}

TEST(Asserter, ActsOnlyWhenItIsToldTo) {
    {
        const ErrorCapture errors;
        Failed<KeepsGoing> asserter;
        asserter.ReportValue(1, "i");
        EXPECT_EQ(0, KeepsGoing::actions);
        ++asserter;
        EXPECT_EQ(1, KeepsGoing::actions);
        ++asserter;
        EXPECT_EQ(2, KeepsGoing::actions);
        EXPECT_EQ(0, KeepsGoing::destroyed);
    }
    EXPECT_EQ(2, KeepsGoing::actions);
    EXPECT_EQ(1, KeepsGoing::destroyed);
}

TEST(Asserter, AbortsOnlyWhenItIsToldTo) {
    const ErrorCapture errors;
    { Failed<AssertFailStdErrAbort>().ReportValue(1, "i"); }
    EXPECT_EQ(std::string(header) + "\n i: 1", errors.Text());
}

TEST(Asserter, HasTheShapeThatTheCompanionRuntimeWasCompiledWith) {
    using Abort = AssertFailStdErrAbort;
    EXPECT_TRUE(std::is_abstract_v<AssertFailStdErrBase>);
    EXPECT_TRUE(std::has_virtual_destructor_v<AssertFailStdErrBase>);
    EXPECT_FALSE(std::is_abstract_v<Abort>);
    EXPECT_TRUE((std::is_base_of_v<AssertFailStdErrBase, Abort>));
    EXPECT_TRUE((std::is_base_of_v<Abort, Asserter<Abort>>));
    EXPECT_FALSE(std::is_copy_constructible_v<Asserter<Abort>>);
    EXPECT_FALSE(std::is_copy_assignable_v<Asserter<Abort>>);
    EXPECT_EQ(sizeof(void*), sizeof(AssertFailStdErrBase));
    EXPECT_EQ(sizeof(void*), sizeof(Abort));

    const ErrorCapture errors;
    const Failed<Abort> asserter;
    const void* words[3];
    ASSERT_EQ(sizeof words, sizeof asserter);
    std::memcpy(words, static_cast<const void*>(&asserter), sizeof words);
    EXPECT_EQ(&asserter, words[1]);
    EXPECT_EQ(&asserter, words[2]);
}

// A pointer to a virtual operation holds the distance of its slot from the first one, and a mark beside it.
TEST(Asserter, HasTheActionInTheFirstSlotOfItsTable) {
    void (AssertFailStdErrBase::*const action)() = &AssertFailStdErrBase::DoAction;
    std::uintptr_t slot;
    std::memcpy(&slot, &action, sizeof slot);
    EXPECT_EQ(0U, slot & ~std::uintptr_t{1});
}

TEST(Asserter, AbortsThroughTheBaseTooAndWithoutAWord) {
    AssertFailStdErrAbort abort;
    AssertFailStdErrBase& base = abort;
    EXPECT_EXIT(base.DoAction(), KilledBySignal(SIGABRT), Says(""));
}

// Values

TEST(Asserter, WritesEachValueOnALineOfItsOwn) {
    struct Row {
        std::function<void(KeepsGoing&)> report;
        const char* words;
    };
    const Row rows[] = {
        {[](KeepsGoing& to) { to.ReportValue<unsigned int>(0, "n"); }, "\n n: 0"},
        {[](KeepsGoing& to) { to.ReportValue<unsigned int>(4294967295U, "n"); }, "\n n: 4294967295"},
        {[](KeepsGoing& to) { to.ReportValue<int>(INT_MIN, "n"); }, "\n n: -2147483648"},
        {[](KeepsGoing& to) { to.ReportValue<int>(-1, "n"); }, "\n n: -1"},
        {[](KeepsGoing& to) { to.ReportValue<int>(40, "ifconf_tmp.ifc_len"); }, "\n ifconf_tmp.ifc_len: 40"},
        {[](KeepsGoing& to) { to.ReportValue<unsigned short>(65535, "n"); }, "\n n: 65535"},
        {[](KeepsGoing& to) { to.ReportValue<unsigned short>(65, "n"); }, "\n n: 65"},
        {[](KeepsGoing& to) { to.ReportValue(std::string("eth0:1"), "s"); }, "\n s: eth0:1"},
        {[](KeepsGoing& to) { to.ReportValue(std::string(), "s"); }, "\n s: "},
        {[](KeepsGoing& to) { to.ReportValue(std::string(" a\nb% "), "s"); }, "\n s:  a\nb% "},
        {[](KeepsGoing& to) { to.ReportValue(IPAddress(192, 0, 2, 255), "ip"); }, "\n ip: 192.0.2.255"},
        {[](KeepsGoing& to) { to.ReportValue(IPAddress(), ""); }, "\n : 0.0.0.0"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.words);
        const ErrorCapture errors;
        KeepsGoing reporter;
        row.report(reporter);
        EXPECT_EQ(row.words, errors.Text());
        EXPECT_EQ(row.words, errors.FlushedText());
        EXPECT_EQ(0, KeepsGoing::actions);
    }
}

TEST(Asserter, WritesAStringToItsEndThroughNulCharacters) {
    const ErrorCapture errors;
    KeepsGoing().ReportValue(std::string("a\0b", 3), "s");
    EXPECT_EQ(std::string("\n s: a\0b", 8), errors.Text());
}

TEST(Asserter, FlushesEachValueOnceWhenItIsWritten) {
    const ErrorCapture errors;
    std::cerr << std::nounitbuf;
    KeepsGoing reporter;
    reporter.ReportValue(5U, "n");
    EXPECT_EQ(1, errors.Flushes());
    EXPECT_EQ("\n n: 5", errors.FlushedText());
    reporter.ReportValue(std::string("text"), "s");
    EXPECT_EQ(2, errors.Flushes());
    EXPECT_EQ("\n n: 5\n s: text", errors.FlushedText());
}

TEST(Asserter, WritesValuesInTheBaseOfTheStream) {
    const ErrorCapture errors;
    std::cerr << std::hex;
    Failed<KeepsGoing> asserter;
    asserter.ReportValue(-1, "i").ReportValue(255U, "u").ReportValue(std::string("255"), "s");
    asserter.ReportValue(static_cast<unsigned short>(254), "h").ReportValue(IPAddress(192, 168, 1, 1), "ip");
    std::cerr << std::oct << std::showbase;
    asserter.ReportValue(8, "i");
    EXPECT_EQ(std::string(header) + "\n i: ffffffff\n u: ff\n s: 255\n h: fe\n ip: c0.a8.1.1\n i: 010", errors.Text());
}

TEST(Asserter, CopiesAnIntBeforeTheNameIsWritten) {
    struct SpoilsErrno : std::stringbuf {
        std::streamsize xsputn(const char* text, std::streamsize length) override {
            errno = EIO;
            return std::stringbuf::xsputn(text, length);
        }
    };
    const ErrorCapture errors;
    SpoilsErrno spoils;
    std::cerr.rdbuf(&spoils);
    Failed<KeepsGoing> asserter(true);
    errno = ENODEV;
    asserter.ReportValue(errno, "errno");
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ("\n errno: " + std::to_string(ENODEV), spoils.str());
}

// The header

TEST(Asserter, WritesTheHeaderWithoutTheEndOfItsLastLine) {
    const ErrorCapture errors;
    const Asserter<KeepsGoing> asserter("Assertion Failed", "a == b % 2", false, "void F(int)", "dir/a.cpp", 7, "", 3);
    EXPECT_EQ("Assertion Failed\n expression: a == b % 2\n function: void F(int)\n file: dir/a.cpp\n line: 7",
              errors.Text());
}

TEST(Asserter, WritesTheExtraTextOnlyWhereThereIsOne) {
    for (const int level : {3, 0, -1, 99}) {
        SCOPED_TRACE(level);
        const ErrorCapture errors;
        KeepsGoing reporter;
        reporter.ReportWhat("B", "F", "P", 26, "X", "", level);
        reporter.ReportWhat("B", "F", "P", 26, "X", nullptr, level);
        EXPECT_EQ(std::string(header) + header, errors.Text());
        reporter.ReportWhat("B", "F", "P", 26, "X", "n", level);
        EXPECT_EQ(std::string(header) + header + header + "\n note: n", errors.Text());
    }
}

TEST(Asserter, WritesTheLineAsDecimalWhateverTheBase) {
    struct Row {
        unsigned int line;
        const char* words;
    };
    static constexpr Row rows[] = {{0, " line: 0"},
                                   {1, " line: 1"},
                                   {26, " line: 26"},
                                   {1234567, " line: 1234567"},
                                   {4294967295U, " line: 4294967295"}};
    for (const auto base : {std::dec, std::hex, std::oct}) {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.words);
            const ErrorCapture errors;
            std::cerr << base << std::showbase << std::showpos << std::uppercase;
            const std::ios_base::fmtflags flags = std::cerr.flags();
            KeepsGoing().ReportWhat("B", "F", "P", row.line, "X", "", 3);
            EXPECT_THAT(errors.Text(), testing::EndsWith(row.words));
            EXPECT_EQ(flags, std::cerr.flags());
        }
    }
}

// The process is about to end without flushing any stream.
TEST(Asserter, FlushesTheHeader) {
    const ErrorCapture errors;
    std::cerr << std::nounitbuf;
    const Failed<KeepsGoing> asserter;
    EXPECT_EQ(header, errors.FlushedText());
}

// Exceptions

TEST(Asserter, LetsWhatAValueThrowsPass) {
    const ErrorCapture errors;
    try {
        Failed<KeepsGoing> asserter;
        ++asserter.ReportValue(1, "i").ReportValue(ThrowsWhenWritten(), "t").ReportValue(2, "i");
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::runtime_error& thrown) {
        EXPECT_STREQ("written", thrown.what());
    }
    EXPECT_EQ(std::string(header) + "\n i: 1\n t: ", errors.Text());
    EXPECT_EQ(1, KeepsGoing::destroyed);
    EXPECT_EQ(0, KeepsGoing::actions);
}

TEST(Asserter, LetsWhatTheStreamThrowsPass) {
    struct TakesNothing : std::streambuf {};
    const ErrorCapture errors;
    TakesNothing takes_nothing;
    bool is_thrown = false;
    {
        std::cerr.rdbuf(&takes_nothing);
        std::cerr.exceptions(std::ios_base::badbit);
        try {
            Failed<KeepsGoing> asserter(true);
            ++asserter.ReportValue(1, "i");
        } catch (const std::ios_base::failure&) {
            is_thrown = true;
        }
    }
    EXPECT_TRUE(is_thrown);
    EXPECT_EQ(1, KeepsGoing::destroyed);
    EXPECT_EQ(0, KeepsGoing::actions);
}

}  // namespace
