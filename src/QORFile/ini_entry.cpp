// The entries of INI documents: their memory, and keys.
#include "internal/byte_string.h"
#include "qor/FileHelper/Ini.h"

using QOR_AllocHelper::denseAlloc;

namespace QOR_FileHelper {

namespace {

// Callers chain look-ups, so an object may be null, whatever the compiler thinks of it.
bool isNullObject(const void* p) {
    const void* volatile pAny = p;
    return pAny == NULL;
}

}  // namespace

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
    const BOOL bWasFresh = m_bFresh;
    m_bFresh = 0;
    if (stringSame(m_strValue, text))
        return bWasFresh;
    m_strValue = text;
    return 1;
}

}  // namespace QOR_FileHelper
