// The flat functions over the registry. A handle is looked up before what it refers to is read; sections and documents
// are never freed. Each function holds the registry's lock for one look-up or change; texts are prepared before and
// warnings are printed after that.
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include "internal/ini_text.h"
#include "internal/registry.h"
#include "internal/report.h"
#include "qor/MiscHelper.h"
#include "qor/MsgQueueHelper/ShareHelper.h"
#include "qor/flat.h"

using namespace QOR_RegistryHelper;
using QOR_FileHelper::constText;
using QOR_MiscHelper::qorGetCurrentTaskId;

namespace {

uintptr_t numberOf(HREGISTRY hRegistry) { return reinterpret_cast<uintptr_t>(hRegistry); }

HREGISTRY handleOf(const void* pObject) { return reinterpret_cast<HREGISTRY>(registry().GetHandle(pObject)); }

// The document of the section of a handle, or null.
regDocument* hostDocument(HREGISTRY hRegistry) {
    const registryLock hold;
    const regSection* pSection = hold.GetSection(numberOf(hRegistry));
    return pSection != NULL ? pSection->GetHostDocument() : NULL;
}

// The document of a handle of its own, or null.
regDocument* documentOf(HREGISTRY hDocument) {
    const registryLock hold;
    return hold.GetDocument(numberOf(hDocument));
}

// A name as the registry takes it, without the warning of white space that is cut off.
constText trimmedText(const char* lpszText) {
    lpszText = textOf(lpszText);
    return QOR_FileHelper::trimmed(lpszText, lpszText + strlen(lpszText));
}

// Copies the whole text, which may be in the buffer already.
void copyText(char* lpszBuffer, const char* lpszText) { memmove(lpszBuffer, lpszText, strlen(lpszText) + 1); }

// Copies as much of the text as fits, terminated. Returns the length of the whole text.
int copyTextN(char* lpszBuffer, int nSize, const char* lpszText) {
    const size_t nLength = strlen(lpszText);
    if (lpszBuffer != NULL && nSize > 0) {
        const size_t nCopy = nLength < static_cast<size_t>(nSize) ? nLength : static_cast<size_t>(nSize) - 1;
        memmove(lpszBuffer, lpszText, nCopy);
        lpszBuffer[nCopy] = 0;
    }
    return static_cast<int>(nLength);
}

// The decimal number that a text begins with, clamped to an int; 0 when there is none.
int numberIn(const char* lpszText) {
    const long long nValue = strtoll(lpszText, NULL, 10);
    return nValue > INT_MAX ? INT_MAX : nValue < INT_MIN ? INT_MIN : static_cast<int>(nValue);
}

}  // namespace

