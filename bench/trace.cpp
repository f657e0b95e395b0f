// What a trace line costs that the level drops.
#include <stdio.h>
#include <string.h>

#include "qor/TraceHelper.h"
#include "support.h"

using namespace bench;
using namespace QOR_TraceHelper;

namespace {

double s_nRepeat = 1;

struct row {
    const char* lpszName;
    std::function<void()> fnRun;
};

constexpr int lines = 100000;

// A run of many lines; the compiler must take each one for different from the line before.
template <class Fn>
std::function<void()> manyTimes(Fn fnLine) {
    return [fnLine]() {
        for (int i = 0; i < lines; ++i) {
            fnLine(i);
            asm volatile("" ::: "memory");
        }
    };
}

void printRows() {
    const char* const lpszText = "text";
    const std::vector<row> listRow = {
        {"an empty loop", manyTimes([](int) {})},
        {"qorTrace(), two arguments", manyTimes([=](int i) { qorTrace(3, "%d clients: %s", i, lpszText); })},
        {"qorTrace(), with a double", manyTimes([=](int i) { qorTrace(3, "%d clients: %f", i, 0.5 * i); })},
        {"tracePrintf(), two arguments", manyTimes([=](int i) { tracePrintf("%d clients: %s", i, lpszText); })},
        {"qorTraceObject(), int", manyTimes([](int i) { qorTraceObject("n", i); })},
        {"chTraceStack, two arguments", manyTimes([=](int i) { chTraceStack stack("%d clients: %s", i, lpszText); })}};
    std::vector<std::function<void()>> listRun;
    for (const row& vRow : listRow)
        listRun.push_back(vRow.fnRun);
    const std::vector<double> listTime = mediansSpent(lines, s_nRepeat, listRun);
    printf("a trace line that the level drops (ns)\n");
    for (size_t i = 0; i < listRow.size(); ++i)
        printf("  %-30s %6.2f\n", listRow[i].lpszName, listTime[i] / lines);
    printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 2 || (argc == 2 && strcmp(argv[1], "--quick") != 0)) {
        fprintf(stderr, "usage: qor_bench_trace [--quick]\n");
        return 2;
    }
    if (argc == 2)
        s_nRepeat = 0.05;
    pin(0);
    uCTraceHelpergetGlobalObject()->ResetTraceLevel(1);
    printRows();
    return 0;
}
