// A process is killed at any store, system call or instruction of any operation that changes a segment: nothing is
// half-made, nothing is lost, and nobody else notices.
//
// QOR_KILL_OPERATION=text chooses the operations with this text in their names; QOR_KILL_TRACE=1 prints every kill that
// leaves something.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kill/operations.h"
#include "support/scale.h"

using namespace qorTest;

namespace {

std::vector<killOperation> allOperations() {
    std::vector<killOperation> list;
    for (const auto& part : {messageOperations(), dataOperations(), registryOperations(), firstUses()})
        list.insert(list.end(), part.begin(), part.end());
    return list;
}

std::vector<killOperation> counterOperations() {
    std::vector<killOperation> list;
    for (const killOperation& operation : dataOperations())
        if (strncmp(operation.lpszName, "counter", 7) == 0)
            list.push_back(operation);
    return list;
}

bool isChosen(const killOperation& operation) {
    const char* const lpszOnly = getenv("QOR_KILL_OPERATION");
    return lpszOnly == NULL || strstr(operation.lpszName, lpszOnly) != NULL;
}

const char* nameOf(killPlan plan) {
    switch (plan) {
        case killPlan::stores:
            return "kills at stores";
        case killPlan::systemCalls:
            return "kills at system calls";
        case killPlan::instructions:
            return "kills at instructions";
        case killPlan::recovery:
        case killPlan::someRecovery:
            return "kills at stores, and twice in the rollback";
        case killPlan::reboot:
            return "kills at stores, then a reboot";
        default:
            return "power cuts after a flush";
    }
}

void printTable(const char* lpszTitle, const std::vector<killTally>& tallies) {
    killTally sum;
    sum.strName = "all";
    printf("\n%s\n%s\n", lpszTitle, headOfTallies().c_str());
    for (const killTally& tally : tallies) {
        puts(describe(tally).c_str());
        sum.Add(tally);
    }
    puts(describe(sum).c_str());
}

// Kills the operations by every plan, prints a table of each, and expects that nothing is left of any kill.
void killAll(const std::vector<killChoice>& choices, const std::vector<killOperation>& list) {
    std::vector<std::vector<killTally>> tables(choices.size());
    for (const killOperation& operation : list) {
        if (!isChosen(operation))
            continue;
        const std::vector<killTally> tallies = killOperationAt(operation, choices, seed(1));
        for (size_t i = 0; i < tallies.size(); ++i) {
            const killTally& tally = tallies[i];
            EXPECT_EQ(0, tally.nOther + tally.nLeaked + tally.nFatal)
                << nameOf(choices[i].plan) << ", " << tally.strName << ": " << tally.strFirst;
            tables[i].push_back(tally);
            if (isLong())
                fprintf(stderr, "%s\n", describe(tally).c_str());
        }
    }
    for (size_t i = 0; i < choices.size(); ++i)
        printTable(nameOf(choices[i].plan), tables[i]);
}

// An emulator does not let its processes be traced.
bool canTrace() { return *QOR_TEST_EMULATOR == 0; }

// A few points of every operation: the long form takes all of them.
TEST(Kill, AtAnyPointLeavesNothingHalfMade) {
    if (isLong())
        GTEST_SKIP() << "the long forms take all points";
    const int nTimes = isSlow() ? 1 : 2;
    std::vector<killChoice> choices = {{killPlan::stores, 2 * nTimes}, {killPlan::someRecovery, 1}};
    if (canTrace()) {
        choices.push_back({killPlan::systemCalls, nTimes});
        choices.push_back({killPlan::instructions, 2 * nTimes});
    }
    killAll(choices, allOperations());
}

void killInLongForm(killPlan plan, int nMost) {
    if (!isLong() || !canTrace())
        GTEST_SKIP() << "only in the long form";
    killAll({{plan, nMost}}, allOperations());
}

TEST(Kill, AtEveryStoreLeavesNothingHalfMade) { killInLongForm(killPlan::stores, -1); }

TEST(Kill, AtEverySystemCallLeavesNothingHalfMade) { killInLongForm(killPlan::systemCalls, -1); }

TEST(Kill, AtTwentyThousandInstructionsLeavesNothingHalfMade) {
    const int nOperations = static_cast<int>(allOperations().size());
    killInLongForm(killPlan::instructions, 20000 / nOperations + 1);
}

TEST(Kill, AtEveryStoreOfTheRollbackLeavesItToTheNext) { killInLongForm(killPlan::recovery, 10); }

TEST(Kill, BeforeARebootOrPowerCutLeavesNoHalfMadeCounter) {
    killAll({{killPlan::reboot, isLong() ? -1 : 3}, {killPlan::powerCut, -1}}, counterOperations());
}

// The n-th point of a post lies in its section.
TEST(Kill, ALockThatIsTakenFromALivingHolderEndsWhoeverTakesIt) {
    for (const killOperation& operation : messageOperations())
        for (const bool bRemove : {false, true}) {
            if (strcmp(operation.lpszName, "post with extra data") != 0)
                continue;
            const auto end = stealLock(operation, 12, QOR_InspectHelper::segmentShare, bRemove);
            EXPECT_EQ(SIGABRT, end.first);
            EXPECT_NE(
                std::string::npos,
                end.second.find("the lock of [/tmp/qor_ipc_system_share] was released while a living process held it"))
                << end.second;
        }
}

}  // namespace
