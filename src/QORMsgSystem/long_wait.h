// A wait for an answer that lasts.
//
// Whoever is answered within the first slice pays nothing for it: until then no clock is read and nothing is written.
#ifndef QOR_MSG_SYSTEM_LONG_WAIT_H
#define QOR_MSG_SYSTEM_LONG_WAIT_H

namespace QOR_MsgQueueHelper {

class longWait {
public:
    // Called after each look that found no answer. Warns once when the wait has no limit, has lasted for a second, and
    // is part of a cycle. Not under a lock.
    void LookAgain(bool bUnlimited);

private:
    bool m_bChecked = false;
    unsigned long long m_uBegin = 0;  // of the first call, in microseconds; 0 before it
};

}  // namespace QOR_MsgQueueHelper

#endif
