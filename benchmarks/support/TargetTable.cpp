#include <benchmarks/support/TargetTable.h>

#include <algorithm>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string_view>

namespace TarnBenchmark {

std::string Figure(double value, int decimals, const std::string& unit) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(decimals) << value;
    if (!unit.empty()) {
        text << ' ' << unit;
    }
    return text.str();
}

void TargetTable::AddRatio(benchmark::State& state, const std::string& what, const PairedRatio& measured,
                           const std::string& library, const std::string& baseline, double at_least) {
    const double ratio = measured.Ratio();
    state.counters["ratio"] = ratio;
    state.counters["ratio_25"] = measured.LowerQuartile();
    state.counters["ratio_75"] = measured.UpperQuartile();
    state.counters["target"] = at_least;
    m_rows.push_back(
        {what, library, baseline, Figure(ratio, 3, ""), ">= " + Figure(at_least, 2, ""), ratio >= at_least});
}

void TargetTable::AddLimit(const std::string& what, double value, const std::string& unit, const std::string& baseline,
                           double at_most) {
    m_rows.push_back({what, Figure(value, 2, unit), baseline, "-", "<= " + Figure(at_most, 0, unit), value <= at_most});
}

void TargetTable::Fail(benchmark::State& state, const std::string& error) {
    m_failed = true;
    state.SkipWithError(error.c_str());
}

void TargetTable::Write(std::ostream& out) const {
    for (const Row& row : m_rows) {
        const char* const verdict = m_plan.quick ? "not judged" : row.met ? "met" : "MISSED";
        out << row.what << '\t' << row.library << '\t' << row.baseline << '\t' << row.ratio << '\t' << row.target
            << '\t' << verdict << '\n';
    }
}

bool TargetTable::AreAllMet() const {
    return std::all_of(m_rows.begin(), m_rows.end(), [](const Row& row) { return row.met; });
}

int TargetTable::Run(int argc, char** argv, const std::function<void(const Plan&)>& register_benchmarks) {
    constexpr int error_status = 2;
    constexpr std::string_view table_option = "--table=";

    benchmark::Initialize(&argc, argv);
    std::string file;
    for (int i = 1; i < argc; ++i) {
        const std::string_view option = argv[i];
        if (option == "--quick") {
            m_plan.quick = true;
        } else if (option.substr(0, table_option.size()) == table_option) {
            file = option.substr(table_option.size());
        } else {
            std::cerr << argv[0] << ": unknown option \"" << option
                      << "\"; known are --quick, --table=FILE and Google Benchmark's own\n";
            return error_status;
        }
    }

    register_benchmarks(m_plan);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    std::ofstream table;
    if (!file.empty()) {
        table.open(file, std::ios::app);
    }
    std::ostream& out = file.empty() ? std::cout : table;
    Write(out);
    if (!out.flush()) {
        std::cerr << argv[0] << ": cannot write the table to \"" << file << "\"\n";
        return error_status;
    }
    if (m_failed) {
        return error_status;
    }
    return m_plan.quick || AreAllMet() ? 0 : 1;
}

}  // namespace TarnBenchmark
