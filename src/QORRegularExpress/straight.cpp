// The steps of a pattern that can be matched straight on: each element takes what it can, once, and nothing is tried
// twice. Its answer and every node's result are those of the plain steps. That holds for sequences of texts, of nodes
// that take one character, of runs of these, of groups, and of optional groups that hold no other optional group, where
// - in front of each character that a run or an optional group takes, what follows only fails or matches nothing, so
//   that looking ahead cannot make it take less and still match. What it touches there, it touches again
//   behind the last character; therefore nodes whose characters touch different nodes below must not be among it.
// - or all that follows, up to the end of the pattern, matches at every place and touches the same nodes there.
// Where what follows fails behind a run, the plain steps go back to the run's least number, and fail there, too, but
// with other results. So from such a place on (reStep::m_bAside) a failure is repeated by the plain steps.
#include <stdint.h>

#include <new>

#include "QORRegularExpress/plan.h"

namespace QOR_RegularExpressHelper {

namespace {

typedef re_Base<char> node;
typedef re_Group<char> group;

class straightPlanner {
public:
    explicit straightPlanner(reRegularExpress<char>& express) : m_express(express) {}

    bool run() {
        reState& state = *m_express.m_pState;
        // A group has two steps, and the end has one.
        m_arrStep = new (std::nothrow) reStep[static_cast<size_t>(2 * state.m_nNodes + 1)]();
        if (m_arrStep == NULL)
            return false;
        if (m_express.m_bNegative == 0 && addMembers(&m_express)) {
            m_arrStep[m_nSteps].m_eKind = reStep::end;
            state.m_arrStep = m_arrStep;
        } else {
            delete[] m_arrStep;
        }
        return true;
    }

private:
    reStep& add(reStep::kind eKind, node* p) {
        reStep& step = m_arrStep[m_nSteps++];
        step.m_eKind = eKind;
        step.m_pRE = p;
        step.m_pPlan = p->m_pPlan;
        step.m_nMin = p->m_nMinTimes;
        step.m_nMax = p->m_nMaxTimes;
        step.m_nFlags = p->m_nFlags;
        return step;
    }

    bool addMembers(group* pGroup) {
        for (int i = 0; i < pGroup->GetChildRECount(); ++i)
            if (!addNode(pGroup->m_arrTargetREs[i]))
                return false;
        return true;
    }

    bool addNode(node* p) {
        const bool bOnce = p->m_nMinTimes == 1 && p->m_nMaxTimes == 1;
        if (!bOnce && p->m_pPlan != NULL && p->m_pPlan->m_bRun)
            return addRun(p);
        if ((p->m_uTraits & (traitText | traitSet)) == traitText)
            return bOnce && addText(static_cast<re_Text<char>*>(p));
        if (bOnce && p->m_pPlan != NULL)
            return addSingle(p);
        if ((p->m_uTraits & (traitGroup | traitSet)) != traitGroup || p->m_bNegative != 0)
            return false;
        group* pGroup = static_cast<group*>(p);
        return bOnce ? addGroup(pGroup) : addOptional(pGroup);
    }

    // Something that takes at least one character: looking ahead stops there.
    bool stop() {
        m_bReached = false;
        return !m_bTotal;
    }

    bool addText(re_Text<char>* p) {
        reStep& step = add(reStep::text, p);
        step.m_lpszText = p->m_arrText.GetBuffer();
        step.m_nMax = p->GetChildRECount();
        return stop();
    }

    bool addSingle(node* p) {
        add(reStep::single, p);
        return (!m_bReached || isUniform(*p->m_pPlan)) && stop();
    }

    bool addRun(node* p) {
        const rePlan& plan = *p->m_pPlan;
        if (p->m_chRepeatMode == '?' || p->m_nMaxTimes == 0)
            return false;
        // One without a limit ends with a character that is refused, and touches all nodes.
        const bool bUniform = isUniform(plan) || (p->m_nMaxTimes == -1 && !plan.m_bPartial);
        if ((m_bReached || m_bTotal) && !bUniform)
            return false;
        reStep& step = add(reStep::run, p);
        if (p->m_nMinTimes > 0 && !stop())
            return false;
        if (!looksAhead(p) || plan.m_bNothingAfter)
            return true;
        step.m_bAside = mayGoBack(plan);
        return addLook(plan, plan.m_arrChar);
    }

    bool addGroup(group* pGroup) {
        add(reStep::open, pGroup);
        if (!addMembers(pGroup))
            return false;
        add(reStep::close, pGroup);
        return true;
    }

