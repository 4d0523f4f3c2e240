/// Measurements of a benchmark and the table that shows them.
#ifndef BENCH_FIGURES_H
#define BENCH_FIGURES_H

#include <functional>
#include <string>
#include <vector>

/// Seconds that `work` takes.
double seconds_of(const std::function<void()>& work);

/// The minimum of several measurements of the same work: other load can only add to it.
double best_of(const std::vector<double>& figures);

/// The best times of a work and of its floor, measured alternately so that a busy machine slows both.
struct timed_pair {
    double own;    ///< seconds
    double floor;  ///< seconds
};

/// Runs both alternately, `rounds` times each. `round` counts from 0.
timed_pair measure_in_turns(int rounds, const std::function<void(int round)>& own,
                            const std::function<void(int round)>& floor);

enum class goal { at_most, at_least };

/// Prints one row: the figure, its floor, their ratio and the goal. If the floor is 0, there is none, and the figure
/// itself is compared with the goal. A figure that misses its goal is marked.
void print_row(const std::string& work, double figure, double floor, const char* unit, goal direction, double reach);

/// Ends the program with a message unless `holds`.
void require(bool holds, const char* what);

#endif
