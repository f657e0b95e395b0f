// The entries of INI documents: their memory, and keys.
#include <string.h>

#include "internal/byte_string.h"
#include "internal/ini_text.h"
#include "internal/report.h"
#include "qor/FileHelper/Ini.h"

using QOR_AllocHelper::denseAlloc;

namespace QOR_FileHelper {

namespace {

// Callers chain look-ups, so an object may be null, whatever the compiler thinks of it.
bool isNullObject(const void* p) {
    const void* volatile pAny = p;
    return pAny == NULL;
}

// A string keeps a name up to its first NUL only.
bool isWritableName(iniLineType eType, const phraseConstTextA& name) {
    if (name.IsEmpty())
        return true;
    const constText kept(name, static_cast<int>(strnlen(name, static_cast<size_t>(name.GetLength()))));
    switch (eType) {
        case iniLineSection:
            return whyNoSectionName(kept) == NULL;
        case iniLineKey:
            return whyNoKeyName(kept) == NULL;
        default:
            return true;
    }
}

}  // namespace

iniObject::iniObject(iniLineType eType, const phraseConstTextA& name)
    : m_eType(eType), m_bWritable(isWritableName(eType, name)), m_strKey(name) {}

// ---- memory

void* iniObject::operator new(size_t nSize) { return ::operator new(nSize); }

void* iniObject::operator new(size_t nSize, const std::nothrow_t& r) noexcept { return ::operator new(nSize, r); }

void iniObject::operator delete(void* p) {
    if (denseAlloc::owns(p))
        denseAlloc::free(p);
    else
        ::operator delete(p);
}

// ---- keys

const char* iniKey::value() const { return isNullObject(this) ? NULL : static_cast<const char*>(m_strValue); }

refString iniKey::GetValue(const char* lpszDefault) const {
    return refString(isNullObject(this) ? lpszDefault : static_cast<const char*>(m_strValue));
}

BOOL iniKey::SetValue(const phraseConstTextA& text) {
    const char* lpszWhy = m_bWritable ? whyNoValue(text) : whyNoKeyName(viewOf(key()));
    if (lpszWhy != NULL) {
        QOR_WARN_TEXT(false, refusal(constText(), viewOf(key()), lpszWhy).c_str());
        return 0;
    }
    const BOOL bWasFresh = m_bFresh;
    m_bFresh = 0;
    if (stringSame(m_strValue, text))
        return bWasFresh;
    m_strValue = text;
    return 1;
}

}  // namespace QOR_FileHelper
