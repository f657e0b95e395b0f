#include "support/reference_compare.h"

namespace qorTest {

void referenceCompare::addAlias(const std::string& strName, const std::string& strPattern) {
    m_express.AddCustomAlias(strName.c_str(), strPattern.c_str());
    m_reference.addAlias(strName, strPattern);
}

bool referenceCompare::build(const std::string& strPattern, bool bIgnoreCase) {
    m_strPattern = strPattern + (bIgnoreCase ? " (ignore case)" : "");
    m_strText.clear();
    const long nPlace = m_reference.build(strPattern, bIgnoreCase);
    const char* lpszError = m_express.BuildRegularExpress(strPattern.c_str(), bIgnoreCase ? 1 : 0);
    const long nError = lpszError != NULL ? static_cast<long>(lpszError - strPattern.c_str()) : -1;
    if (nError != nPlace)
        differ("error at " + std::to_string(nError) + ", expected " + std::to_string(nPlace));
    std::vector<std::string> listSpan, listSource;
    visit(&m_express, listSpan, listSource);
    if (nPlace < 0 && listSource != m_reference.sources())
        differ("another tree");
    return nPlace < 0 && nError < 0;
}

void referenceCompare::setText(const std::string& strText) {
    // The buffer is kept, so that remembered positions stay valid from call to call.
    if (m_strBuffer.empty() || strText != m_strText) {
        m_strText = strText;
        m_strBuffer = strText + std::string(strText.size() + 8, '\0');
        clear();
    }
}

referenceMatcher::outcome referenceCompare::apply(const std::string& strText, long nAt, bool bGivenEnd) {
    setText(strText);
    const referenceMatcher::outcome eExpected = m_reference.apply(strText, nAt, bGivenEnd);
    if (eExpected == referenceMatcher::fatal || eExpected == referenceMatcher::tooLong) {
        if (m_reference.isFatalReference() && m_express.FindFatalReference() == 0)
            differ("a fatal reference that was not foreseen");
        clear();
        return eExpected;
    }
    const char* lpszText = m_strBuffer.c_str();
    const char* lpszEnd = m_express.ApplyREOnText(lpszText + nAt, bGivenEnd ? lpszText + strText.size() : NULL);
    const long nEnd = lpszEnd != NULL ? static_cast<long>(lpszEnd - lpszText) : -1;
    if (nEnd != m_reference.end())
        differ("at " + std::to_string(nAt) + " end " + std::to_string(nEnd) + ", expected " +
               std::to_string(m_reference.end()));
    compareSpans("apply");
    return eExpected;
}

referenceMatcher::outcome referenceCompare::search(const std::string& strText, bool bGivenEnd) {
    setText(strText);
    referenceMatcher::outcome eExpected = referenceMatcher::failed;
    long nAt = 0;
    for (; nAt <= static_cast<long>(strText.size()); ++nAt) {
        m_reference.clear();
        eExpected = m_reference.apply(strText, nAt, bGivenEnd);
        if (eExpected != referenceMatcher::failed)
            break;
    }
    if (eExpected == referenceMatcher::fatal || eExpected == referenceMatcher::tooLong) {
        if (m_reference.isFatalReference() && m_express.FindFatalReference() == 0)
            differ("a fatal reference that was not foreseen");
        clear();
        return eExpected;
    }
    const char* lpszText = m_strBuffer.c_str();
    const char* lpszFound = m_express.SearchREOnText(lpszText, bGivenEnd ? lpszText + strText.size() : NULL);
    const long nFound = lpszFound != NULL ? static_cast<long>(lpszFound - lpszText) : -1;
    if (nFound != (eExpected == referenceMatcher::matched ? nAt : -1))
        differ("found at " + std::to_string(nFound) + ", expected " + std::to_string(nAt));
    compareSpans("search");
    clear();
    return eExpected;
}

void referenceCompare::clear() {
    m_reference.clear();
    m_express.ClearResult();
}

void referenceCompare::compareSpans(const char* lpszWhat) {
    std::vector<std::string> listSpan, listExpected, listSource;
    visit(&m_express, listSpan, listSource);
    for (const referenceSpan& span : m_reference.spans())
        listExpected.push_back(spanText(span.nBegin, span.nEnd));
    if (listSpan.size() != listExpected.size())
        differ("another number of nodes");
    for (size_t i = 0; i < listSpan.size() && i < listExpected.size(); ++i)
        if (listSpan[i] != listExpected[i])
            differ(std::string(lpszWhat) + ": " + listSource[i] + " has " + listSpan[i] + ", expected " +
                   listExpected[i]);
    const std::vector<referenceSpan> listCapture = m_reference.captures();
    if (m_express.m_arrCaptureREs.GetSize() != static_cast<int>(listCapture.size()))
        differ("another number of captures");
    for (size_t i = 0; i < listCapture.size(); ++i) {
        const node* p = m_express.GetCaptureRE(static_cast<int>(i) + 1);
        const long nBegin = p->m_lpszResultBegin != NULL ? p->m_lpszResultBegin - m_strBuffer.c_str() : -1;
        const long nEnd = p->m_lpszResultEnd != NULL ? p->m_lpszResultEnd - m_strBuffer.c_str() : -1;
        if (nBegin != listCapture[i].nBegin || nEnd != listCapture[i].nEnd)
            differ("another capture " + std::to_string(i + 1));
    }
}

void referenceCompare::differ(const std::string& strWhat) {
    if (m_strDifference.empty())
        m_strDifference = "pattern <" + m_strPattern + "> text <" + m_strText + ">: " + strWhat;
}

std::string referenceCompare::spanText(long nBegin, long nEnd) const {
    return std::to_string(nBegin) + ".." + std::to_string(nEnd);
}

void referenceCompare::visit(node* p, std::vector<std::string>& listSpan, std::vector<std::string>& listSource) const {
    const char* lpszText = m_strBuffer.c_str();
    listSpan.push_back(spanText(p->m_lpszResultBegin != NULL ? p->m_lpszResultBegin - lpszText : -1,
                                p->m_lpszResultEnd != NULL ? p->m_lpszResultEnd - lpszText : -1));
    listSource.push_back(static_cast<const char*>(p->m_strREText) + ("{" + std::to_string(p->m_nMinTimes)) + "," +
                         std::to_string(p->m_nMaxTimes) + "}" + static_cast<char>(p->m_chRepeatMode));
    if ((p->m_uTraits & QOR_RegularExpressHelper::traitGroup) == 0)
        return;
    group* pGroup = static_cast<group*>(p);
    for (int i = 0; i < pGroup->GetChildRECount(); ++i)
        visit(pGroup->m_arrTargetREs[i], listSpan, listSource);
}

}  // namespace qorTest
