// What the sources of the regular expressions share: the state of a build, and what is worked out for matching. That is
// left to a tree's first match, so that a build costs no more than its tree.
#ifndef QOR_REGULAR_EXPRESS_PLAN_H
#define QOR_REGULAR_EXPRESS_PLAN_H

#include <stdint.h>
#include <string.h>

#include <new>

#include "qor/RegularExpressHelper/Express.h"

namespace QOR_RegularExpressHelper {

// The build under way. m_nLook is the depth of the deepest repetition in front that looks ahead: the matcher may stand
// in it when it comes to what follows.
struct reBuild {
    int m_nNodes = 0;
    int m_nDepth = 0;
    int m_nLook = 0;
    int m_nAliasText = 0;
    int m_nNegated = 0;             // negated sequences
    const char* m_lpszHint = NULL;  // the first thing that looks like another dialect, explained

    // Counts the pattern of one more alias; whether there is room for it.
    bool takeAlias(const char* lpszAlias) {
        m_nAliasText += static_cast<int>(strnlen(lpszAlias, maxAliasText));
        return m_nAliasText <= maxAliasText;
    }
    int nextDepth() const { return (m_nDepth > m_nLook ? m_nDepth : m_nLook) + 1; }
};

struct reState;

// A node below one that takes one character: at which characters it is applied, and which of these it takes. At the end
// of the text it is applied and fails.
struct reBelow {
    re_Base<char>* m_pRE;
    uint32_t m_arrReached[8];
    uint32_t m_arrTaken[8];

    static uint32_t has(const uint32_t (&arr)[8], unsigned uChar) { return arr[uChar / 32] >> uChar % 32 & 1; }
};

// What a node knows about the characters of a text: a repeated one, or a group that takes one character.
struct rePlan {
    static constexpr uint8_t bitTakes = 1;  // one repetition takes the character, and nothing else
    static constexpr uint8_t bitLook = 2;   // looking ahead has to be tried at the character

    int m_iAnswer;  // the node's number among those that look ahead
    uint8_t m_arrChar[256];
    reState* m_pState;    // the tree's
    reBelow* m_arrBelow;  // where repetitions take one character each, the nodes below
    int m_nBelow;
    bool m_bRun;           // repetitions are a run of characters
    bool m_bAll;           // of any characters
    bool m_bEach;          // nodes below are left as each of a run's characters says, not as the last two say
    bool m_bPartial;       // a run's last character does not touch all nodes below, but the one before it does
    bool m_bInnerLook;     // nodes below look ahead, too, beyond this one: nothing is passed over
    bool m_bNothingAfter;  // looking ahead always succeeds and touches nothing
    bool m_bNothingFails;  // looking ahead always succeeds: nothing follows in the node's own sequence
    bool m_bRestEmpty;     // how looking ahead ends at a character without bitLook

    ~rePlan() { delete[] m_arrBelow; }
};

// What looking ahead has answered, by the node and the place, from some place of the text to its end. Where the text is
// too long for the table, these are the last places.
class reAnswers {
public:
    static constexpr size_t mostAnswers = 4 << 20;

    reAnswers(const char* lpszBegin, const char* lpszEnd, int nPlans)
        : m_lpszBegin(lpszBegin),
          m_nPlaces(lpszBegin <= lpszEnd ? static_cast<size_t>(lpszEnd - lpszBegin) + 1 : 0),
          m_nPlans(nPlans > 0 ? static_cast<size_t>(nPlans) : 1) {
        const size_t nMost = mostAnswers / m_nPlans;
        if (m_nPlaces > nMost) {
            m_lpszBegin += m_nPlaces - nMost;
            m_nPlaces = nMost;
        }
        m_arrAnswer = new (std::nothrow) uint8_t[m_nPlaces * m_nPlans]();
        if (m_arrAnswer == NULL)
            m_nPlaces = 0;
    }
    reAnswers(const reAnswers&) = delete;
    reAnswers& operator=(const reAnswers&) = delete;
    ~reAnswers() { delete[] m_arrAnswer; }

    // 1, 0 or, where it is not known, -1.
    int find(const rePlan* pPlan, const char* lpsz) const {
        const size_t iPlace = placeOf(lpsz);
        return iPlace < m_nPlaces ? m_arrAnswer[indexOf(pPlan, iPlace)] - 1 : -1;
    }
    void add(const rePlan* pPlan, const char* lpsz, bool bAnswer) {
        const size_t iPlace = placeOf(lpsz);
        if (iPlace < m_nPlaces)
            m_arrAnswer[indexOf(pPlan, iPlace)] = static_cast<uint8_t>(1 + bAnswer);
    }

private:
    // Beyond m_nPlaces for a place outside.
    size_t placeOf(const char* lpsz) const {
        return reinterpret_cast<uintptr_t>(lpsz) - reinterpret_cast<uintptr_t>(m_lpszBegin);
    }
    size_t indexOf(const rePlan* pPlan, size_t iPlace) const {
        return iPlace * m_nPlans + static_cast<size_t>(pPlan->m_iAnswer);
    }