    bool addOptional(group* p) {
        if (m_bOptional || m_bTotal || p->m_nMinTimes != 0 || p->m_nMaxTimes != 1 || p->m_chRepeatMode != ' ' ||
            p->m_pPlan == NULL)
            return false;
        const int iOpen = m_nSteps;
        add(reStep::optional, p);
        m_bOptional = true;
        if (!addMembers(p))
            return false;
        m_bOptional = false;
        uint8_t arrFirst[256];
        if (m_bTotal || !firstOf(iOpen + 1, arrFirst))
            return false;
        reStep& close = add(reStep::closeOptional, p);
        close.m_bAside = mayGoBack(*p->m_pPlan);
        m_arrStep[iOpen].m_pElse = &close;
        return p->m_pPlan->m_bNothingAfter || addLook(*p->m_pPlan, arrFirst);
    }

    // Looking ahead in front of the characters that are marked with bitTakes.
    bool addLook(const rePlan& plan, const uint8_t (&arrTakes)[256]) {
        m_bReached = true;
        static_assert(rePlan::bitLook == rePlan::bitTakes << 1, "both are compared at once");
        unsigned uBoth = 0;
        for (int ch = 0; ch < 256; ++ch)
            uBoth |= static_cast<unsigned>(arrTakes[ch] & plan.m_arrChar[ch] >> 1);
        m_bTotal = m_bTotal || (uBoth & rePlan::bitTakes) != 0;
        return true;
    }

    // The characters that an optional group may begin with, where its first member takes one at least.
    bool firstOf(int iStep, uint8_t (&arrFirst)[256]) const {
        const reStep& step = m_arrStep[iStep];
        if (iStep >= m_nSteps || (step.m_eKind == reStep::run && step.m_nMin == 0) || step.m_eKind > reStep::run)
            return false;
        for (int ch = 0; ch < 256; ++ch) {
            const char chText = static_cast<char>(ch);
            const bool bTakes =
                step.m_eKind != reStep::text
                    ? (step.m_pPlan->m_arrChar[ch] & rePlan::bitTakes) != 0
                    : *step.m_lpszText == chText || ((step.m_nFlags & flagIgnoreCase) != 0 &&
                                                     *step.m_lpszText == QOR_StringHelper::chReverse(chText));
            arrFirst[ch] = bTakes ? rePlan::bitTakes : 0;
        }
        return true;
    }

    static bool mayGoBack(const rePlan& plan) {
        return !plan.m_bNothingAfter && !plan.m_bNothingFails && !plan.m_bRestEmpty;
    }

    // Whether every character touches all nodes below.
    static bool isUniform(const rePlan& plan) {
        for (int i = 0; i < plan.m_nBelow; ++i)
            for (const uint32_t uReached : plan.m_arrBelow[i].m_arrReached)
                if (uReached != 0xFFFFFFFF)
                    return false;
        return true;
    }

    reRegularExpress<char>& m_express;
    reStep* m_arrStep = NULL;
    int m_nSteps = 0;
    bool m_bReached = false;   // looking ahead from somewhere in front comes to the next element
    bool m_bTotal = false;     // all that follows has to match at every place
    bool m_bOptional = false;  // inside an optional group
};

// ---- matching

// bEnding: an end is given; bKeep: nodes get their results.
template <bool bEnding, bool bKeep>
class straightRun {
public:
    explicit straightRun(const char* lpszEnding) : m_lpszEnding(lpszEnding), m_bAside(false) {}

    // The end of the match, or null.
    const char* apply(const reStep* pStep, const char* lpsz) {
        const reStep* pOptional = NULL;
        const char* lpszOptional = NULL;
        for (;; ++pStep) {
            const char* lpszNext = lpsz;
            switch (pStep->m_eKind) {
                case reStep::text:
                    lpszNext = text(*pStep, lpsz);
                    break;
                case reStep::single:
                    lpszNext = single(*pStep, lpsz);
                    break;
                case reStep::run:
                    lpszNext = run(*pStep, lpsz);
                    break;
                case reStep::open:
                    keep(*pStep, lpsz, NULL);
                    break;
                case reStep::close:
                    keepEnd(*pStep, lpsz);
                    break;
                case reStep::optional:
                    keep(*pStep, lpsz, NULL);
                    pOptional = pStep;
                    lpszOptional = lpsz;
                    break;
                case reStep::closeOptional:
                    keepEnd(*pStep, lpsz);
                    m_bAside = m_bAside || pStep->m_bAside;
                    pOptional = NULL;
                    break;
                case reStep::end:
                    return lpsz;
            }
            if (lpszNext == NULL) {
                if (pOptional == NULL || (bKeep && m_bAside))
                    return NULL;
                pStep = pOptional->m_pElse;
                lpszNext = lpszOptional;
                keepEnd(*pStep, lpszNext);
                pOptional = NULL;
            }
            lpsz = lpszNext;
        }
    }
    // Whether, after a failure, the plain steps may leave other results.
    bool isAside() const { return m_bAside; }

private:
    bool ends(const char* lpsz) const { return bEnding ? lpsz >= m_lpszEnding : *lpsz == 0; }
    static void keep(const reStep& step, const char* lpszBegin, const char* lpszEnd) {
        if (!bKeep)
            return;
        step.m_pRE->m_lpszResultBegin = lpszBegin;
        step.m_pRE->m_lpszResultEnd = lpszEnd;
    }
    static void keepEnd(const reStep& step, const char* lpszEnd) {
        if (bKeep)
            step.m_pRE->m_lpszResultEnd = lpszEnd;
    }

