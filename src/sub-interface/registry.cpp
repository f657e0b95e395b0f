// The flat functions over the registry. A handle is looked up before what it refers to is read; sections and documents
// are never freed. Each function holds the registry's lock for one look-up or change; texts are prepared before and
// warnings are printed after that.
#include <charconv>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include "internal/ini_text.h"
#include "internal/registry.h"
#include "internal/report.h"
#include "internal/safe_save.h"
#include "qor/MiscHelper.h"
#include "qor/MsgQueueHelper/ShareHelper.h"
#include "qor/flat.h"
#include "sub-interface/name_lines.h"

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

// ---- values, of the key of a section that is told as readKey() has it

template <class... Section>
BOOL readString(const char* lpszKey, char* lpszBuffer, const char* lpszDefault, Section... section) {
    if (!QOR_ASSERT(lpszBuffer != NULL))
        return 0;
    const auto copy = [lpszBuffer](const char* lpszValue) { copyText(lpszBuffer, lpszValue); };
    if (!readKey(QOR_MODULE, lpszKey, copy, section...))
        copy(textOf(lpszDefault));
    return 1;
}

template <class... Section>
int readInt(const char* lpszKey, int nDefault, Section... section) {
    int nValue = nDefault;
    readKey(
        QOR_MODULE, lpszKey, [&nValue](const char* lpszValue) { nValue = numberIn(lpszValue); }, section...);
    return nValue;
}

template <class... Section>
double readFloat(const char* lpszKey, double fDefault, Section... section) {
    double fValue = fDefault;
    readKey(
        QOR_MODULE, lpszKey,
        [&fValue](const char* lpszValue) { QOR_StringHelper::chReferenceStringT<char>(lpszValue) >> fValue; },
        section...);
    return fValue;
}

// ---- documents

// The document of a file with the registry's lock; null when there is neither a document nor a file. A name that no
// file has makes no document, which would stay for good.
class existingDocument {
public:
    explicit existingDocument(const char* lpszFileName) {
        if (isThere(lpszFileName))
            m_lock.emplace(lpszFileName);
    }
    const regDocument* get() const { return m_lock ? m_lock->m_pDocument : NULL; }

private:
    static bool isThere(const char* lpszFileName) {
        if (!QOR_ASSERT_TEXT(!QOR_StringHelper::textEMPTY(lpszFileName), "!textEMPTY(lpszFileName)"))
            return false;
        {
            const registryLock hold;
            if (hold.getObject()->FindDocumentObject(lpszFileName) != NULL)
                return true;
        }
        return QOR_FileHelper::hasSavedFile(lpszFileName);
    }

    std::optional<documentLock> m_lock;
};

}  // namespace

std::vector<std::string> sectionNames(const regDocument& document) {
    std::vector<std::string> listName;
    document.m_lstSection.ForEach([&](const regSection& section) {
        if (section.HasKeys())
            listName.push_back(static_cast<const char*>(section.m_strName));
    });
    return listName;
}

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
    return readString(lpszKey, lpszBuffer, lpszDefault, numberOf(hRegistry));
}

int registryGetStringN(HREGISTRY hRegistry, const char* lpszKey, char* lpszBuffer, int nSize, const char* lpszDefault) {
    int nLength = 0;
    const auto copy = [&](const char* lpszValue) { nLength = copyTextN(lpszBuffer, nSize, lpszValue); };
    if (!readKey(QOR_MODULE, lpszKey, copy, numberOf(hRegistry)))
        nLength = copyTextN(lpszBuffer, nSize, textOf(lpszDefault));
    return nLength;
}

int registryGetInt(HREGISTRY hRegistry, const char* lpszKey, int nDefault) {
    return readInt(lpszKey, nDefault, numberOf(hRegistry));
}

