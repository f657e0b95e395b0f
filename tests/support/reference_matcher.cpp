#include "support/reference_matcher.h"

#include <string.h>

namespace qorTest {

namespace {

struct patternError {
    size_t nPlace;
};
struct fatalStop {
    bool bReference;
};
struct budgetStop {};

constexpr long maxSteps = 200000;

unsigned lower(unsigned ch) { return ch >= 'A' && ch <= 'Z' ? ch + 32 : ch; }
unsigned swapped(unsigned ch) {
    if (ch >= 'A' && ch <= 'Z')
        return ch + 32;
    return ch >= 'a' && ch <= 'z' ? ch - 32 : ch;
}

}  // namespace

// A node of any kind. A sequence or a set has members, a text has characters, a range has two.
struct referenceNode {
    enum kind { group, text, range, reference };
    kind eKind = group;
    bool bSet = false;  // members are alternatives
    bool bNegative = false;
    bool bNoCapture = false;
    unsigned nMin = 1;
    unsigned nMax = 1;
    bool bUnlimited = false;
    char chMode = '-';
    referenceNode* pParent = nullptr;
    size_t nIndex = 0;
    std::vector<std::unique_ptr<referenceNode>> listMember;
    std::vector<unsigned> listChar;
    referenceNode* pGroup = nullptr;
    std::string strSource;
    referenceSpan span;
};

// ---- compiling

struct referenceMatcher::parser {
    referenceMatcher& owner;
    const std::string& str;  // with a NUL after it
    size_t n = 0;

    char at(size_t i) const { return i < str.size() ? str[i] : '\0'; }
    [[noreturn]] static void fail(size_t nPlace) { throw patternError{nPlace}; }

    // The alias at an index: its pattern and length.
    bool alias(size_t i, std::string& strPattern, size_t& nLength) const {
        static const char* const arrTable[6][2] = {
            {"\\d", "[0-9]"},         {"\\D", "[^0-9\\x0]"},   {"\\s", "[\t-\r ]"},
            {"\\S", "[^\t-\r \\x0]"}, {"\\w", "[a-zA-Z0-9_]"}, {"\\W", "[^a-zA-Z0-9_\\x0]"},
        };
        nLength = 1;
        if (at(i) == '.') {
            strPattern = "[\\x0-\\xFFFFFFFF]";
            return true;
        }
        if (at(i) == '$') {
            strPattern = "\r?\n";
            return true;
        }
        nLength = 2;
        for (const auto& row : arrTable)
            if (str.compare(i, 2, row[0]) == 0) {
                strPattern = row[1];
                return true;
            }
        for (auto it = owner.m_listAlias.rbegin(); it != owner.m_listAlias.rend(); ++it)
            if (at(i) == '/' && str.compare(i, it->first.size(), it->first) == 0) {
                strPattern = it->second;
                nLength = it->first.size();
                return true;
            }
        return false;
    }

    // One literal at i: whether there is one, its value and the index after it.
    bool literal(size_t i, unsigned& uValue, size_t& nAfter) const {
        std::string strAlias;
        size_t nLength = 0;
        const char ch = at(i);
        if (ch == 0 || strchr("^()[]{}?+*-", ch) != nullptr || alias(i, strAlias, nLength))
            return false;
        uValue = static_cast<unsigned char>(ch);
        nAfter = i + 1;
        if (ch != '\\')
            return true;
        const char chEscaped = at(i + 1);
        nAfter = i + 2;
        if (chEscaped == 'x' || chEscaped == 'X') {
            uValue = 0;
            while (nAfter < i + 10 && at(nAfter) != 0 && strchr("0123456789abcdefABCDEF", at(nAfter)) != nullptr)
                uValue = uValue * 16 + static_cast<unsigned>(std::stoi(std::string(1, at(nAfter++)), nullptr, 16));
            return nAfter > i + 2;
        }
        static const std::string strFrom = "btnvfr", strTo = "\b\t\n\v\f\r";
        const size_t nFound = chEscaped == 0 ? std::string::npos : strFrom.find(chEscaped);
        if (nFound != std::string::npos) {
            uValue = static_cast<unsigned char>(strTo[nFound]);
            return true;
        }
        uValue = static_cast<unsigned char>(chEscaped);
        return chEscaped != 0 && strchr("^()[]{}?+*-.$/\\", chEscaped) != nullptr;
    }

