// Repetitions: of any node one by one, and of a node that takes one character, which are a run.
//
// A run is scanned with the node's table (rePlan::m_arrChar). Its descendants then get the results of its last two
// positions only: these reach all descendants that the run reaches, and reach them last. Where that is not so
// (rePlan::m_bEach), each descendant gets the result of the last position that reaches it.
//
// At a character without bitLook, looking ahead ends as rePlan::m_bRestEmpty says, and sets the same descendants to the
// same outcome at each such position. So of several such positions in a row, only the last is looked ahead from, before
// the next one that has to be tried or at the end of the repetition. Where descendants of the repeated node look ahead
// over the same nodes, the order of results would change, so no position is skipped.
//
// After reState::maxLooks look-aheads their outcomes are remembered. Nodes that nothing but looking ahead reaches may
// then keep an older result; all others have theirs. The attempts of a search (reState::m_bSearching) leave no results
// of descendants and of skipped positions; the search applies the position that it finds once more.
#include <stdint.h>

#include "QORRegularExpress/match.h"

namespace QOR_RegularExpressHelper {

namespace {

// Looking ahead from the positions between the repetitions of one node.
class lookAhead {
public:
    lookAhead(node* pRE, const char* lpszSrcEnding)
        : m_pRE(pRE), m_pPlan(planOf(pRE)), m_lpszEnding(lpszSrcEnding), m_lpszSkipped(NULL) {}
    ~lookAhead() { applySkipped(); }

    // Skips a position at which the outcome is known.
    void skip(const char* lpsz) { m_lpszSkipped = lpsz; }

    // Whether what follows matches at a position.
    bool at(const char* lpsz) {
        if (m_pPlan != NULL) {
            if (m_pPlan->m_bNothingAfter || (m_pPlan->m_bNothingFails && m_pPlan->m_pState->m_bSearching))
                return true;
            if (!m_pPlan->m_bInnerLook && !isAtEnd(lpsz, m_lpszEnding) &&
                (m_pPlan->m_arrChar[charValue(*lpsz)] & rePlan::bitLook) == 0) {
                m_lpszSkipped = lpsz;
                return m_pPlan->m_bRestEmpty;
            }
        }
        applySkipped();
        m_lpszSkipped = NULL;
        reAnswers* pAnswers = m_pPlan != NULL ? m_pPlan->m_pState->answers(lpsz, m_lpszEnding) : NULL;
        return pAnswers != NULL ? answer(*pAnswers, lpsz) : apply(lpsz);
    }

private:
    // The plans of nodes whose quantifier leaves no choice say nothing about what follows. These look ahead only where
    // a caller asks for more repetitions.
    static const rePlan* planOf(const node* pRE) { return looksAhead(pRE) ? pRE->m_pPlan : NULL; }

    bool apply(const char* lpsz) {
        return applyAfter(m_pRE->m_pParentRE, m_pRE->m_iIndexInParent, lpsz, m_lpszEnding) != NULL;
    }
    void applySkipped() {
        if (m_lpszSkipped != NULL && !m_pPlan->m_pState->m_bSearching)
            apply(m_lpszSkipped);
    }
    bool answer(reAnswers& answers, const char* lpsz) {
        int nAnswer = answers.find(m_pPlan, lpsz);
        if (nAnswer == -1) {
            nAnswer = apply(lpsz);
            answers.add(m_pPlan, lpsz, nAnswer != 0);
        }
        return nAnswer != 0;
    }

    node* m_pRE;
    const rePlan* m_pPlan;
    const char* m_lpszEnding;
    const char* m_lpszSkipped;
};

// ---- the repetitions beyond the required ones, by mode

// Repetitions of any node. nTimes: how many may follow; -1: no limit.
class nodeRepetitions {
public:
    nodeRepetitions(node* pRE, const char* lpsz, const char* lpszEnding, int nTimes)
        : m_pRE(pRE), m_lpsz(lpsz), m_lpszEnding(lpszEnding), m_nTimes(nTimes) {}

    const char* at() const { return m_lpsz; }
    // Takes one more. False: there is none, or it takes nothing.
    bool next() {
        const char* lpszNext = m_nTimes != 0 ? applyOnce(m_pRE, m_lpsz, m_lpszEnding) : NULL;
        if (lpszNext == NULL || lpszNext == m_lpsz)
            return false;
        m_nTimes -= m_nTimes > 0;
        m_pRE->m_lpszResultEnd = m_lpsz = lpszNext;
        return true;
    }
    // Takes those after which looking ahead has a known outcome, and returns the last position skipped, or null.
    const char* passOver(lookAhead&) { return NULL; }

private:
    node* m_pRE;
    const char* m_lpsz;
    const char* m_lpszEnding;
    int m_nTimes;
};

// As many as leave a match for what follows, else none.
template <class X>
const char* takeBest(X& repetitions, node* pRE, const char* lpszEnding) {
    lookAhead look(pRE, lpszEnding);
    const char* lpszBest = repetitions.at();
    for (;;) {
        const char* lpszPassed = repetitions.passOver(look);
        if (lpszPassed != NULL && pRE->m_pPlan->m_bRestEmpty)
            lpszBest = lpszPassed;
        if (look.at(repetitions.at()))
            lpszBest = repetitions.at();
        if (!repetitions.next())
            return lpszBest;
    }
}

// As few as leave a match for what follows. Looks ahead also where no repetition remains, for the results.
template <class X>
const char* takeLeast(X& repetitions, node* pRE, const char* lpszEnding) {
    lookAhead look(pRE, lpszEnding);
    const rePlan* pPlan = pRE->m_pPlan;
    const bool bPassOver = pPlan != NULL && !pPlan->m_bNothingAfter && !pPlan->m_bRestEmpty;
    do {
        if (bPassOver)
            repetitions.passOver(look);
    } while (!look.at(repetitions.at()) && repetitions.next());
    return repetitions.at();
}

// ---- runs

class charRun {
public:
    charRun(node* pRE, const char* lpszSrcText, const char* lpszSrcEnding)
        : m_pRE(pRE),
          m_pPlan(pRE->m_pPlan),
          m_lpszBegin(lpszSrcText),
          m_lpszEnding(lpszSrcEnding),
          m_lpsz(lpszSrcText),
          m_bRefused(false) {}

