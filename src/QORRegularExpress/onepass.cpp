// The one-pass matcher: each element takes what it can, once, and nothing is tried twice. The match and all results are
// those of the general matcher; the head of match.cpp says why there are both.
//
// It serves sequences of texts, of nodes that take one character, of runs of these, of groups, and of optional groups
// that contain no other optional group, if for each run and optional group
// - what follows fails or matches nothing at each character that the run or the group takes, so that looking ahead
//   cannot make it take less and still match. What looking ahead reaches there, it reaches again after the last
//   character; therefore what follows must not contain nodes of which different characters reach different
//   descendants.
// - or all that follows, up to the end of the pattern, matches at every position and reaches the same nodes there.
// Where what follows a run fails, the general matcher goes back to the run's least number and fails there, too, but
// with other results. So after such a step (reStep::m_bMayShorten) a failure is left to the general matcher.
#include <stdint.h>

#include <new>

#include "QORRegularExpress/match.h"

namespace QOR_RegularExpressHelper {

namespace {

class onePassPlanner {
public:
    explicit onePassPlanner(reRegularExpress<char>& express) : m_express(express) {}

    bool run() {
        reState& state = *m_express.m_pState;
        // A group has two steps, and the end has one.
        m_arrStep = new (std::nothrow) reStep[static_cast<size_t>(2 * state.m_nNodes + 1)];
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
        reStep& step = m_arrStep[m_nSteps++] = reStep();
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

    // Notes an element that takes at least one character: looking ahead ends there.
    bool stopLooking() {
        m_bReached = false;
        return !m_bTotal;
    }

    bool addText(re_Text<char>* p) {
        reStep& step = add(reStep::text, p);
        step.m_lpszText = p->m_arrText.GetBuffer();
        step.m_nMax = p->GetChildRECount();
        return stopLooking();
    }

    bool addSingle(node* p) {
        add(reStep::single, p);
        return (!m_bReached || isUniform(*p->m_pPlan)) && stopLooking();
    }

    bool addRun(node* p) {
        const rePlan& plan = *p->m_pPlan;
        if (p->m_chRepeatMode == '?' || p->m_nMaxTimes == 0)
            return false;
        // A run without a limit ends with a character that is refused, which reaches all descendants.
        const bool bUniform = isUniform(plan) || (p->m_nMaxTimes == -1 && !plan.m_bPartial);
        if ((m_bReached || m_bTotal) && !bUniform)
            return false;
        reStep& step = add(reStep::run, p);
        if (p->m_nMinTimes > 0 && !stopLooking())
            return false;
        if (!looksAhead(p) || plan.m_bNothingAfter)
            return true;
        step.m_bMayShorten = mayShorten(plan);
        return addLook(plan, plan.m_arrChar);
    }

    bool addGroup(group* pGroup) {
        const int iOpen = m_nSteps;
        add(reStep::open, pGroup);
        if (!addMembers(pGroup))
            return false;
        if (m_nSteps == iOpen + 2 && takesOne(m_arrStep[iOpen + 1])) {
            m_arrStep[iOpen] = m_arrStep[iOpen + 1];
            m_arrStep[iOpen].m_pGroup = pGroup;
            --m_nSteps;
        } else {
            add(reStep::close, pGroup);
        }
        return true;
    }

    // Whether a step can do the work of a group's two steps, too.
    static bool takesOne(const reStep& step) {
        return (step.m_eKind == reStep::single || step.m_eKind == reStep::run) && step.m_pGroup == NULL;
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
        close.m_bMayShorten = mayShorten(*p->m_pPlan);
        m_arrStep[iOpen].m_pElse = &close;
        return p->m_pPlan->m_bNothingAfter || addLook(*p->m_pPlan, arrFirst);
    }

    // Notes that the matcher looks ahead before each of the characters that are marked with bitTakes.
    bool addLook(const rePlan& plan, const uint8_t (&arrTakes)[256]) {
        m_bReached = true;
        static_assert(rePlan::bitLook == rePlan::bitTakes << 1, "both are compared at once");
        unsigned uBoth = 0;
        for (int ch = 0; ch < 256; ++ch)
            uBoth |= static_cast<unsigned>(arrTakes[ch] & plan.m_arrChar[ch] >> 1);
        m_bTotal = m_bTotal || (uBoth & rePlan::bitTakes) != 0;
        return true;
    }

    // The characters that an optional group can begin with. False: its first member may take none.
    bool firstOf(int iStep, uint8_t (&arrFirst)[256]) const {
        const reStep& step = m_arrStep[iStep];
        if (iStep >= m_nSteps || step.m_pGroup != NULL || (step.m_eKind == reStep::run && step.m_nMin == 0) ||
            step.m_eKind > reStep::run)
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

    static bool mayShorten(const rePlan& plan) {
        return !plan.m_bNothingAfter && !plan.m_bNothingFails && !plan.m_bRestEmpty;
    }

    // Whether every character reaches all descendants.
    static bool isUniform(const rePlan& plan) {
        for (int i = 0; i < plan.m_nInner; ++i)
            for (const uint32_t uReached : plan.m_arrInner[i].m_arrReached)
                if (uReached != 0xFFFFFFFF)
                    return false;
        return true;
    }

    reRegularExpress<char>& m_express;
    reStep* m_arrStep = NULL;
    int m_nSteps = 0;
    bool m_bReached = false;   // looking ahead from an earlier element reaches the next one
    bool m_bTotal = false;     // all that follows has to match at every position
    bool m_bOptional = false;  // inside an optional group
};

// ---- matching

// bEnding: an end is given; bKeep: nodes get their results.
template <bool bEnding, bool bKeep>
class onePass {
public:
    explicit onePass(const char* lpszEnding) : m_lpszEnding(lpszEnding), m_bMayShorten(false) {}

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
                    m_bMayShorten = m_bMayShorten || pStep->m_bMayShorten;
                    pOptional = NULL;
                    break;
                case reStep::end:
                    return lpsz;
            }
            if (lpszNext == NULL) {
                if (pOptional == NULL || (bKeep && m_bMayShorten))
                    return NULL;
                pStep = pOptional->m_pElse;
                lpszNext = lpszOptional;
                keepEnd(*pStep, lpszNext);
                pOptional = NULL;
            }
            lpsz = lpszNext;
        }
    }
    // Whether, after a failure, the general matcher may leave other results.
    bool mayShorten() const { return m_bMayShorten; }

private:
    bool ends(const char* lpsz) const { return bEnding ? lpsz >= m_lpszEnding : *lpsz == 0; }
    static void keep(const reStep& step, const char* lpszBegin, const char* lpszEnd) {
        if (!bKeep)
            return;
        step.m_pRE->m_lpszResultBegin = lpszBegin;
        step.m_pRE->m_lpszResultEnd = lpszEnd;
    }
    static void keepBoth(const reStep& step, const char* lpszBegin, const char* lpszEnd) {
        keep(step, lpszBegin, lpszEnd);
        if (!bKeep || step.m_pGroup == NULL)
            return;
        step.m_pGroup->m_lpszResultBegin = lpszBegin;
        step.m_pGroup->m_lpszResultEnd = lpszEnd;
    }
    static void keepEnd(const reStep& step, const char* lpszEnd) {
        if (bKeep)
            step.m_pRE->m_lpszResultEnd = lpszEnd;
    }

