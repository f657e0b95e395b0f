// The calibration record in a damaged segment. A process looks it up once, so this test is a program of its
// own.
#include "qor/BaseHelper/Tick.h"
#include "qor/MsgQueueHelper/Named.h"
#include "qor/flat.h"

using QOR_ChainHelper::storeShareWord;

namespace {

constexpr int sizeRecord = 28;

// Links the chain of named blocks to a record of the same name that stands nLeft bytes in front of the
// segment's end.
void moveRecord(int nLeft) {
    nameHelperLock();
    char* pSegment =
        reinterpret_cast<char*>(QOR_MsgQueueHelper::uCSystemNamedObjectHelpergetGlobalObject()->getObject());
    char* pData = static_cast<char*>(nameGetSystemObject("xTimerInfo", sizeRecord, NULL));
    int32_t* pOldText = reinterpret_cast<int32_t*>(pData - 4);  // as a distance from the word in front of it
    char* pText = pData - 8 + *pOldText;

    char* pRecord = pSegment + QOR_MsgQueueHelper::chSystemNamedObject::segmentSize - nLeft;
    storeShareWord(*reinterpret_cast<int32_t*>(pRecord + 12), static_cast<int32_t>(pText - (pRecord + 8)));
    int32_t* pRoot = reinterpret_cast<int32_t*>(pSegment + 28);
    storeShareWord(*pRoot, static_cast<int32_t>(pRecord - reinterpret_cast<char*>(pRoot)));
    nameHelperUnlock();
}

TEST(TickBadRecord, ARecordThatPassesTheEndOfItsSegmentIsNotRead) {
    for (const int nLeft : {16, 20, 40})
        EXPECT_EXIT((moveRecord(nLeft), QOR_BaseHelper::qorGetTickCount()), testing::KilledBySignal(SIGABRT),
                    "\\[xInc/xBaseClass:[0-9]+\\] broken tick record \\(");
}

}  // namespace