    bool number(unsigned& uValue) {
        const size_t nFrom = n;
        uValue = 0;
        while (n < nFrom + 10 && at(n) >= '0' && at(n) <= '9')
            uValue = uValue * 10 + static_cast<unsigned>(at(n++) - '0');
        return n > nFrom;
    }

    void quantifier(referenceNode& node) {
        const char ch = at(n);
        if (ch == 0 || strchr("*+?{", ch) == nullptr)
            return;
        ++n;
        if (ch == '{') {
            times(node);
        } else {
            node.nMin = ch == '+' ? 1 : 0;
            node.nMax = 1;
            node.bUnlimited = ch != '?';
        }
        node.chMode = !node.bUnlimited && node.nMin == node.nMax ? '-' : ' ';
        if (at(n) == '+' || at(n) == '?')
            node.chMode = at(n++);
    }

    void times(referenceNode& node) {
        const size_t nFrom = n;
        if (!number(node.nMin) || node.nMin > 0x7FFFFFFFu)
            fail(nFrom);
        node.nMax = node.nMin;
        if (at(n) == ',') {
            const size_t nComma = n++;
            unsigned uMax = 0;
            node.bUnlimited = !number(uMax);
            node.nMax = uMax;
            const bool bOrder = node.bUnlimited || (uMax <= 0x7FFFFFFFu && uMax >= node.nMin);
            if (at(n) == '}' && !bOrder)
                fail(nComma + 1);
        }
        if (at(n) != '}')
            fail(n);
        ++n;
    }

    referenceNode* member(referenceNode& parent, referenceNode::kind eKind) {
        parent.listMember.push_back(std::make_unique<referenceNode>());
        referenceNode* p = parent.listMember.back().get();
        p->eKind = eKind;
        p->bSet = parent.bSet;
        p->bNoCapture = parent.bNoCapture;
        p->pParent = &parent;
        p->nIndex = parent.listMember.size() - 1;
        return p;
    }

    void elements(referenceNode& parent) {
        while (groupElement(parent) || backReference(parent) || (parent.bSet && charRange(parent)) || textRun(parent)) {
        }
    }

    void sequence(referenceNode& node, char chEnding) {
        const size_t nFrom = n;
        if (at(n) == '^') {
            node.bNegative = true;
            ++n;
        }
        elements(node);
        if (chEnding == 0 ? n != str.size() : at(n) != chEnding)
            fail(n);
        node.strSource = "(" + str.substr(nFrom, n - nFrom) + ")";
        if (chEnding == 0)
            return;
        ++n;
        quantifier(node);
    }

    bool groupElement(referenceNode& parent) {
        const size_t nFrom = n;
        std::string strAlias;
        size_t nLength = 0;
        if (at(n) == '(') {
            referenceNode* p = member(parent, referenceNode::group);
            p->bSet = false;
            ++n;
            if (str.compare(n, 2, "?:") == 0)
                n += 2;
            else if (!p->bNoCapture)
                owner.m_listCapture.push_back(p);
            sequence(*p, ')');
            return true;
        }
        if (at(n) == '[') {
            referenceNode* p = member(parent, referenceNode::group);
            p->bSet = true;
            ++n;
            if (at(n) == '^') {
                p->bNegative = true;
                ++n;
            }
            elements(*p);
            if (at(n) != ']')
                fail(n);
            ++n;
            p->strSource = str.substr(nFrom, n - nFrom);
            quantifier(*p);
            return true;
        }
        if (!alias(n, strAlias, nLength))
            return false;
        referenceNode* p = member(parent, referenceNode::group);
        p->bSet = false;
        p->bNoCapture = true;
        try {
            parser(owner, strAlias).sequence(*p, 0);
        } catch (const patternError&) {
            fail(nFrom);
        }
        n += nLength;
        p->strSource = str.substr(nFrom, nLength);
        quantifier(*p);
        return true;
    }

    bool backReference(referenceNode& parent) {
        const size_t nFrom = n;
        unsigned uValue = 0;
        if (at(n) != '\\')
            return false;
        ++n;
        if (!number(uValue) || uValue < 1 || uValue > owner.m_listCapture.size()) {
            n = nFrom;
            return false;
        }
        referenceNode* p = member(parent, referenceNode::reference);
        p->pGroup = owner.m_listCapture[uValue - 1];
        p->strSource = str.substr(nFrom, n - nFrom);
        quantifier(*p);
        return true;
    }

