// How fast something grows or shrinks, from samples that come now and then.
#include "control/observe/rate_history.h"

#include <algorithm>
#include <cmath>

namespace control {

namespace {

/// More samples than this are not kept, however fast they come.
constexpr std::size_t mostSamples = 4096;

} // namespace

History::History(double secondsKept) : kept(secondsKept) {
}

void History::add(double time, double value) {
    while (!samples.empty() && samples.back().time >= time) {
        samples.pop_back();
    }
    samples.push_back({time, value});
    // The second one may be old enough to be the beginning of what is kept.
    while (samples.size() > 2 && (samples[1].time <= time - kept || samples.size() > mostSamples)) {
        samples.pop_front();
    }
}

double History::at(double time) const {
    const auto after =
        std::lower_bound(samples.begin(), samples.end(), time,
                         [](const Sample& sample, double moment) { return sample.time < moment; });
    if (after == samples.end()) {
        return samples.back().value;
    }
    if (after == samples.begin()) {
        return after->value;
    }
    const Sample& before = *(after - 1);
    return before.value +
           (after->value - before.value) * (time - before.time) / (after->time - before.time);
}

std::optional<double> History::slope(double seconds, double atLeast) const {
    if (samples.empty()) {
        return std::nullopt;
    }
    const double end = samples.back().time;
    const double begin = std::max(end - seconds, samples.front().time);
    if (end <= begin || end - begin < atLeast) {
        return std::nullopt;
    }
    return (samples.back().value - at(begin)) / (end - begin);
}

std::vector<double> History::changes(int count) const {
    std::vector<double> found;
    if (samples.empty()) {
        return found;
    }
    const double end = std::floor(samples.back().time);
    const double begin = std::max(std::ceil(samples.front().time), end - count);
    const int seconds = static_cast<int>(end - begin);
    for (int i = 0; i < seconds; ++i) {
        found.push_back(at(begin + i + 1) - at(begin + i));
    }
    return found;
}

double GrowingTotal::take(unsigned long long count, unsigned long long epoch) {
    if (begun) {
        const bool anew = epoch != lastEpoch || count < lastCount;
        sum += static_cast<double>(anew ? count : count - lastCount);
    }
    begun = true;
    lastCount = count;
    lastEpoch = epoch;
    return sum;
}

std::optional<double> secondsUntilGone(double free, std::optional<double> slope) {
    if (!slope || *slope >= 0) {
        return std::nullopt;
    }
    return free / -*slope;
}

} // namespace control