extern "C" {

// ---- handles

HREGISTRY regSection2HANDLE(void* pSection) { return handleOf(pSection); }

void* regHANDLE2Section(HREGISTRY hRegistry) {
    const registryLock hold;
    return hold.GetSection(numberOf(hRegistry));
}

// ---- values

HREGISTRY registryOpen(const char* lpszFileName, const char* lpszSectionName) {
    const phraseConstTextA name(lpszSectionName);
    const documentLock hold(lpszFileName);
    return hold.m_pDocument != NULL ? handleOf(hold.m_pDocument->GetSectionObject(name)) : NULL;
}

BOOL registryGetString(HREGISTRY hRegistry, const char* lpszKey, char* lpszBuffer, const char* lpszDefault) {
    if (!QOR_ASSERT(lpszBuffer != NULL))
        return 0;
    if (!readKey(QOR_MODULE, numberOf(hRegistry), lpszKey,
                 [lpszBuffer](const char* lpszValue) { copyText(lpszBuffer, lpszValue); }))
        copyText(lpszBuffer, textOf(lpszDefault));
    return 1;
}

int registryGetStringN(HREGISTRY hRegistry, const char* lpszKey, char* lpszBuffer, int nSize, const char* lpszDefault) {
    int nLength = 0;
    if (!readKey(QOR_MODULE, numberOf(hRegistry), lpszKey,
                 [&](const char* lpszValue) { nLength = copyTextN(lpszBuffer, nSize, lpszValue); }))
        nLength = copyTextN(lpszBuffer, nSize, textOf(lpszDefault));
    return nLength;
}

int registryGetInt(HREGISTRY hRegistry, const char* lpszKey, int nDefault) {
    int nValue = nDefault;
    readKey(QOR_MODULE, numberOf(hRegistry), lpszKey,
            [&nValue](const char* lpszValue) { nValue = numberIn(lpszValue); });
    return nValue;
}

double registryGetFloat(HREGISTRY hRegistry, const char* lpszKey, double fDefault) {
    double fValue = fDefault;
    readKey(QOR_MODULE, numberOf(hRegistry), lpszKey,
            [&fValue](const char* lpszValue) { QOR_StringHelper::chReferenceStringT<char>(lpszValue) >> fValue; });
    return fValue;
}

BOOL registrySetString(HREGISTRY hRegistry, const char* lpszKey, const char* lpszValue) {
    const phraseConstTextA name(lpszKey), text(lpszValue);
    std::string strWarning;
    BOOL bChanged = 0;
    {
        const additionLock hold;
        regSection* pSection = hold.GetSection(numberOf(hRegistry));
        if (pSection == NULL)
            return 0;
        bChanged = pSection->SetKeyValue(name, text, strWarning);
    }
    QOR_WARN_TEXT(strWarning.empty(), strWarning.c_str());
    return bChanged;
}

BOOL registrySetInt(HREGISTRY hRegistry, const char* lpszKey, int nValue) {
    return registrySetString(hRegistry, lpszKey, QOR_StringHelper::toString(nValue));
}

BOOL registrySetFloat(HREGISTRY hRegistry, const char* lpszKey, double fValue) {
    return registrySetString(hRegistry, lpszKey, QOR_StringHelper::toString(fValue));
}

// ---- flushing and saving

BOOL registryFlush(HREGISTRY hRegistry) {
    regDocument* pDocument = hostDocument(hRegistry);
    return pDocument != NULL ? registryFlush(pDocument) : 0;
}

BOOL regSaveRegistryDocument(HREGISTRY hRegistry) {
    regDocument* pDocument = hostDocument(hRegistry);
    return pDocument != NULL ? regSaveRegistryDocument(pDocument) : registrySaveDocument(hRegistry);
}

BOOL registrySaveDocument(HREGISTRY hDocument) { return regSaveRegistryDocument(documentOf(hDocument)); }

BOOL registryRegistSaver(void) {
    const QOR_MsgQueueHelper::chThreadLocal* pLocalThread =
        QOR_MsgQueueHelper::uCSystemShareHelpergetGlobalObject()->GetProcessLocal().GetCurrentThreadObject();
    if (!QOR_ASSERT(pLocalThread != NULL))
        return 0;
    appointSaver(pLocalThread->getTaskId());
    return 1;
}

BOOL registryUnregistSaver(void) { return dismissSaver(qorGetCurrentTaskId()); }

// ---- monitors

BOOL regMonitorSection(HREGISTRY hRegistry) {
    const additionLock hold;
    regSection* pSection = hold.GetSection(numberOf(hRegistry));
    return pSection != NULL && pSection->AddMonitorTask(qorGetCurrentTaskId(), NULL, NULL) != NULL;
}

BOOL regUnmonitorSection(HREGISTRY hRegistry) {
    const registryLock hold;
    regSection* pSection = hold.GetSection(numberOf(hRegistry));
    if (pSection == NULL)
        return 0;
    pSection->RemoveMonitorTask(qorGetCurrentTaskId(), NULL, NULL);
    return 1;
}

// ---- by file name

BOOL qorGetRegistryString(const char* lpszFileName, const char* lpszSectionName, const char* lpszKey, char* lpszBuffer,
                          const char* lpszDefault) {
    return registryGetString(registryOpen(lpszFileName, lpszSectionName), lpszKey, lpszBuffer, lpszDefault);
}

int qorGetRegistryInt(const char* lpszFileName, const char* lpszSectionName, const char* lpszKey, int nDefault) {
    return registryGetInt(registryOpen(lpszFileName, lpszSectionName), lpszKey, nDefault);
}

double qorGetRegistryFloat(const char* lpszFileName, const char* lpszSectionName, const char* lpszKey,
                           double fDefault) {
    return registryGetFloat(registryOpen(lpszFileName, lpszSectionName), lpszKey, fDefault);
}

BOOL qorSetRegistryString(const char* lpszFileName, const char* lpszSectionName, const char* lpszKey,
                          const char* lpszValue) {
    // Refused before the section is made: it would stay in the registry for good.
    const constText section = trimmedText(lpszSectionName);
    if (const char* lpszWhy = QOR_FileHelper::whyNoSectionName(section)) {
        QOR_WARN_TEXT(false, QOR_FileHelper::refusal(section, trimmedText(lpszKey), lpszWhy).c_str());
        return 0;
    }
    const HREGISTRY hRegistry = registryOpen(lpszFileName, lpszSectionName);
    const BOOL bChanged = registrySetString(hRegistry, lpszKey, lpszValue);
    registryFlush(hRegistry);
    return bChanged;
}

BOOL qorSetRegistryInt(const char* lpszFileName, const char* lpszSectionName, const char* lpszKey, int nValue) {
    return qorSetRegistryString(lpszFileName, lpszSectionName, lpszKey, QOR_StringHelper::toString(nValue));
}

BOOL qorSetRegistryFloat(const char* lpszFileName, const char* lpszSectionName, const char* lpszKey, double fValue) {
    return qorSetRegistryString(lpszFileName, lpszSectionName, lpszKey, QOR_StringHelper::toString(fValue));
}

}  // extern "C"