    const char* text(const reStep& step, const char* lpszBegin) const {
        const char* lpsz = lpszBegin;
        const char* const pTo = step.m_lpszText + step.m_nMax;
        for (const char* p = step.m_lpszText; p < pTo; ++p, ++lpsz) {
            if (!ends(lpsz) && isEqualChar(step.m_nFlags, *p, *lpsz))
                continue;
            lpsz = NULL;
            break;
        }
        keep(step, lpszBegin, lpsz);
        return lpsz;
    }
    const char* single(const reStep& step, const char* lpsz) const {
        const bool bTakes = !ends(lpsz) && (step.m_pPlan->m_arrChar[charValue(*lpsz)] & rePlan::bitTakes) != 0;
        const char* const lpszNext = bTakes ? lpsz + 1 : NULL;
        keep(step, lpsz, lpszNext);
        if (bKeep)
            touchBelow(step.m_pPlan, lpsz, m_lpszEnding);
        return lpszNext;
    }
    const char* scan(const reStep& step, const char* lpszBegin) const {
        const uint8_t* const pTable = step.m_pPlan->m_arrChar;
        const size_t nMost = step.m_nMax == -1 ? SIZE_MAX : static_cast<size_t>(step.m_nMax);
        const char* lpsz = lpszBegin;
        if (!bEnding) {
            while (static_cast<size_t>(lpsz - lpszBegin) < nMost && !ends(lpsz) &&
                   (pTable[charValue(*lpsz)] & rePlan::bitTakes) != 0)
                ++lpsz;
            return lpsz;
        }
        const char* const lpszTo =
            static_cast<size_t>(m_lpszEnding - lpszBegin) <= nMost ? m_lpszEnding : lpszBegin + nMost;
        if (step.m_pPlan->m_bAll)
            return lpszTo;
        while (lpsz < lpszTo && (pTable[charValue(*lpsz)] & rePlan::bitTakes) != 0)
            ++lpsz;
        return lpsz;
    }
    const char* run(const reStep& step, const char* lpszBegin) {
        const char* const lpsz = scan(step, lpszBegin);
        const ptrdiff_t nTimes = lpsz - lpszBegin;
        const char* const lpszNext = nTimes >= step.m_nMin ? lpsz : NULL;
        m_bAside = m_bAside || (step.m_bAside && nTimes > step.m_nMin);
        keep(step, lpszBegin, lpszNext);
        if (bKeep && step.m_pPlan->m_nBelow > 0)
            touchRun(step.m_pPlan, lpszBegin, lpsz, nTimes != step.m_nMax, m_lpszEnding);
        return lpszNext;
    }

    const char* const m_lpszEnding;
    bool m_bAside;
};

// Where less might have been taken, a failure is left to the plain steps. False then.
template <bool bEnding, bool bKeep>
bool applySteps(reRegularExpress<char>& express, const char* lpszSrcText, const char* lpszSrcEnding) {
    straightRun<bEnding, bKeep> run(lpszSrcEnding);
    const char* lpszResult = run.apply(express.m_pState->m_arrStep, lpszSrcText);
    if (bKeep && lpszResult == NULL && run.isAside()) {
        express.m_pState->clearNodes();
        return false;
    }
    express.m_lpszResultBegin = lpszSrcText;
    express.m_lpszResultEnd = lpszResult;
    return true;
}

}  // namespace

bool planStraight(reRegularExpress<char>& express) { return straightPlanner(express).run(); }

bool applyStraight(reRegularExpress<char>& express, const char* lpszSrcText, const char* lpszSrcEnding) {
    reState& state = *express.m_pState;
    const bool bClean = state.m_bClean, bEnding = lpszSrcEnding != NULL;
    if (bEnding && lpszSrcText > lpszSrcEnding)
        return false;
    if (state.m_bScouting)
        return bEnding ? applySteps<true, false>(express, lpszSrcText, lpszSrcEnding)
                       : applySteps<false, false>(express, lpszSrcText, lpszSrcEnding);
    state.m_bClean = false;
    if (!bClean)
        return false;
    return bEnding ? applySteps<true, true>(express, lpszSrcText, lpszSrcEnding)
                   : applySteps<false, true>(express, lpszSrcText, lpszSrcEnding);
}

}  // namespace QOR_RegularExpressHelper