    const char* apply() {
        const bool bEnough = scanTo(m_pRE->m_nMinTimes);
        const char* lpszResult = bEnough ? applyMode() : NULL;
        if (m_pPlan->m_nInner > 0 && !m_pPlan->m_pState->m_bSearching)
            setInnerOfRun(m_pPlan, m_lpszBegin, m_lpsz, m_bRefused, m_lpszEnding);
        return lpszResult;
    }

    // What takeBest() and takeLeast() need, see nodeRepetitions.
    const char* at() const { return m_lpsz; }
    bool next() {
        if (isFull(m_pRE->m_nMaxTimes))
            return false;
        m_bRefused = isAtEnd(m_lpsz, m_lpszEnding) || (m_pPlan->m_arrChar[charValue(*m_lpsz)] & rePlan::bitTakes) == 0;
        if (!m_bRefused)
            m_pRE->m_lpszResultEnd = ++m_lpsz;
        return !m_bRefused;
    }
    const char* passOver(lookAhead& look) {
        if (isFull(m_pRE->m_nMaxTimes))
            return NULL;
        const char* lpsz = endOfMarks(m_pRE->m_nMaxTimes, rePlan::bitTakes | rePlan::bitLook);
        if (lpsz == m_lpsz)
            return NULL;
        m_pRE->m_lpszResultEnd = m_lpsz = lpsz;
        look.skip(lpsz - 1);
        return lpsz - 1;
    }

private:
    bool isFull(int nTimes) const { return nTimes != -1 && m_lpsz - m_lpszBegin >= nTimes; }
    // The end of the characters from here on that are marked with bitTakes alone, up to nTimes repetitions.
    const char* endOfMarks(int nTimes, unsigned uMask) const {
        const size_t nMax = nTimes == -1 ? SIZE_MAX : static_cast<size_t>(nTimes - (m_lpsz - m_lpszBegin));
        return endOfRun(m_pPlan, uMask, rePlan::bitTakes, m_lpsz, m_lpszEnding, nMax);
    }
    bool scanTo(int nTimes) {
        if (!isFull(nTimes))
            m_lpsz = endOfMarks(nTimes, rePlan::bitTakes);
        m_bRefused = !isFull(nTimes);
        return !m_bRefused;
    }
    const char* applyMode() {
        const int nMin = m_pRE->m_nMinTimes, nMax = m_pRE->m_nMaxTimes;
        if (nMax != -1 && nMax <= nMin)
            return m_lpsz;
        if (m_pRE->m_chRepeatMode == '?')
            return takeLeast(*this, m_pRE, m_lpszEnding);
        if (m_pRE->m_chRepeatMode == ' ' && !m_pPlan->m_bNothingAfter)
            return takeBest(*this, m_pRE, m_lpszEnding);
        scanTo(nMax);
        return m_lpsz;
    }

    node* m_pRE;
    const rePlan* m_pPlan;
    const char* m_lpszBegin;
    const char* m_lpszEnding;
    const char* m_lpsz;
    bool m_bRefused;
};

// ---- all repetitions of a node

const char* applyTimes(node* pRE, const char* lpszSrcText, const char* lpszSrcEnding) {
    const int nMin = pRE->m_nMinTimes, nMax = pRE->m_nMaxTimes;
    const char* lpsz = lpszSrcText;
    for (int i = 0; i < nMin; ++i) {
        const char* lpszNext = applyOnce(pRE, lpsz, lpszSrcEnding);
        if (lpszNext == NULL)
            return NULL;
        if (lpszNext == lpsz)
            break;
        lpsz = lpszNext;
    }
    if (pRE->m_pParentRE == NULL || (nMax != -1 && nMax <= nMin))
        return lpsz;
    return applyOptional(pRE, lpsz, lpszSrcEnding, nMax == -1 ? -1 : nMax - nMin);
}

}  // namespace

const char* applyOptional(node* pRE, const char* lpsz, const char* lpszEnding, int nTimes) {
    nodeRepetitions repetitions(pRE, lpsz, lpszEnding, nTimes);
    switch (pRE->m_chRepeatMode) {
        case '+':
            while (repetitions.next()) {
            }
            return repetitions.at();
        case ' ':
            return takeBest(repetitions, pRE, lpszEnding);
        case '?':
            return takeLeast(repetitions, pRE, lpszEnding);
        default:
            return NULL;
    }
}

const char* applyRepeated(node* pRE, const char* lpszSrcText, const char* lpszSrcEnding) {
    if (pRE->m_pPlan != NULL && pRE->m_pPlan->m_bRun)
        return charRun(pRE, lpszSrcText, lpszSrcEnding).apply();
    return applyTimes(pRE, lpszSrcText, lpszSrcEnding);
}

}  // namespace QOR_RegularExpressHelper
