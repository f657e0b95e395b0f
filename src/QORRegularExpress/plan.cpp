// The analysis of a tree that lets matching skip what has only one outcome. Everything is decided by the character at a
// position before the end of the text; at the end nothing is skipped.
//
// The tree is walked backwards, because a repetition depends on what follows it.
#include <string.h>

#include <new>

#include "QORRegularExpress/plan.h"

namespace QOR_RegularExpressHelper {

namespace {

class charSet {
public:
    explicit charSet(bool bAll = false) { memset(m_arrWord, bAll ? 0xFF : 0, sizeof(m_arrWord)); }
    void add(int ch) { m_arrWord[ch / 32] |= 1u << ch % 32; }
    void add(const charSet& r) {
        for (int i = 0; i < 8; ++i)
            m_arrWord[i] |= r.m_arrWord[i];
    }
    void addRange(uint32_t uLow, uint32_t uHigh) {
        for (uint32_t i = uLow / 32; i < 8 && i <= uHigh / 32; ++i) {
            const uint32_t uFrom = i == uLow / 32 ? uLow % 32 : 0, uTo = i == uHigh / 32 ? uHigh % 32 : 31;
            m_arrWord[i] |= 0xFFFFFFFFu >> (31 - uTo) & 0xFFFFFFFFu << uFrom;
        }
    }
    void remove(const charSet& r) {
        for (int i = 0; i < 8; ++i)
            m_arrWord[i] &= ~r.m_arrWord[i];
    }
    void invert() {
        for (int i = 0; i < 8; ++i)
            m_arrWord[i] = ~m_arrWord[i];
    }
    void copyTo(uint32_t (&arr)[8]) const { memcpy(arr, m_arrWord, sizeof(arr)); }
    bool equals(const uint32_t (&arr)[8]) const { return memcmp(arr, m_arrWord, sizeof(arr)) == 0; }
    bool operator==(const charSet& r) const { return equals(r.m_arrWord); }
    // Marks its members in a table of all characters.
    template <class B>
    void markIn(B (&arr)[256], B mark) const {
        for (int i = 0; i < 8; ++i) {
            B* const p = arr + i * 32;
            if (m_arrWord[i] == 0xFFFFFFFF) {
                for (int j = 0; j < 32; ++j)
                    p[j] |= mark;
                continue;
            }
            for (uint32_t u = m_arrWord[i]; u != 0; u &= u - 1)
                p[__builtin_ctz(u)] |= mark;
        }
    }
    int count() const {
        int n = 0;
        for (const uint32_t u : m_arrWord)
            n += __builtin_popcount(u);
        return n;
    }
    // The lowest member; there is one.
    int first() const {
        int i = 0;
        while (m_arrWord[i] == 0)
            ++i;
        return i * 32 + __builtin_ctz(m_arrWord[i]);
    }

private:
    uint32_t m_arrWord[8];
};

// What a node does at a position, by the character there.
struct traitsOf {
    charSet setFirst;       // at any other character it fails or matches nothing, and leaves the same results each time
    charSet setStart;       // at any other character it fails or matches nothing
    charSet setTakes;       // bSingle only: the characters that it takes
    bool bNothing = false;  // it may match nothing
    bool bSingle = false;   // it takes one character or fails, depending on that character alone
    bool bUniform = false;  // bSingle only: every character reaches all descendants
    bool bLooks = false;    // it looks ahead, or a descendant does
    bool bPartial = false;  // bSingle only: it may fail before it reaches all descendants
};

// What follows a node.
struct following {
    charSet setFirst;      // at any other character it ends as bNothing says, and leaves the same results each time
    bool bNothing = true;  // the rest of the node's own sequence may match nothing
    bool bNone = true;     // nothing follows, up to the root
};

class planner {
public:
    explicit planner(reRegularExpress<char>& express) : m_express(express) { m_bReference = false; }

    bool run() {
        m_express.m_pState = new (std::nothrow) reState;
        if (m_express.m_pState == NULL)
            return false;
        survey(&m_express);
        if (!listNodes())
            return false;
        const traitsOf traits = planGroup(&m_express, following());
        reState& state = *m_express.m_pState;
        const charSet setStart = traits.bNothing ? charSet(true) : traits.setStart;
        setStart.markIn(state.m_arrStart, true);
        state.m_nStart = setStart.count() == 1 ? setStart.first() : -1;
        state.m_bReference = m_bReference;
        state.m_pRoot = &m_express;
        state.m_bClean = true;
        findLead(&m_express);
        const bool bOvershoot = (m_express.m_uTraits & traitOvershoot) != 0;
        return m_bMemory && (m_bReference || bOvershoot || planOnePass(m_express));
    }

private:
    static bool isReference(const node* p) { return (p->m_uTraits & traitReference) != 0; }

