#include "results.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace bench {

namespace {

double at(const std::vector<long long>& sorted, double share)
{
    if (sorted.empty()) {
        return 0;
    }
    const auto rank = static_cast<std::size_t>(std::ceil(share * static_cast<double>(sorted.size())));
    return static_cast<double>(sorted[std::clamp<std::size_t>(rank, 1, sorted.size()) - 1]) / 1000.0;
}

} // namespace

Percentiles percentilesOf(std::vector<long long> series)
{
    std::sort(series.begin(), series.end());
    return {at(series, 0.5), at(series, 0.99), at(series, 0.999), at(series, 1.0)};
}

Result::Result(const std::string& kind)
    : m_line("{\"kind\": \"" + kind + "\"")
{}

Result::~Result()
{
    std::printf("%s}\n", m_line.c_str());
    std::fflush(stdout);
}

Result& Result::text(const std::string& key, const std::string& value)
{
    m_line += ", \"" + key + "\": \"" + value + "\"";
    return *this;
}

Result& Result::number(const std::string& key, double value)
{
    char digits[40];
    std::snprintf(digits, sizeof(digits), "%.10g", value);
    m_line += ", \"" + key + "\": " + digits;
    return *this;
}

Result& Result::percentiles(const std::string& prefix, const std::vector<long long>& series)
{
    const Percentiles found = percentilesOf(series);
    return number(prefix + "p50", found.p50)
        .number(prefix + "p99", found.p99)
        .number(prefix + "p999", found.p999)
        .number(prefix + "max", found.highest);
}

} // namespace bench
