// The registry: documents, their sections, their keys.
#include <cstddef>

#include "QORInspect/reader.h"
#include "qor/RegistryHelper/Store.h"

namespace QOR_InspectHelper {

using QOR_MsgQueueHelper::msgEntryPair;
using QOR_RegistryHelper::regDocument;
using QOR_RegistryHelper::regDocumentManager;
using QOR_RegistryHelper::regKey;
using QOR_RegistryHelper::regSection;

namespace {

constexpr uint32_t offsetHead = 8;  // of a list: after its handle and count

// The classes have members that their bases lack, for which the macro is only conditionally supported.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
constexpr uint32_t offsetDocuments = offsetof(regDocumentManager, m_lstDocument) + offsetHead;
constexpr uint32_t offsetSaver = offsetof(regDocumentManager, m_idSaverTask);

struct documentAt {
    static constexpr uint32_t sections = sizeLink + offsetof(regDocument, m_lstSection) + offsetHead;
    static constexpr uint32_t file = sizeLink + offsetof(regDocument, m_strFileName);
    static constexpr uint32_t changes = sizeLink + offsetof(regDocument, m_nChagedCount);
    static constexpr uint32_t size = sizeLink + sizeof(regDocument);
};

struct sectionAt {
    static constexpr uint32_t keys = sizeLink + offsetof(regSection, m_lstKey) + offsetHead;
    static constexpr uint32_t name = sizeLink + offsetof(regSection, m_strName);
    static constexpr uint32_t monitors = sizeLink + offsetof(regSection, m_lstMonitor) + offsetHead;
    static constexpr uint32_t changed = sizeLink + offsetof(regSection, m_bChanged);
    static constexpr uint32_t changes = sizeLink + offsetof(regSection, m_nChagedCount);
    static constexpr uint32_t size = sizeLink + sizeof(regSection);
};

struct keyAt {
    static constexpr uint32_t name = sizeLink + offsetof(regKey, m_strName);
    static constexpr uint32_t value = sizeLink + offsetof(regKey, m_strValue);
    static constexpr uint32_t changes = sizeLink + offsetof(regKey, m_nChagedCount);
    static constexpr uint32_t state = sizeLink + offsetof(regKey, m_bFresh);
    static constexpr uint32_t size = sizeLink + sizeof(regKey);
};

struct monitorAt {
    static constexpr uint32_t task = sizeLink + offsetof(msgEntryPair, m_idTask);
    static constexpr uint32_t processer = sizeLink + offsetof(msgEntryPair, m_uProcesser);
    static constexpr uint32_t size = sizeLink + sizeof(msgEntryPair);
};
#pragma GCC diagnostic pop

static_assert(offsetDocuments == 32 && offsetSaver == 40, "shared layout");

bool readKey(segmentReader& reader, uint32_t uAt, sectionView& section) {
    keyView key;
    const bool bTexts =
        reader.sharedText(uAt + keyAt::name, key.strName) && reader.sharedText(uAt + keyAt::value, key.strValue);
    key.nChanges = reader.number(uAt + keyAt::changes);
    // The record of a deleted key stays until the next save.
    if (reader.number(uAt + keyAt::state) != regKey::stateDeleted)
        section.keys.push_back(key);
    return bTexts;
}

bool readSection(segmentReader& reader, uint32_t uAt, documentView& document) {
    sectionView section;
    section.uHandle = uAt + sizeLink;
    section.bChanged = reader.word(uAt + sectionAt::changed) != 0;
    section.nChanges = reader.number(uAt + sectionAt::changes);
    bool bSound = reader.sharedText(uAt + sectionAt::name, section.strName);
    bSound &= reader.walk(uAt + sectionAt::keys, keyAt::size,
                          [&](uint32_t uKey, uint32_t) { bSound &= readKey(reader, uKey, section); });
    bSound &= reader.walk(uAt + sectionAt::monitors, monitorAt::size, [&](uint32_t u, uint32_t) {
        section.monitors.push_back({reader.number(u + monitorAt::task), reader.word(u + monitorAt::processer)});
    });
    document.sections.push_back(section);
    return bSound;
}

bool readDocument(segmentReader& reader, uint32_t uAt, registryView& view) {
    documentView document;
    document.uHandle = uAt + sizeLink;
    document.nChanges = reader.number(uAt + documentAt::changes);
    bool bSound = reader.sharedText(uAt + documentAt::file, document.strFile);
    bSound &= reader.walk(uAt + documentAt::sections, sectionAt::size,
                          [&](uint32_t u, uint32_t) { bSound &= readSection(reader, u, document); });
    view.documents.push_back(document);
    return bSound;
}

}  // namespace

registryView readRegistry(const segmentImage& image) {
    registryView view;
    segmentReader reader(image, segmentRegistry);
    if (reader.isBuilt()) {
        view.idSaver = reader.number(offsetSaver);
        bool bSound = true;
        bSound &= reader.walk(offsetDocuments, documentAt::size,
                              [&](uint32_t u, uint32_t) { bSound &= readDocument(reader, u, view); });
        if (!bSound)
            reader.fail(reader.failure(), problemText(reader.failure(), "documents"));
        else if (reader.takeChanged())
            reader.fail(viewChanging, problemText(viewChanging, "documents"));
    }
    static_cast<segmentView&>(view) = reader.finish();
    return view;
}

}  // namespace QOR_InspectHelper
