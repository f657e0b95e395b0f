// What the first match works out about a tree, and the state of matching. A build leaves this to the first match, so
// that building costs no more than making the tree.
#ifndef QOR_REGULAR_EXPRESS_PLAN_H
#define QOR_REGULAR_EXPRESS_PLAN_H

#include <stdint.h>
#include <string.h>

#include <new>

#include "qor/RegularExpressHelper/Express.h"

namespace QOR_RegularExpressHelper {

typedef re_Base<char> node;
typedef re_Group<char> group;

struct reState;

// A descendant of a node that takes one character: the characters at which it is applied, and those that it takes. At
// the end of the text it is applied and fails.
struct reInner {
    node* m_pRE;
    uint32_t m_arrReached[8];
    uint32_t m_arrTaken[8];

    static uint32_t has(const uint32_t (&arr)[8], unsigned uChar) { return arr[uChar / 32] >> uChar % 32 & 1; }
};

// What a node knows about the characters of a text. Repeated nodes have a plan, and groups that take one character.
struct rePlan {
    static constexpr uint8_t bitTakes = 1;  // one repetition takes this character and nothing else
    static constexpr uint8_t bitLook = 2;   // at this character, looking ahead has to be tried

    int m_iAnswer;  // the node's index among those that look ahead
    uint8_t m_arrChar[256];
    reState* m_pState;    // the tree's
    reInner* m_arrInner;  // the descendants, where one repetition takes one character
    int m_nInner;
    bool m_bRun;           // each repetition takes one character
    bool m_bAll;           // whichever it is
    bool m_bEach;          // the descendants' results depend on all characters of a run, not only on the last two
    bool m_bAlike;         // each descendant is applied at every character, and takes those that the node takes
    bool m_bPartial;       // the last character of a run may not reach all descendants, but the one before it does
    bool m_bInnerLook;     // descendants look ahead beyond this node, so no position is skipped
    bool m_bNothingAfter;  // looking ahead always succeeds and leaves no results
    bool m_bNothingFails;  // looking ahead always succeeds: the node is the last of its sequence
    bool m_bRestEmpty;     // the result of looking ahead at a character without bitLook

    ~rePlan() { delete[] m_arrInner; }
};

// The remembered results of looking ahead, by node and position. Where the text is too long for the table, it covers
// the last positions.
class reAnswers {
public:
    static constexpr size_t maxAnswers = 4 << 20;

    reAnswers(const char* lpszBegin, const char* lpszEnd, int nPlans)
        : m_lpszBegin(lpszBegin),
          m_nPlaces(lpszBegin <= lpszEnd ? static_cast<size_t>(lpszEnd - lpszBegin) + 1 : 0),
          m_nPlans(nPlans > 0 ? static_cast<size_t>(nPlans) : 1) {
        const size_t nMax = maxAnswers / m_nPlans;
        if (m_nPlaces > nMax) {
            m_lpszBegin += m_nPlaces - nMax;
            m_nPlaces = nMax;
        }
        m_arrAnswer = new (std::nothrow) uint8_t[m_nPlaces * m_nPlans]();
        if (m_arrAnswer == NULL)
            m_nPlaces = 0;
    }
    reAnswers(const reAnswers&) = delete;
    reAnswers& operator=(const reAnswers&) = delete;
    ~reAnswers() { delete[] m_arrAnswer; }

    // 1, 0, or -1 for unknown.
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
    // At least m_nPlaces for a position that the table does not cover.
    size_t placeOf(const char* lpsz) const {
        return reinterpret_cast<uintptr_t>(lpsz) - reinterpret_cast<uintptr_t>(m_lpszBegin);
    }
    size_t indexOf(const rePlan* pPlan, size_t iPlace) const {
        return iPlace * m_nPlans + static_cast<size_t>(pPlan->m_iAnswer);
    }

    const char* m_lpszBegin;
    size_t m_nPlaces;
    size_t m_nPlans;
    uint8_t* m_arrAnswer;  // 0: unknown; 1: no; 2: yes
};

// One step of the one-pass matcher, see onepass.cpp.
struct reStep {
    enum kind : uint8_t { text, single, run, open, close, optional, closeOptional, end };

    kind m_eKind;
    bool m_bMayShorten;  // when a later step fails, the general matcher may take less here
    int m_nMin;
    int m_nMax;  // of a text: its length
    uint32_t m_nFlags;
    node* m_pRE;
    node* m_pGroup;  // of a single or a run: the group that contains nothing else, or null
    const rePlan* m_pPlan;
    const char* m_lpszText;
    const reStep* m_pElse;  // of an optional group: its closing step
};

// The state of a tree that has been matched.
struct reState {
    // After so many look-aheads, their results are remembered instead of being found again.
    static constexpr int maxLooks = 1 << 18;

    bool m_arrStart[256] = {};  // the characters that a match can begin with
    const node* m_pRoot = NULL;
    int m_nPlans = 0;           // nodes that look ahead
    int m_nStart = -1;          // the only character that a match can begin with; -1: there are several, or none
    bool m_bReference = false;  // there are back-references: looking ahead depends on more than the position
    bool m_bSearching = false;  // this attempt of a search need not leave results
    // The run without upper limit that every match begins with, or null. What follows does not depend on where the run
    // began, so where an attempt fails, those up to the end of the run fail, too; with m_bLeadEmpty also the one there.
    const rePlan* m_pLead = NULL;
    bool m_bLeadEmpty = false;
    int m_nLooks = 0;
    reAnswers* m_pAnswers = NULL;
    node** m_arrNode = NULL;  // all nodes but the root, or null
    int m_nNodes = 0;
    reStep* m_arrStep = NULL;  // the steps of the one-pass matcher, or null
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
    // The tree has been changed by hand.
    void forgetNodes() {
        m_pLead = NULL;
        delete[] m_arrNode;
        m_arrNode = NULL;
        delete[] m_arrStep;
        m_arrStep = NULL;
    }
    // The remembered results, once there have been maxLooks look-aheads; before that, null.
    reAnswers* answers(const char* lpsz, const char* lpszEnding) {
        if (m_nLooks < maxLooks) {
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

// Plans a tree that no match has touched. False: out of memory.
bool planTree(reRegularExpress<char>& express);
// Makes the steps of the one-pass matcher for a planned tree, if it can match the tree. False: out of memory.
bool planOnePass(reRegularExpress<char>& express);
// Plans a built tree before its first match. Fatal: out of memory.
void planUnplanned(reRegularExpress<char>& express);
inline void preparePlans(reRegularExpress<char>* pExpress) {
    if (pExpress != NULL && (pExpress->m_uTraits & traitUnplanned) != 0)
        planUnplanned(*pExpress);
}

inline bool looksAhead(const node* pRE) { return pRE->m_nMinTimes != pRE->m_nMaxTimes && pRE->m_chRepeatMode != '+'; }

// The root of a node's tree; null for a tree that was put together by hand.
inline reRegularExpress<char>* expressOf(node* pRE) {
    node* pRoot = pRE->GetRootRE();
    return (pRoot->m_uTraits & traitExpress) != 0 ? static_cast<reRegularExpress<char>*>(pRoot) : NULL;
}

inline unsigned charValue(char ch) { return static_cast<unsigned char>(ch); }

}  // namespace QOR_RegularExpressHelper

#endif
