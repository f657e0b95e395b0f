// Processes that exchange messages as fast as they can.
#ifndef QOR_TESTS_SUPPORT_EXCHANGE_H
#define QOR_TESTS_SUPPORT_EXCHANGE_H

#include <stdlib.h>

#include <memory>
#include <string>
#include <vector>

#include "qor/flat.h"
#include "support/child.h"

namespace qorTest {

// The threads t0, t1 and so on, each in a process: those with an even number send message 0x100 with 16 bytes to the
// next one, which answers, for ever.
class exchangers {
public:
    explicit exchangers(int nCount) {
        for (int i = 0; i < nCount; ++i) {
            m_arrChild.emplace_back(new childProcess("exchange", [this, i] { return run(i); }));
            m_ready.hear();
        }
    }

private:
    static int onMessage(simpMSG* pMsg) { return pMsg->uMsg == 0x8121 ? -1 : static_cast<int>(pMsg->wParam); }

    int run(int iSelf) {
        setenv("trace", "0", 1);
        const std::string strName = "t" + std::to_string(iSelf), strPartner = "t" + std::to_string(iSelf ^ 1);
        msgRegistMainThread(strName.c_str(), onMessage);
        m_ready.say();
        for (unsigned int u = 0;; ++u) {
            if ((iSelf & 1) == 0)
                msgSendMsgToThreadTimeoutEx(msgGetThreadByName(strPartner.c_str()), 0x100, u, 0, 16, "0123456789abcdef",
                                            1000);
            else
                msgProcessThreadMsgOnce(msgGetCurrentThreadObject());
        }
    }

    meeting m_ready;
    std::vector<std::unique_ptr<childProcess>> m_arrChild;
};

}  // namespace qorTest

#endif
