// A registry whose segment was overwritten at random: every operation ends in a result or a fatal assertion, never in a
// wild access or an endless loop. QOR_TEST_TIMES=N tries N times as many damages.
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <random>

#include "support/damage.h"
#include "support/message_thread.h"
#include "support/registry.h"
#include "support/scale.h"

using namespace QOR_RegistryHelper;
using namespace qorTest;
using QOR_MsgQueueHelper::msgObject;

namespace {

const char* const s_aFile[] = {"/tmp/damage/a.ini", "/tmp/damage/b.ini", "/tmp/damage/new.ini"};
const char* const s_aSection[] = {"net", "audio", "a rather long name of a section", "new"};
const char* const s_aKey[] = {"port", "level", "name", "a rather long name of a key", "new"};

// Random operations of one process on the registry.
class worker {
public:
    worker(std::mt19937& random, std::vector<HREGISTRY> listHandle)
        : m_random(random), m_listHandle(listHandle), m_thread("worker", [](msgObject&) { return 0; }) {}

    void Do() {
        switch (m_random() % 14) {
            case 0:
                m_listHandle.push_back(registryOpen(any(s_aFile), any(s_aSection)));
                break;
            case 1:
            case 2:
                registryGetStringN(handle(), any(s_aKey), m_aText, sizeof(m_aText), "default");
                break;
            case 3:
                registryGetInt(handle(), any(s_aKey), 1);
                break;
            case 4:
            case 5:
                registrySetString(handle(), any(s_aKey), std::string(m_random() % 80, 'v').c_str());
                break;
            case 6:
                registrySetInt(handle(), any(s_aKey), static_cast<int>(m_random()));
                break;
            case 7:
                registryFlush(handle());
                break;
            case 8:
                regSaveRegistryDocument(handle());
                break;
            case 9:
                regMonitorSection(handle());
                break;
            case 10:
                regUnmonitorSection(handle());
                break;
            case 11:
                m_random() % 2 ? registryRegistSaver() : registryUnregistSaver();
                break;
            case 12:
                watch();
                break;
            default:
                clear();
        }
        while (m_thread.ProcessOneMessageFromQueue() != 0) {
        }
    }

private:
    template <class T, size_t N>
    T any(T (&a)[N]) {
        return a[m_random() % N];
    }
    HREGISTRY handle() { return m_listHandle[m_random() % m_listHandle.size()]; }

    void watch() {
        chRegistryMonitor monitor;
        const char* const lpszFile = any(s_aFile);
        const char* const lpszSection = any(s_aSection);
        monitor.MonitorSection(lpszFile, lpszSection, NULL, NULL);
        registryFlush(handle());
        monitor.UnmonitorSection(lpszFile, lpszSection);
        monitor.UnmonitorAllSection();
    }
    // Frees the document that a process was making when it died.
    void clear() {
        registryHelper().Lock(-1);
        regDocumentManager* const pRoot = registryHelper().getObject();
        if (m_random() % 2)
            pRoot->ClearLostDocument();
        else if (regDocument* pDocument = pRoot->m_lstDocument.LastObject())
            pDocument->ClearSections();
        registryHelper().Unlock();
    }

    std::mt19937& m_random;
    std::vector<HREGISTRY> m_listHandle;
    currentThread m_thread;
    static inline char m_aText[regDocumentManager::segmentSize];
};

class DamagedRegistry : public testing::Test {
protected:
    DamagedRegistry() {
        mkdir("/tmp/damage", 0777);
        if (chdir("/tmp/damage") != 0)
            abort();
        testing::internal::CaptureStderr();  // new keys are warnings
        Build();
        testing::internal::GetCapturedStderr();
        m_pBegin = reinterpret_cast<char*>(registryHelper().getObject());
        m_strImage.assign(m_pBegin, regDocumentManager::segmentSize);
        m_nUsed = m_strImage.find_last_not_of('\0');
        Guard(m_pBegin - sizeGuard);
        Guard(m_pBegin + regDocumentManager::segmentSize);
    }
    ~DamagedRegistry() override { Restore(); }

    void Restore() { memcpy(m_pBegin, m_strImage.data(), m_strImage.size()); }

    int DamageAndUse(unsigned uSeed) {
        std::mt19937 random(uSeed);
        worker objWorker(random, m_listHandle);
        for (int i = 0; i < 40; ++i) {
            if (i % 20 == 5)
                damageSegment(random, m_pBegin, regDocumentManager::segmentSize,
                              random() % 8 ? m_nUsed : regDocumentManager::segmentSize);
            objWorker.Do();
        }
        return 0;
    }

private:
    static constexpr size_t sizeGuard = 65536;

    // Documents with changes, monitors of living and dead tasks, and one that its maker did not finish.
    void Build() {
        for (int iFile = 0; iFile < 2; ++iFile)
            for (int iSection = 0; iSection < 3; ++iSection) {
                const HREGISTRY hRegistry = registryOpen(s_aFile[iFile], s_aSection[iSection]);
                m_listHandle.push_back(hRegistry);
                regMonitorSection(hRegistry);
                for (int iKey = 0; iKey < 4; ++iKey)
                    registrySetString(hRegistry, s_aKey[iKey], std::string(static_cast<size_t>(iKey) * 9, 'x').c_str());
                childProcess("ghost", [=] { return regMonitorSection(hRegistry) ? 0 : 1; }).wait();
            }
        registryHelper().Lock(-1);
        regDocumentManager* const pRoot = registryHelper().getObject();
        regDocument* const pLost = pRoot->m_lstDocument.AppendObject(
            [pRoot](regDocument& document) { return document.InitDocument(&pRoot->m_objPool), true; });
        for (const char* lpszSection : s_aSection)
            for (const char* lpszKey : s_aKey)
                pLost->GetSectionObject(lpszSection)->AppendKey(lpszKey, "value");
        registryHelper().Unlock();
    }

    // An access outside the segment is a signal, unless something else of the process is mapped there.
    static void Guard(char* p) {
        mmap(p, sizeGuard, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    }

    std::vector<HREGISTRY> m_listHandle;
    char* m_pBegin;
    std::string m_strImage;
    size_t m_nUsed;
};

TEST_F(DamagedRegistry, EveryOperationEndsInAResultOrAnAssertion) {
    int nAsserted = 0;
    const int nSeeds = scaled(600);
    for (int iSeed = 0; iSeed < nSeeds; ++iSeed) {
        const auto end = endingOf("damaged registry " + std::to_string(iSeed),
                                  [&] { return DamageAndUse(static_cast<unsigned>(iSeed)); });
        nAsserted += end.asserted();
        ASSERT_TRUE(end.nStatus == 0 || end.asserted())
            << "seed " << iSeed << ": " << end.nStatus << " " << end.strReport;
        Restore();
    }
    EXPECT_GT(nAsserted, nSeeds / 10);
    EXPECT_LT(nAsserted, nSeeds);
    printf("%d of %d damaged registries ended in an assertion\n", nAsserted, nSeeds);
}

}  // namespace
