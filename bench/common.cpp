// The RESULT line, percentiles and medians. Percentiles are by nearest rank
// over all samples, without interpolation: every figure reported is a time
// some round trip really took.
#include "common.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace UlmarCommsBench {

namespace {

// The median of values (the mean of the middle two for an even count).
double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// Reads the key=value words after "RESULT" into figures.
void parseWords(const std::string& words, Figures& figures)
{
    std::istringstream stream(words);
    std::string word;
    while (stream >> word) {
        const size_t equals = word.find('=');
        if (equals != std::string::npos)
            figures[word.substr(0, equals)] = std::strtod(word.c_str() + equals + 1, nullptr);
    }
}

} // namespace

std::string formatNumber(double value)
{
    char number[64];
    std::snprintf(number, sizeof(number), "%.6g", value);
    return number;
}

void printResult(const Figures& figures)
{
    // Every digit: children report clock readings the coordinator subtracts.
    std::string line = "RESULT";
    for (const auto& [key, value] : figures) {
        char number[64];
        std::snprintf(number, sizeof(number), "%.17g", value);
        line += " " + key + "=" + number;
    }
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

bool parseResult(const std::string& output, Figures& figures)
{
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.rfind("RESULT", 0) == 0) {
            parseWords(line.substr(6), figures);
            return true;
        }
    }
    return false;
}

double microseconds(Clock::duration d)
{
    return std::chrono::duration<double, std::micro>(d).count();
}

double clockSeconds(Clock::time_point when)
{
    return std::chrono::duration<double>(when.time_since_epoch()).count();
}

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void addLatencyFigures(std::vector<double>& samples, Figures& figures)
{
    std::sort(samples.begin(), samples.end());
    auto at = [&](double q) {
        size_t rank = static_cast<size_t>(q * double(samples.size()));
        return samples[std::min(rank, samples.size() - 1)];
    };
    figures["rtt_p50_us"] = at(0.50);
    figures["rtt_p99_us"] = at(0.99);
    figures["rtt_p999_us"] = at(0.999);
    figures["rtt_max_us"] = samples.back();
}

Figures medians(const std::vector<Figures>& runs)
{
    Figures result;
    for (const auto& [key, value] : runs.front()) {
        (void)value;
        std::vector<double> values;
        for (const Figures& run : runs)
            values.push_back(run.count(key) != 0 ? run.at(key) : 0);
        result[key] = median(values);
    }
    return result;
}

std::string pipeSetting(const std::string& pipe)
{
    return "ulmar.systemrouter.pipe.name=" + pipe;
}

} // namespace UlmarCommsBench
