#include "figures.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

double best_of(const std::vector<double>& figures) {
    return *std::min_element(figures.begin(), figures.end());
}

double seconds_of(const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

timed_pair measure_in_turns(int rounds, const std::function<void(int round)>& own,
                            const std::function<void(int round)>& floor) {
    std::vector<double> owns;
    std::vector<double> floors;
    for (int round = 0; round < rounds; round++) {
        floors.push_back(seconds_of([&] { floor(round); }));
        owns.push_back(seconds_of([&] { own(round); }));
    }
    return {best_of(owns), best_of(floors)};
}

void print_row(const std::string& work, double figure, double floor, const char* unit, goal direction, double reach) {
    const double judged = floor > 0 ? figure / floor : figure;
    const bool reached = direction == goal::at_most ? judged <= reach : judged >= reach;
    char floor_text[32] = "-";
    char ratio_text[32] = "-";
    if (floor > 0) {
        snprintf(floor_text, sizeof floor_text, "%.3f", floor);
        snprintf(ratio_text, sizeof ratio_text, "%.2f", judged);
    }
    printf("%-58s %12.3f %12s %-12s %7s  %s %.2f%s\n", work.c_str(), figure, floor_text, unit, ratio_text,
           direction == goal::at_most ? "at most " : "at least", reach, reached ? "" : "  MISSED");
    fflush(stdout);
}

void require(bool holds, const char* what) {
    if (!holds) {
        fprintf(stderr, "benchmark: %s\n", what);
        exit(1);
    }
}
