// The figures of one snapshot in the form of the metrics system Prometheus.
#pragma once

#include "control/observe/snapshot.h"

#include <string>
#include <string_view>
#include <vector>

#include <prometheus/metric_family.h>

namespace control {

/// One family for each figure that is known; what is not known has no sample, rather than a 0 that
/// reads like a figure.
///
/// Counters begin at 0 with each start of the daemon. Those of a detector bear its name in the
/// label `detector`. What several detectors may have left is counted in the same family without
/// that label: so the sum over a family is always the whole, and no detector is credited with what
/// may be another's.
std::vector<prometheus::MetricFamily> metricFamilies(const Snapshot& snapshot);

/// A text of any bytes as the value of a label: UTF-8, in which backslashes, control characters and
/// bytes that are no UTF-8 are written as \ooo. Different texts give different values, none of them
/// empty.
std::string labelValue(std::string_view text);

} // namespace control
