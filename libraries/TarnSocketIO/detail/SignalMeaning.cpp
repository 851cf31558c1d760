#include <TarnSocketIO/detail/SignalMeaning.h>

#include <signal.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <iterator>

namespace TarnSocketIO::detail {

namespace {

struct CodeText {
    int code;
    const char* text;
};

/// The codes of one signal.
struct CodeTable {
    int signal;
    const char* name;  ///< what every text begins with
    const CodeText* entries;
    std::size_t count;

    template <std::size_t Count>
    constexpr CodeTable(int of_signal, const char* with_name, const CodeText (&with_entries)[Count])
        : signal(of_signal), name(with_name), entries(with_entries), count(Count) {}
};

constexpr CodeText poll_codes[] = {
    {SI_SIGIO, "POLL: IO ready"},
    {POLL_IN, "POLL: data available"},
    {POLL_OUT, "POLL: write available"},
    {POLL_MSG, "POLL: message available"},
    {POLL_ERR, "POLL: descriptor error"},
    {POLL_PRI, "POLL: priority data available"},
    {POLL_HUP, "POLL: remote descriptor closed"},
};

constexpr CodeText segv_codes[] = {
    {SEGV_MAPERR, "SEGMENTATION FAULT: address not mapped to object"},
    {SEGV_ACCERR, "SEGMENTATION FAULT: invalid permissions for mapped object"},
};

constexpr CodeText ill_codes[] = {
    {ILL_ILLOPC, "ILLEGAL: illegal opcode"},          {ILL_ILLOPN, "ILLEGAL: illegal operand"},
    {ILL_ILLADR, "ILLEGAL: illegal addressing mode"}, {ILL_ILLTRP, "ILLEGAL: illegal trap"},
    {ILL_PRVOPC, "ILLEGAL: privileged opcode"},       {ILL_PRVREG, "ILLEGAL: privileged register"},
    {ILL_COPROC, "ILLEGAL: coprocessor error"},       {ILL_BADSTK, "ILLEGAL: internal stack error"},
};

constexpr CodeText fpe_codes[] = {
    {FPE_INTDIV, "FLOATING POINT EXCEPTION: integer devide by zero"},
    {FPE_INTOVF, "FLOATING POINT EXCEPTION: integer overflow"},
    {FPE_FLTDIV, "FLOATING POINT EXCEPTION: floating point divide by zero"},
    {FPE_FLTOVF, "FLOATING POINT EXCEPTION: floating point overflow"},
    {FPE_FLTUND, "FLOATING POINT EXCEPTION: floating point underflow"},
    {FPE_FLTRES, "FLOATING POINT EXCEPTION: floating point inexact result"},
    {FPE_FLTINV, "FLOATING POINT EXCEPTION: floating point invalid operation"},
    {FPE_FLTSUB, "FLOATING POINT EXCEPTION: subscript out of range"},
};

constexpr CodeText bus_codes[] = {
    {BUS_ADRALN, "BUS: invalid address alignment"},
    {BUS_ADRERR, "BUS: non-existant physical address"},
    {BUS_OBJERR, "BUS: object specific hardware error"},
};

constexpr CodeTable tables[] = {
    {SIGPOLL, "POLL", poll_codes},  {SIGSEGV, "SEGMENTATION FAULT", segv_codes},
    {SIGILL, "ILLEGAL", ill_codes}, {SIGFPE, "FLOATING POINT EXCEPTION", fpe_codes},
    {SIGBUS, "BUS", bus_codes},
};

const char* NameOf(int signal) {
    switch (signal) {
        case SIGINT:
            return "SIGINT";
        case SIGTERM:
            return "SIGTERM";
        default:
            return "unknown";
    }
}

}  // namespace

SignalMeaning::SignalMeaning(int signal, int code) : m_text(m_buffer) {
    const auto table = std::find_if(std::begin(tables), std::end(tables),
                                    [signal](const CodeTable& candidate) { return candidate.signal == signal; });
    if (table == std::end(tables)) {
        m_text = NameOf(signal);
        return;
    }
    const CodeText* const end = table->entries + table->count;
    const CodeText* const entry =
        std::find_if(table->entries, end, [code](const CodeText& candidate) { return candidate.code == code; });
    if (entry != end) {
        m_text = entry->text;
        return;
    }
    std::snprintf(m_buffer, sizeof m_buffer, "%s: unknown value %d", table->name, code);
}

}  // namespace TarnSocketIO::detail