    void survey(node* p) {
        ++m_nNodes;
        m_bReference = m_bReference || isReference(p);
        if ((p->m_uTraits & traitGroup) == 0)
            return;
        group* pGroup = static_cast<group*>(p);
        for (int i = 0; i < pGroup->GetChildRECount(); ++i)
            survey(pGroup->m_arrTargetREs[i]);
    }

    bool listNodes() {
        reState& state = *m_express.m_pState;
        state.m_arrNode = new (std::nothrow) node*[static_cast<size_t>(m_nNodes)];
        if (state.m_arrNode == NULL)
            return false;
        listBelow(state, &m_express);
        return true;
    }

    static void listBelow(reState& state, group* pGroup) {
        for (int i = 0; i < pGroup->GetChildRECount(); ++i) {
            node* p = pGroup->m_arrTargetREs[i];
            state.m_arrNode[state.m_nNodes++] = p;
            if ((p->m_uTraits & traitGroup) != 0)
                listBelow(state, static_cast<group*>(p));
        }
    }

    rePlan* newPlan(node* p) {
        p->m_pPlan = new (std::nothrow) rePlan();
        m_bMemory = m_bMemory && p->m_pPlan != NULL;
        if (p->m_pPlan != NULL)
            p->m_pPlan->m_pState = m_express.m_pState;
        return p->m_pPlan;
    }

    // Looks for a leading run in the first members of sequences that have to match.
    void findLead(group* pGroup) {
        if (m_bReference || (pGroup->m_uTraits & traitSet) != 0 || pGroup->m_bNegative != 0 ||
            pGroup->m_nMinTimes == 0 || pGroup->GetChildRECount() == 0)
            return;
        node* p = pGroup->m_arrTargetREs[0];
        if (p->m_pPlan != NULL && p->m_pPlan->m_bRun && p->m_nMaxTimes == -1) {
            // A weak run can end at a different position for each start.
            if (p->m_chRepeatMode == '?')
                return;
            m_express.m_pState->m_pLead = p->m_pPlan;
            m_express.m_pState->m_bLeadEmpty = p->m_nMinTimes == 0;
        } else if ((p->m_uTraits & traitGroup) != 0) {
            findLead(static_cast<group*>(p));
        }
    }

    // ---- one repetition

    static void addChar(charSet& set, uint32_t nFlags, char ch) {
        set.add(static_cast<int>(charValue(ch)));
        if ((nFlags & flagIgnoreCase) != 0)
            set.add(static_cast<int>(charValue(QOR_StringHelper::chReverse(ch))));
    }

    // The characters that a text or a range takes; of a run of characters, the first one.
    static charSet leafSet(node* p) {
        charSet set;
        if ((p->m_uTraits & traitText) != 0) {
            const re_Text<char>* pText = static_cast<re_Text<char>*>(p);
            const int nCount = (p->m_uTraits & traitSet) != 0 ? pText->GetChildRECount() : 1;
            for (int i = 0; i < nCount; ++i)
                addChar(set, p->m_nFlags, pText->m_arrText.GetBuffer()[i]);
            return set;
        }
        const re_Range<char>* pRange = static_cast<re_Range<char>*>(p);
        set.addRange(pRange->m_chLow, pRange->m_chHigh);
        for (int ch = 'A'; ch <= 'z' && (p->m_nFlags & flagIgnoreCase) != 0; ++ch) {
            const uint32_t uOther = charValue(QOR_StringHelper::chReverse(static_cast<char>(ch)));
            if (pRange->m_chLow <= uOther && uOther <= pRange->m_chHigh)
                set.add(ch);
        }
        return set;
    }

    traitsOf planLeaf(node* p) {
        traitsOf traits;
        if (isReference(p)) {
            traits.setFirst = traits.setStart = charSet(true);
            traits.bNothing = true;
            return traits;
        }
        const re_Text<char>* pText = (p->m_uTraits & traitText) != 0 ? static_cast<re_Text<char>*>(p) : NULL;
        const bool bRun = pText != NULL && (p->m_uTraits & traitSet) == 0 && pText->GetChildRECount() > 1;
        traits.setTakes = leafSet(p);
        traits.setFirst = traits.setStart = traits.setTakes;
        traits.bSingle = traits.bUniform = !bRun;
        return traits;
    }