    const char* text(const reStep& step, const char* lpszBegin) const {
        const char* lpsz = lpszBegin;
        const char* const pTo = step.m_lpszText + step.m_nMax;
        const uint32_t nFlags = step.m_nFlags;
        for (const char* p = step.m_lpszText; p < pTo; ++p, ++lpsz) {
            if (!ends(lpsz) && isEqualChar(nFlags, *p, *lpsz))
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
        keepBoth(step, lpsz, lpszNext);
        if (bKeep)
            setInner(step.m_pPlan, lpsz, m_lpszEnding);
        return lpszNext;
    }
    const char* run(const reStep& step, const char* lpszBegin) {
        const size_t nMax = step.m_nMax == -1 ? SIZE_MAX : static_cast<size_t>(step.m_nMax);
        const char* const lpsz =
            endOfRun(step.m_pPlan, rePlan::bitTakes, rePlan::bitTakes, lpszBegin, bEnding ? m_lpszEnding : NULL, nMax);
        const ptrdiff_t nTimes = lpsz - lpszBegin;
        const char* const lpszNext = nTimes >= step.m_nMin ? lpsz : NULL;
        m_bMayShorten = m_bMayShorten || (step.m_bMayShorten && nTimes > step.m_nMin);
        keepBoth(step, lpszBegin, lpszNext);
        if (bKeep && step.m_pPlan->m_nInner > 0)
            keepInner(*step.m_pPlan, lpszBegin, lpsz, nTimes != step.m_nMax);
        return lpszNext;
    }
    void keepInner(const rePlan& plan, const char* lpszBegin, const char* lpsz, bool bRefused) const {
        if (!plan.m_bAlike) {
            setInnerOfRun(&plan, lpszBegin, lpsz, bRefused, m_lpszEnding);
            return;
        }
        // The last position at which the node was applied.
        const char* const lpszLast = bRefused ? lpsz : lpsz - 1;
        const reInner* const pTo = plan.m_arrInner + plan.m_nInner;
        for (const reInner* p = plan.m_arrInner; p < pTo && lpszLast >= lpszBegin; ++p) {
            p->m_pRE->m_lpszResultBegin = lpszLast;
            p->m_pRE->m_lpszResultEnd = bRefused ? NULL : lpsz;
        }
    }

    const char* const m_lpszEnding;
    bool m_bMayShorten;
};

// False: it has failed where the general matcher may leave other results.
template <bool bEnding, bool bKeep>
bool applySteps(reRegularExpress<char>& express, const char* lpszSrcText, const char* lpszSrcEnding) {
    onePass<bEnding, bKeep> run(lpszSrcEnding);
    const char* lpszResult = run.apply(express.m_pState->m_arrStep, lpszSrcText);
    if (bKeep && lpszResult == NULL && run.mayShorten()) {
        express.m_pState->clearNodes();
        return false;
    }
    express.m_lpszResultBegin = lpszSrcText;
    express.m_lpszResultEnd = lpszResult;
    return true;
}

}  // namespace

bool planOnePass(reRegularExpress<char>& express) { return onePassPlanner(express).run(); }

bool applyOnePass(reRegularExpress<char>& express, const char* lpszSrcText, const char* lpszSrcEnding) {
    reState& state = *express.m_pState;
    const bool bClean = state.m_bClean, bEnding = lpszSrcEnding != NULL;
    if (bEnding && lpszSrcText > lpszSrcEnding)
        return false;
    if (state.m_bSearching)
        return bEnding ? applySteps<true, false>(express, lpszSrcText, lpszSrcEnding)
                       : applySteps<false, false>(express, lpszSrcText, lpszSrcEnding);
    state.m_bClean = false;
    if (!bClean)
        return false;
    return bEnding ? applySteps<true, true>(express, lpszSrcText, lpszSrcEnding)
                   : applySteps<false, true>(express, lpszSrcText, lpszSrcEnding);
}

}  // namespace QOR_RegularExpressHelper