    bool charRange(referenceNode& parent) {
        unsigned uLow = 0, uHigh = 0;
        size_t nAfter = 0;
        if (!literal(n, uLow, nAfter) || at(nAfter) != '-' || !literal(nAfter + 1, uHigh, nAfter))
            return false;
        referenceNode* p = member(parent, referenceNode::range);
        p->listChar = {uLow < uHigh ? uLow : uHigh, uLow < uHigh ? uHigh : uLow};
        p->strSource = str.substr(n, nAfter - n);
        n = nAfter;
        return true;
    }

    bool textRun(referenceNode& parent) {
        std::vector<unsigned> listChar;
        unsigned uValue = 0;
        size_t nEnd = n, nAfter = 0;
        while (literal(nEnd, uValue, nAfter) && at(nAfter) != '-') {
            listChar.push_back(uValue & 0xFF);
            nEnd = nAfter;
        }
        if (listChar.empty())
            return false;
        referenceNode* p = member(parent, referenceNode::text);
        p->listChar = listChar;
        p->strSource = str.substr(n, nEnd - n);
        n = nEnd;
        quantifier(*p);
        return true;
    }

    parser(referenceMatcher& r, const std::string& strPattern) : owner(r), str(strPattern) {}
};

// ---- matching; a place is a number, none stands for no match

struct referenceMatcher::run {
    static constexpr long none = -1;
    const std::string& str;
    const bool bFold;
    const bool bGivenEnd;
    long nSteps = 0;

    long size() const { return static_cast<long>(str.size()); }
    bool atEnd(long n) const { return n >= size(); }
    unsigned charAt(long n) const { return static_cast<unsigned char>(str[static_cast<size_t>(n)]); }

    static size_t childCount(const referenceNode& node) {
        if (node.eKind == referenceNode::group)
            return node.listMember.size();
        return node.eKind == referenceNode::text ? node.listChar.size() : 1;
    }

    // After a given end no node may be applied; after a NUL none matches.
    bool mayStand(long n) const {
        if (n <= size())
            return true;
        if (bGivenEnd)
            throw fatalStop{false};
        return false;
    }

    long applyNode(referenceNode& node, long n) {
        if (++nSteps > maxSteps)
            throw budgetStop();
        if (node.span.nBegin == n)
            return node.span.nEnd;
        node.span.nBegin = n;
        node.span.nEnd = none;
        return node.span.nEnd = mayStand(n) ? repeat(node, n) : none;
    }

    long repeat(referenceNode& node, long n) {
        for (unsigned i = 0; i < node.nMin; ++i) {
            const long nNext = applyFrom(node, 0, n);
            if (nNext == none)
                return none;
            if (nNext == n)
                break;
            n = nNext;
        }
        if (node.bUnlimited || node.nMax > node.nMin)
            return optional(node, n, node.bUnlimited ? none : static_cast<long>(node.nMax - node.nMin));
        return n;
    }

    // One more repetition, if the limit allows it and it advances.
    bool once(referenceNode& node, long& n, long& nTimes) {
        if (nTimes == 0)
            return false;
        const long nNext = applyFrom(node, 0, n);
        if (nNext == none || nNext == n)
            return false;
        if (nTimes > 0)
            --nTimes;
        node.span.nEnd = n = nNext;
        return true;
    }

    long optional(referenceNode& node, long n, long nTimes) {
        long nBest = n;
        switch (node.chMode) {
            case '+':
                while (once(node, n, nTimes)) {
                }
                return n;
            case ' ':
                do {
                    if (after(*node.pParent, node.nIndex, n) != none)
                        nBest = n;
                } while (once(node, n, nTimes));
                return nBest;
            case '?':
                while (after(*node.pParent, node.nIndex, n) == none && once(node, n, nTimes)) {
                }
                return n;
        }
        return none;
    }

    long after(referenceNode& node, size_t nIndex, long n) {
        const long nRest = node.bSet ? n : applyFrom(node, nIndex + 1, n);
        if (nRest == none || node.pParent == nullptr)
            return nRest;
        const long nOuter = after(*node.pParent, node.nIndex, nRest);
        return nOuter != none ? nOuter : nRest;
    }