    // Whether a group takes one character when its child does.
    bool isSingleChild(const node* p, const traitsOf& traits) const {
        const bool bOnce = p->m_nMinTimes == 1 && p->m_nMaxTimes == 1;
        return traits.bSingle && bOnce && !(m_bReference && (p->m_uTraits & traitCapture) != 0);
    }

    traitsOf planSequence(group* pGroup, const following& after) {
        const int nCount = pGroup->GetChildRECount();
        const bool bNegative = pGroup->m_bNegative != 0;
        traitsOf traits;
        traits.bNothing = true;
        following rest = after;
        rest.bNothing = true;
        for (int i = nCount - 1; i >= 0; --i) {
            node* pChild = pGroup->m_arrTargetREs[i];
            const traitsOf child = planNode(pChild, rest);
            traits.bSingle = nCount == 1 && !bNegative && isSingleChild(pChild, child);
            if (traits.bSingle) {
                if (pGroup == &m_express)
                    fillSingle(pChild, child);
                traits = child;
                break;
            }
            fillSingle(pChild, child);
            prepend(traits, child);
            if (!child.bNothing)
                rest = following(), rest.bNothing = false;
            rest.setFirst.add(child.setFirst);
            rest.bNone = false;
            // The rest of a negated sequence is negated, too.
            if (bNegative)
                rest.setFirst = charSet(true);
        }
        if (!bNegative || nCount == 0)
            return traits;
        const bool bLooks = traits.bLooks;
        traits = traitsOf();
        traits.bLooks = bLooks;
        traits.setFirst = traits.setStart = charSet(true);
        return traits;
    }

    static void prepend(traitsOf& traits, const traitsOf& child) {
        if (!child.bNothing)
            traits.setFirst = traits.setStart = charSet();
        traits.setFirst.add(child.setFirst);
        traits.setStart.add(child.setStart);
        traits.bNothing = traits.bNothing && child.bNothing;
        traits.bLooks = traits.bLooks || child.bLooks;
    }

    traitsOf planSet(group* pGroup, const following& after) {
        const int nCount = pGroup->GetChildRECount();
        following rest = after;
        rest.bNothing = true;
        traitsOf traits;
        traits.bNothing = nCount == 0;
        traits.bSingle = nCount > 0;
        traits.bUniform = nCount == 1;
        for (int i = 0; i < nCount; ++i) {
            node* pChild = pGroup->m_arrTargetREs[i];
            const traitsOf child = planNode(pChild, rest);
            traits.setFirst.add(child.setFirst);
            traits.setStart.add(child.setStart);
            traits.setTakes.add(child.setTakes);
            traits.bNothing = traits.bNothing || child.bNothing;
            traits.bLooks = traits.bLooks || child.bLooks;
            traits.bSingle = traits.bSingle && isSingleChild(pChild, child) && (nCount == 1 || !child.bPartial);
            traits.bUniform = traits.bUniform && child.bUniform;
            traits.bPartial = traits.bPartial || child.bPartial;
        }
        return pGroup->m_bNegative != 0 && nCount > 0 ? negated(traits, nCount) : traits;
    }

    static traitsOf negated(const traitsOf& positive, int nCount) {
        traitsOf traits = positive;
        traits.bNothing = false;
        traits.setFirst = traits.setStart = charSet(true);
        if (!positive.bSingle)
            return traits;
        traits.setTakes.invert();
        traits.setStart = traits.setTakes;
        if (positive.bUniform)
            traits.setFirst = traits.setTakes;
        traits.bPartial = nCount > 1 || !positive.bUniform;
        return traits;
    }

    traitsOf planGroup(group* pGroup, const following& after) {
        return (pGroup->m_uTraits & traitSet) != 0 ? planSet(pGroup, after) : planSequence(pGroup, after);
    }

    // ---- all repetitions

    traitsOf planNode(node* p, const following& after) {
        traitsOf traits = (p->m_uTraits & traitGroup) != 0 ? planGroup(static_cast<group*>(p), after) : planLeaf(p);
        if (p->m_nMinTimes == 1 && p->m_nMaxTimes == 1)
            return traits;
        fillPlan(p, traits, after);
        traits.bSingle = false;
        traits.bLooks = traits.bLooks || looksAhead(p);
        traits.bNothing = traits.bNothing || p->m_nMinTimes == 0;
        if (p->m_pPlan != NULL && looksAhead(p))
            p->m_pPlan->m_iAnswer = m_express.m_pState->m_nPlans++;
        if (p->m_nMaxTimes == 0)
            traits.setFirst = traits.setStart = charSet();
        return traits;
    }

