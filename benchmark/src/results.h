#pragma once

#include <string>
#include <utility>
#include <vector>

namespace bench {

/// Percentiles of a series of durations in nanoseconds, as microseconds.
struct Percentiles
{
    double p50, p99, p999, highest;
};

Percentiles percentilesOf(std::vector<long long> series);

/// One line of results on stdout: a JSON object whose fields are written in the order given.
class Result
{
public:
    explicit Result(const std::string& kind);
    ~Result(); ///< writes it
    Result(const Result&) = delete;
    Result& operator=(const Result&) = delete;

    Result& text(const std::string& key, const std::string& value);
    Result& number(const std::string& key, double value);
    Result& percentiles(const std::string& prefix, const std::vector<long long>& series);

private:
    std::string m_line;
};

} // namespace bench
