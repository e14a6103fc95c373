// What the loader measures.
#pragma once

#include "manager.h"

#include <string>
#include <utility>
#include <vector>

/// Names and values in the order in which they are printed.
using Figures = std::vector<std::pair<std::string, double>>;

/// GETs one after the other, a rest before each: lost, and min_us, p50_us, p99_us of the time to the answer.
Figures latency(const std::string &address, const Oid &object, std::size_t count, std::chrono::milliseconds rest);

/// Walks below `root`, with GETBULK when `repetitions` is not 0: variables, and us_per_variable of the median walk.
Figures walk(const std::string &address, const Oid &root, std::size_t rounds, long repetitions);

/// So many managers, each with one GET in flight: per_second, lost.
Figures load(const std::string &address, const Oid &object, std::size_t managers, std::chrono::milliseconds duration);

/// So many GETs in all, from so many managers with one in flight each: per_second, lost.
Figures countedLoad(const std::string &address, const Oid &object, std::size_t managers, std::size_t count);

/// Asks for every object each 5 ms until each was silent and is answered again (the beginning counts as silence when
/// `fromStart`): object N was answered last at before_N and again at after_N, seconds of the monotonic clock.
Figures silence(const std::string &address, const std::vector<Oid> &objects, bool fromStart,
                std::chrono::milliseconds limit);
