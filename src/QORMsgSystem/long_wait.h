// A wait for an answer that lasts.
//
// Whoever is answered within the first slice pays nothing for it: until then no clock is read and nothing is written.
#ifndef QOR_MSG_SYSTEM_LONG_WAIT_H
#define QOR_MSG_SYSTEM_LONG_WAIT_H

#include "QORMsgSystem/notes.h"
#include "QORMsgSystem/wait_deadline.h"

namespace QOR_MsgQueueHelper {

class longWait {
public:
    // A wait for a record; nWaited: milliseconds that it may have lasted when LookAgain() is called first.
    longWait(const msgObject& objMessage, int nWaited) : m_objMessage(objMessage), m_nWaited(nWaited) {}
    longWait(const longWait&) = delete;
    longWait& operator=(const longWait&) = delete;
    ~longWait() {
        if (m_pNote != NULL)
            endWait(m_pNote, m_objMessage);
    }

    // Called after each look that found no answer, not under a lock. Notes the wait when it has lasted for 50 ms; warns
    // once when it has no limit, has lasted for a second, and is part of a cycle.
    void LookAgain(const waitDeadline& deadline);

private:
    const msgObject& m_objMessage;  // compared, never followed
    const int m_nWaited;
    bool m_bNoted = false;
    bool m_bChecked = false;
    unsigned long long m_uBegin = 0;  // in microseconds; 0 before the first call
    senderNote* m_pNote = NULL;
};

}  // namespace QOR_MsgQueueHelper

#endif