double registryGetFloat(HREGISTRY hRegistry, const char* lpszKey, double fDefault) {
    return readFloat(lpszKey, fDefault, numberOf(hRegistry));
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

BOOL registrySetFloatExact(HREGISTRY hRegistry, const char* lpszKey, double fValue) {
    char szValue[64];
    *std::to_chars(szValue, szValue + sizeof(szValue) - 1, fValue).ptr = 0;
    return registrySetString(hRegistry, lpszKey, szValue);
}

int registryTrySetString(HREGISTRY hRegistry, const char* lpszKey, const char* lpszValue) {
    const phraseConstTextA name(lpszKey), text(lpszValue);
    const additionLock hold;
    regSection* pSection = hold.GetSection(numberOf(hRegistry));
    return pSection != NULL ? pSection->TrySetKeyValue(name, text) : regSetNoSection;
}

const char* registryGetErrorText(int nResult) {
    switch (nResult) {
        case REGISTRY_SET_CHANGED:
            return "changed";
        case REGISTRY_SET_SAME:
            return "the key has that value already";
        case REGISTRY_NO_SECTION:
            return "there is no such section";
        case REGISTRY_BAD_SECTION:
            return QOR_FileHelper::whyNoSectionName(constText("]"));
        case REGISTRY_BAD_KEY:
            return "the name of a key has no line feed, NUL or '=' and does not begin with ';', '#' or '['";
        case REGISTRY_BAD_VALUE:
            return QOR_FileHelper::whyNoValue(constText("\n"));
        case REGISTRY_NO_ROOM:
            return "the registry has no room left";
        default:
            return "unknown result";
    }
}

// ---- what there is, and removing it

BOOL registryHasKey(HREGISTRY hRegistry, const char* lpszKey) {
    const phraseConstTextA name(lpszKey);
    const registryLock hold;
    const regSection* pSection = hold.GetSection(numberOf(hRegistry));
    return pSection != NULL && pSection->FindKeyObject(name) != NULL;
}

int registryListKeys(HREGISTRY hRegistry, char* lpszBuffer, int nSize) {
    std::vector<std::string> listName;
    {
        const registryLock hold;
        if (const regSection* pSection = hold.GetSection(numberOf(hRegistry)))
            pSection->m_lstKey.ForEach([&](const regKey& key) {
                if (!key.IsDeleted())
                    listName.push_back(static_cast<const char*>(key.m_strName));
            });
    }
    return listNames(listName, lpszBuffer, nSize);
}

BOOL registryDeleteKey(HREGISTRY hRegistry, const char* lpszKey) {
    const phraseConstTextA name(lpszKey);
    const registryLock hold;
    regSection* pSection = hold.GetSection(numberOf(hRegistry));
    return pSection != NULL && pSection->DeleteKey(name);
}

BOOL registryHasSection(const char* lpszFileName, const char* lpszSectionName) {
    const phraseConstTextA name(lpszSectionName);
    const existingDocument document(lpszFileName);
    const regSection* pSection = document.get() != NULL ? document.get()->FindSectionObject(name) : NULL;
    return pSection != NULL && pSection->HasKeys();
}

int registryListSections(const char* lpszFileName, char* lpszBuffer, int nSize) {
    std::vector<std::string> listName;
    {
        const existingDocument document(lpszFileName);
        if (document.get() != NULL)
            listName = sectionNames(*document.get());
    }
    return listNames(listName, lpszBuffer, nSize);
}

// Each key is a few stores, and a hold is to be short.
BOOL registryDeleteSection(HREGISTRY hRegistry) {
    constexpr int keysAtOnce = 16;
    int nDeleted = 0;
    for (int nNow = keysAtOnce; nNow == keysAtOnce; nDeleted += nNow) {
        const registryLock hold;
        regSection* pSection = hold.GetSection(numberOf(hRegistry));
        nNow = pSection != NULL ? pSection->DeleteKeys(keysAtOnce) : 0;
    }
    return nDeleted > 0;
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
    return readString(lpszKey, lpszBuffer, lpszDefault, lpszFileName, lpszSectionName);
}

int qorGetRegistryInt(const char* lpszFileName, const char* lpszSectionName, const char* lpszKey, int nDefault) {
    return readInt(lpszKey, nDefault, lpszFileName, lpszSectionName);
}

double qorGetRegistryFloat(const char* lpszFileName, const char* lpszSectionName, const char* lpszKey,
                           double fDefault) {
    return readFloat(lpszKey, fDefault, lpszFileName, lpszSectionName);
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
