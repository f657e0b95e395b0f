// What is wrong with a device, or will be.
#ifndef QORCTL_FINDINGS_H
#define QORCTL_FINDINGS_H

#include <string>
#include <vector>

#include "device.h"

namespace qorctl {

struct finding {
    bool bUnhealthy;        // a cycle of sends, or damage; else something to look after
    const char* lpszKind;   // one word, for programs
    std::string strWhat;    // what there is
    std::string strAdvice;  // what to do
};

std::vector<finding> findTroubles(const device& dev);

// Adds the queues that had more messages in each look than in the one before.
void findGrowingQueues(const std::vector<device>& looks, int nIntervalMs, std::vector<finding>& all);

}  // namespace qorctl

#endif