    const char* m_lpszBegin;
    size_t m_nPlaces;
    size_t m_nPlans;
    uint8_t* m_arrAnswer;  // 0: not known; 1: no; 2: yes
};

// One step of a pattern that is matched straight on, see QORRegularExpress/straight.cpp.
struct reStep {
    enum kind : uint8_t { text, single, run, open, close, optional, closeOptional, end };

    kind m_eKind;
    bool m_bAside;  // where less was taken first, what comes behind it may yet send the plain steps back there
    int m_nMin;
    int m_nMax;  // of a text: its length
    uint32_t m_nFlags;
    re_Base<char>* m_pRE;
    const rePlan* m_pPlan;
    const char* m_lpszText;
    const reStep* m_pElse;  // of an optional group: its closing step
};

// The state of a tree that is matched.
struct reState {
    // So many look-aheads are made one by one; beyond, their answers are kept, and not made twice.
    static constexpr int mostLooks = 1 << 18;

    bool m_arrStart[256] = {};  // whether a match may begin with the character
    const re_Base<char>* m_pRoot = NULL;
    int m_nPlans = 0;           // nodes that look ahead
    int m_nStart = -1;          // the one character that a match begins with; -1: there are several, or none
    bool m_bReference = false;  // there are back-references: an answer depends on more than its place
    bool m_bScouting = false;   // nobody will look at the results of this attempt
    // Every match begins with a run of characters that has no upper limit, and what follows it does not depend on where
    // the run began: where an attempt fails, those up to the run's end fail, too, and, with m_bLeadEmpty, there as
    // well.
    const rePlan* m_pLead = NULL;
    bool m_bLeadEmpty = false;
    int m_nLooks = 0;
    reAnswers* m_pAnswers = NULL;
    re_Base<char>** m_arrNode = NULL;  // all nodes but the root, or null
    int m_nNodes = 0;
    reStep* m_arrStep = NULL;  // the whole pattern, straight on, or null
    bool m_bClean = false;     // no node has a result

    ~reState() {
        delete m_pAnswers;
        delete[] m_arrNode;
        delete[] m_arrStep;
    }
    void clearNodes() {
        for (int i = 0; i < m_nNodes; ++i) {
            m_arrNode[i]->m_lpszResultBegin = NULL;
            m_arrNode[i]->m_lpszResultEnd = NULL;
        }
    }
    void clear() {
        m_nLooks = 0;
        delete m_pAnswers;
        m_pAnswers = NULL;
    }
    // The tree has been changed.
    void forgetNodes() {
        m_pLead = NULL;
        delete[] m_arrNode;
        m_arrNode = NULL;
        delete[] m_arrStep;
        m_arrStep = NULL;
    }
    // The answers, once there have been too many look-aheads; or null.
    reAnswers* answers(const char* lpsz, const char* lpszEnding) {
        if (m_nLooks < mostLooks) {
            ++m_nLooks;
            return NULL;
        }
        if (m_pAnswers == NULL && !m_bReference)
            m_pAnswers = newAnswers(lpsz, lpszEnding != NULL ? lpszEnding : lpsz + strlen(lpsz));
        return m_pAnswers;
    }

private:
    reAnswers* newAnswers(const char* lpsz, const char* lpszEnd) const {
        const char* lpszBegin = m_pRoot->m_lpszResultBegin;
        return new (std::nothrow)
            reAnswers(lpszBegin != NULL && lpszBegin < lpsz ? lpszBegin : lpsz, lpszEnd, m_nPlans);
    }
};

// Traces a pattern and a mark under the place of its error.
void traceError(const char* lpszREText, const char* lpszError);

// Works out what matching needs of a whole tree, which no match has touched. False: no memory.
bool planTree(reRegularExpress<char>& express);
// Works out the steps of a tree that has its plans, where it can be matched straight on. False: no memory.
bool planStraight(reRegularExpress<char>& express);
// Matches a root that has such steps, and leaves all results. False: nothing was done, it is left to the plain steps.
bool applyStraight(reRegularExpress<char>& express, const char* lpszSrcText, const char* lpszSrcEnding);

template <class T>
inline bool isAtEnd(const T* lpsz, const T* lpszEnding) {
    return lpszEnding != NULL ? lpsz >= lpszEnding : *lpsz == 0;
}

template <class T>
inline bool looksAhead(const re_Base<T>* pRE) {
    return pRE->m_nMinTimes != pRE->m_nMaxTimes && pRE->m_chRepeatMode != '+';
}

// The root as what it is, or null in a tree put together by hand.
template <class T>
inline reRegularExpress<T>* expressOf(re_Base<T>* pRE) {
    re_Base<T>* pRoot = pRE->GetRootRE();
    return (pRoot->m_uTraits & traitExpress) != 0 ? static_cast<reRegularExpress<T>*>(pRoot) : NULL;
}

template <class T>
inline unsigned charValue(T ch) {
    return static_cast<unsigned char>(ch);
}

// The characters that mean something else than themselves somewhere in a pattern, its end included.
struct specialChars {
    bool m_arrIs[256];