    long applyFrom(referenceNode& node, size_t nIndex, long n) {
        if (++nSteps > maxSteps)
            throw budgetStop();
        const size_t nCount = childCount(node);
        if (nIndex == nCount)
            return n;
        long nResult = node.bSet ? none : n;
        for (size_t i = nIndex; i < nCount && (nResult == none) == node.bSet; ++i)
            nResult = applyChild(node, i, node.bSet ? n : nResult);
        if (!node.bNegative)
            return nResult;
        if (nResult != none)
            return none;
        if (node.bSet)
            return atEnd(n) ? none : n + 1;
        return mayStand(n) ? n + 1 : none;
    }

    long applyChild(referenceNode& node, size_t nIndex, long n) {
        if (node.eKind == referenceNode::group)
            return applyNode(*node.listMember[nIndex], n);
        if (node.eKind == referenceNode::reference)
            return applyReference(node, n);
        if (atEnd(n))
            return none;
        const unsigned ch = charAt(n), chOther = bFold ? swapped(ch) : ch;
        const auto isIn = [&](unsigned c) {
            if (node.eKind == referenceNode::range)
                return node.listChar[0] <= c && c <= node.listChar[1];
            return node.listChar[nIndex] == c;
        };
        return isIn(ch) || isIn(chOther) ? n + 1 : none;
    }

    long applyReference(const referenceNode& node, long n) const {
        const referenceSpan& span = node.pGroup->span;
        if (span.nEnd == none)
            throw fatalStop{true};
        for (long i = span.nBegin; i < span.nEnd; ++i, ++n) {
            // Tests put NULs after the text.
            const unsigned ch1 = i < size() ? charAt(i) : 0, ch2 = n < size() ? charAt(n) : 0;
            if (bFold ? lower(ch1) != lower(ch2) : ch1 != ch2)
                return none;
        }
        return n;
    }
};

// ---- the face

referenceMatcher::referenceMatcher() = default;
referenceMatcher::~referenceMatcher() = default;

void referenceMatcher::addAlias(const std::string& strName, const std::string& strPattern) {
    for (auto it = m_listAlias.begin(); it != m_listAlias.end(); ++it)
        if (it->first == strName) {
            m_listAlias.erase(it);
            break;
        }
    m_listAlias.emplace_back(strName, strPattern);
}

long referenceMatcher::build(const std::string& strPattern, bool bIgnoreCase) {
    m_pRoot = std::make_unique<referenceNode>();
    m_listCapture.clear();
    m_bIgnoreCase = bIgnoreCase;
    try {
        parser(*this, strPattern).sequence(*m_pRoot, 0);
        return -1;
    } catch (const patternError& error) {
        m_pRoot = std::make_unique<referenceNode>();
        m_listCapture.clear();
        return static_cast<long>(error.nPlace);
    }
}

referenceMatcher::outcome referenceMatcher::apply(const std::string& strText, long nAt, bool bGivenEnd) {
    run r{strText, m_bIgnoreCase, bGivenEnd};
    m_bFatalReference = false;
    try {
        return r.applyNode(*m_pRoot, nAt) != run::none ? matched : failed;
    } catch (const fatalStop& stop) {
        m_bFatalReference = stop.bReference;
        return fatal;
    } catch (const budgetStop&) {
        return tooLong;
    }
}

namespace {

template <class Fn>
void visit(referenceNode& node, const Fn& fn) {
    fn(node);
    for (auto& pMember : node.listMember)
        visit(*pMember, fn);
}

}  // namespace

void referenceMatcher::clear() {
    visit(*m_pRoot, [](referenceNode& node) { node.span = referenceSpan(); });
}

long referenceMatcher::end() const { return m_pRoot->span.nEnd; }

std::vector<referenceSpan> referenceMatcher::captures() const {
    std::vector<referenceSpan> listSpan;
    for (const referenceNode* p : m_listCapture)
        listSpan.push_back(p->span);
    return listSpan;
}

std::vector<referenceSpan> referenceMatcher::spans() const {
    std::vector<referenceSpan> listSpan;
    visit(*m_pRoot, [&](const referenceNode& node) { listSpan.push_back(node.span); });
    return listSpan;
}

std::vector<std::string> referenceMatcher::sources() const {
    std::vector<std::string> listText;
    visit(*m_pRoot, [&](const referenceNode& node) {
        listText.push_back(node.strSource + "{" + std::to_string(node.nMin) + "," +
                           (node.bUnlimited ? "-1" : std::to_string(node.nMax)) + "}" + node.chMode);
    });
    return listText;
}

}  // namespace qorTest
