#pragma once
// What every benchmark under Wine shares: a clock, medians, and one table
// layout. A benchmark times each of its measures once per round, the floor
// and the measured calls one after the other in the same process, so that a
// busy moment of the machine falls on both; a measure's ratio is the median
// over the rounds of its time divided by the floor's time in the same round.
// Nothing here asserts a time.
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace bench {

// Seconds on the performance counter.
inline double Now() {
    static const double frequency = [] {
        LARGE_INTEGER f;
        QueryPerformanceFrequency(&f);
        return static_cast<double>(f.QuadPart);
    }();
    LARGE_INTEGER counter;
    QueryPerformanceCounter(&counter);
    return static_cast<double>(counter.QuadPart) / frequency;
}

inline double Median(std::vector<double> values) {
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// Runs `body` (which does `operations` operations) once and adds its time per
// operation to `times`.
template <class Body> void Time(std::vector<double>& times, int operations, Body&& body) {
    double start = Now();
    body();
    times.push_back((Now() - start) / operations);
}

// One measure: its time per operation in every round.
struct Measure {
    std::string name;
    std::vector<double> times;
};

// The median over the rounds of `measured` divided by `floor`, round by round.
inline double Ratio(const Measure& measured, const Measure& floor) {
    std::vector<double> ratios;
    for (size_t i = 0; i < measured.times.size() && i < floor.times.size(); ++i)
        if (floor.times[i] > 0)
            ratios.push_back(measured.times[i] / floor.times[i]);
    return Median(ratios);
}

struct Unit {
    const char* name; // "us", "ms"
    double perSecond; // 1e6, 1e3
};
constexpr Unit kMicroseconds = {"us", 1e6};
constexpr Unit kMilliseconds = {"ms", 1e3};

// | measure | measured | floor | ratio | aim |: each row sets a measure
// beside the floor it is judged against, both per operation.
class Table {
  public:
    Table(std::string operation, Unit unit) : m_operation(std::move(operation)), m_unit(unit) {}

    void Row(const Measure& measured, const Measure& floor, std::string aim = "") {
        m_rows.push_back({&measured, &floor, std::move(aim)});
    }

    void Print() const {
        std::printf("| measure | per %s (%s) | floor | floor per %s (%s) | ratio | aim |\n"
                    "|---|---|---|---|---|---|\n",
                    m_operation.c_str(), m_unit.name, m_operation.c_str(), m_unit.name);
        for (const RowData& row : m_rows)
            std::printf("| %s | %.1f | %s | %.1f | %.2f | %s |\n", row.measured->name.c_str(),
                        Median(row.measured->times) * m_unit.perSecond, row.floor->name.c_str(),
                        Median(row.floor->times) * m_unit.perSecond,
                        Ratio(*row.measured, *row.floor), row.aim.c_str());
        std::printf("\n");
        std::fflush(stdout);
    }

  private:
    struct RowData {
        const Measure* measured;
        const Measure* floor;
        std::string aim;
    };
    std::string m_operation;
    Unit m_unit;
    std::vector<RowData> m_rows;
};

} // namespace bench