    void fillPlan(node* p, const traitsOf& traits, const following& after) {
        rePlan* pPlan = newPlan(p);
        if (pPlan == NULL)
            return;
        pPlan->m_bRun = traits.bSingle;
        pPlan->m_bEach = !traits.bUniform && (p->m_nMaxTimes != -1 || p->m_chRepeatMode == '?');
        pPlan->m_bPartial = traits.bPartial;
        pPlan->m_bInnerLook = traits.bLooks;
        pPlan->m_bNothingAfter = after.bNone;
        pPlan->m_bRestEmpty = after.bNothing;
        const group* pParent = static_cast<const group*>(p->m_pParentRE);
        pPlan->m_bNothingFails =
            (pParent->m_uTraits & traitSet) != 0 || p->m_iIndexInParent == pParent->GetChildRECount() - 1;
        after.setFirst.markIn(pPlan->m_arrChar, rePlan::bitLook);
        if (traits.bSingle)
            fillTakes(p, traits);
    }

    // Gives a plan to a group that takes one character and is not part of another such node.
    void fillSingle(node* p, const traitsOf& traits) {
        if (!traits.bSingle || (p->m_uTraits & traitGroup) == 0 || m_nSingles == maxSingles || newPlan(p) == NULL)
            return;
        ++m_nSingles;
        fillTakes(p, traits);
    }

    void fillTakes(node* p, const traitsOf& traits) {
        rePlan* pPlan = p->m_pPlan;
        traits.setTakes.markIn(pPlan->m_arrChar, rePlan::bitTakes);
        pPlan->m_bAll = traits.setTakes == charSet(true);
        const int nInner = countInner(p);
        if (nInner == 0)
            return;
        pPlan->m_arrInner = new (std::nothrow) reInner[static_cast<size_t>(nInner)];
        m_bMemory = m_bMemory && pPlan->m_arrInner != NULL;
        if (pPlan->m_arrInner == NULL)
            return;
        takenInner(pPlan, p, charSet(true));
        pPlan->m_bAlike = true;
        for (int i = 0; i < nInner; ++i)
            pPlan->m_bAlike = pPlan->m_bAlike && charSet(true).equals(pPlan->m_arrInner[i].m_arrReached) &&
                              traits.setTakes.equals(pPlan->m_arrInner[i].m_arrTaken);
    }

    // ---- the descendants of a node that takes one character

    static int countInner(const node* p) {
        if ((p->m_uTraits & traitGroup) == 0)
            return 0;
        const group* pGroup = static_cast<const group*>(p);
        const int nCount = pGroup->GetChildRECount();
        int nInner = nCount;
        for (int i = 0; i < nCount; ++i)
            nInner += countInner(pGroup->m_arrTargetREs.GetBuffer()[i]);
        return nInner;
    }

    // Notes the descendants of a node that is applied at certain characters. Returns all characters that it would take.
    static charSet takenInner(rePlan* pPlan, node* p, const charSet& setReached) {
        if ((p->m_uTraits & traitGroup) == 0)
            return leafSet(p);
        const group* pGroup = static_cast<group*>(p);
        charSet setRest = setReached, setTaken;
        for (int i = 0; i < pGroup->GetChildRECount(); ++i) {
            node* pChild = pGroup->m_arrTargetREs.GetBuffer()[i];
            const charSet setChild = takenInner(pPlan, pChild, setRest);
            reInner& inner = pPlan->m_arrInner[pPlan->m_nInner++];
            inner.m_pRE = pChild;
            setRest.copyTo(inner.m_arrReached);
            setChild.copyTo(inner.m_arrTaken);
            setRest.remove(setChild);
            setTaken.add(setChild);
        }
        if (pGroup->m_bNegative != 0)
            setTaken.invert();
        return setTaken;
    }

    static constexpr int maxSingles = 256;  // so that plans do not cost more than the tree

    reRegularExpress<char>& m_express;
    bool m_bReference;
    bool m_bMemory = true;
    int m_nNodes = 0;
    int m_nSingles = 0;
};

}  // namespace

bool planTree(reRegularExpress<char>& express) { return planner(express).run(); }

}  // namespace QOR_RegularExpressHelper
