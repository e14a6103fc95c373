// The measurements of the load generator.
#pragma once

#include "manager.h"

#include <string>
#include <utility>
#include <vector>

/// Names and values in the order of output.
using Figures = std::vector<std::pair<std::string, double>>;

/// GETs one after the other, with a pause before each: lost, and min_us, p50_us, p99_us of the time to the answer.
Figures latency(const std::string &address, const Oid &object, std::size_t count, std::chrono::milliseconds rest);

/// Walks below `root`, with GETBULK if `repetitions` is not 0: variables, and us_per_variable of the median walk.
Figures walk(const std::string &address, const Oid &root, std::size_t rounds, long repetitions);

/// This many GETs in total, from this many managers with one in flight each: per_second, lost.
Figures countedGets(const std::string &address, const Oid &object, std::size_t managers, std::size_t count);

/// Requests every object each 5 ms until each was silent and answers again (with `fromStart` the beginning counts as
/// silence): the last answer for object N before that is at before_N, the next at after_N, in seconds of the monotonic
/// clock.
Figures silence(const std::string &address, const std::vector<Oid> &objects, bool fromStart,
                std::chrono::milliseconds limit);