    constexpr specialChars() : m_arrIs() {
        for (const char ch : "^()[]{}?+*-.$/\\")
            m_arrIs[static_cast<unsigned char>(ch)] = true;
    }
};
inline constexpr specialChars objSpecialChars;

template <class T>
inline bool isPlain(T ch) {
    return !objSpecialChars.m_arrIs[charValue(ch)];
}

template <class T>
inline bool isEqualChar(uint32_t nFlags, T chPattern, T chText) {
    return chPattern == chText || ((nFlags & flagIgnoreCase) != 0 && chPattern == QOR_StringHelper::chReverse(chText));
}

// A built tree gets what matching needs when it is first to be matched. Fatal: no memory.
void planUnplanned(reRegularExpress<char>& express);
template <class T>
inline void preparePlans(reRegularExpress<T>* pExpress) {
    if (pExpress != NULL && (pExpress->m_uTraits & traitUnplanned) != 0)
        planUnplanned(*pExpress);
}

// ---- the nodes below one that takes one character

// Leaves the nodes below such a node as applying it there does.
template <class T>
inline void touchBelow(const rePlan* pPlan, const T* lpsz, const T* lpszEnding) {
    const reBelow* const pTo = pPlan->m_arrBelow + pPlan->m_nBelow;
    if (isAtEnd(lpsz, lpszEnding)) {
        for (const reBelow* p = pPlan->m_arrBelow; p < pTo; ++p) {
            p->m_pRE->m_lpszResultBegin = lpsz;
            p->m_pRE->m_lpszResultEnd = NULL;
        }
        return;
    }
    const unsigned uChar = charValue(*lpsz);
    for (const reBelow* p = pPlan->m_arrBelow; p < pTo; ++p) {
        if (reBelow::has(p->m_arrReached, uChar) == 0)
            continue;
        p->m_pRE->m_lpszResultBegin = lpsz;
        p->m_pRE->m_lpszResultEnd = reBelow::has(p->m_arrTaken, uChar) != 0 ? lpsz + 1 : NULL;
    }
}

// The same where characters touch different nodes: each node gets the result of the last place that touches it.
template <class T>
inline void touchEach(const rePlan* pPlan, const T* lpszBegin, const T* lpszLast, const T* lpszEnding) {
    const reBelow* const pTo = pPlan->m_arrBelow + pPlan->m_nBelow;
    for (const reBelow* p = pPlan->m_arrBelow; p < pTo; ++p) {
        for (const T* lpsz = lpszLast; lpsz >= lpszBegin; --lpsz) {
            const bool bEnd = isAtEnd(lpsz, lpszEnding);
            if (!bEnd && reBelow::has(p->m_arrReached, charValue(*lpsz)) == 0)
                continue;
            p->m_pRE->m_lpszResultBegin = lpsz;
            p->m_pRE->m_lpszResultEnd = !bEnd && reBelow::has(p->m_arrTaken, charValue(*lpsz)) != 0 ? lpsz + 1 : NULL;
            break;
        }
    }
}

// Leaves the nodes below a run from lpszBegin to lpsz as applying it at each of its places does; and at the next one,
// where that was refused.
template <class T>
inline void touchRun(const rePlan* pPlan, const T* lpszBegin, const T* lpsz, bool bRefused, const T* lpszEnding) {
    if (pPlan->m_bEach) {
        touchEach(pPlan, lpszBegin, bRefused ? lpsz : lpsz - 1, lpszEnding);
        return;
    }
    if (lpsz > lpszBegin && (!bRefused || pPlan->m_bPartial))
        touchBelow(pPlan, lpsz - 1, lpszEnding);
    if (bRefused)
        touchBelow(pPlan, lpsz, lpszEnding);
}

}  // namespace QOR_RegularExpressHelper

#endif
