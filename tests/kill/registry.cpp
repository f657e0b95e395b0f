#include <stdio.h>
#include <unistd.h>

#include <string>

#include "kill/operations.h"
#include "kill/use.h"
#include "qor/RegistryHelper.h"
#include "qor/flat.h"

namespace qorTest {

namespace {

const char szFile[] = "/tmp/home/kill.ini";

HREGISTRY openSection() { return registryOpen(szFile, "section"); }

void writeFile() {
    FILE* const f = fopen(szFile, "w");
    fputs("[section]\nfirst=1\nsecond=a longer value, to be sure\n[other]\nthird=3\nfourth=\n", f);
    fclose(f);
}

int onChange(simpMSG* pMsg) { return pMsg->uMsg == TM_THREAD_IDLE ? 0 : -1; }

// What the survivor may read: any of the values between bars.
std::function<void()> expectValue(const std::string& strValues) {
    return [strValues] {
        char sz[200] = "";
        registryGetString(openSection(), "key", sz, "none");
        if (("|" + strValues + "|").find("|" + std::string(sz) + "|") == std::string::npos)
            failSurvivor("the value is " + std::string(sz));
    };
}

const char szLong[] = "a value that needs a much longer block than the one before it";

void prepareValue(const char* lpszValue) {
    HREGISTRY hSection = openSection();
    registrySetString(hSection, "key", lpszValue);
    registryFlush(hSection);
}

void set(const char* lpszValue) { registrySetString(openSection(), "key", lpszValue); }

// What a process leaves that dies between making a document and naming it.
void makeLostDocument(const killPeer&) {
    using namespace QOR_RegistryHelper;
    uCRegistryHelper* const pHelper = uCRegistryHelpergetGlobalObject();
    pHelper->Lock(-1);
    regDocumentManager* const pManager = pHelper->getObject();
    regDocument* const pDocument = pManager->m_lstDocument.AppendObject(
        [pManager](regDocument& document) { return document.InitDocument(&pManager->m_objPool), true; });
    pDocument->GetSectionObject(phraseConstTextA("lost"))->GetKeyObject("key")->SetValue("value");
    pHelper->Unlock();
}

void addDocuments(std::vector<killOperation>& list) {
    list.push_back({"registry document, create", nullptr, nullptr, [](const killPeer&) { openSection(); }, nullptr});
    list.push_back({"registry document, load", [](const killPeer&) { writeFile(); }, nullptr,
                    [](const killPeer&) { openSection(); }, nullptr});
    list.push_back({"registry document, beside a lost one", makeLostDocument, nullptr,
                    [](const killPeer&) { openSection(); }, nullptr});
    list.push_back({"registry section, create", [](const killPeer&) { registryOpen(szFile, "other"); }, nullptr,
                    [](const killPeer&) { openSection(); }, nullptr});
    list.push_back({"registry key, create", [](const killPeer&) { openSection(); }, nullptr,
                    [](const killPeer&) { set("short"); }, expectValue("none|short")});
    list.push_back({"registry value, longer", [](const killPeer&) { prepareValue("short"); }, nullptr,
                    [](const killPeer&) { set(szLong); }, expectValue(std::string("short|") + szLong)});
    list.push_back({"registry value, shorter", [](const killPeer&) { prepareValue(szLong); }, nullptr,
                    [](const killPeer&) { set("short"); }, expectValue(std::string("short|") + szLong)});
}

void beMonitor() {
    msgRegistMainThread("victim", onChange);
    handleAll();
}

void addMonitors(std::vector<killOperation>& list) {
    const auto fnPrepare = [](const killPeer&) { prepareValue("short"); };
    const auto fnMonitor = [](const killPeer&) {
        beMonitor();
        regMonitorSection(openSection());
    };
    list.push_back({"registry monitor, add", fnPrepare, [](const killPeer&) { beMonitor(); },
                    [](const killPeer&) { regMonitorSection(openSection()); }, nullptr});
    list.push_back({"registry monitor, remove", fnPrepare, fnMonitor,
                    [](const killPeer&) { regUnmonitorSection(openSection()); }, nullptr});
    list.push_back({"registry monitor, beside a ghost's",
                    [](const killPeer&) {
                        prepareValue("short");
                        beMonitor();
                        regMonitorSection(openSection());
                    },
                    [](const killPeer&) { beMonitor(); }, [](const killPeer&) { regMonitorSection(openSection()); },
                    nullptr});
    list.push_back({"registry flush, with a monitor", fnPrepare,
                    [fnMonitor](const killPeer& peer) {
                        fnMonitor(peer);
                        set("changed");
                    },
                    [](const killPeer&) { registryFlush(openSection()); }, expectValue("short|changed")});
}

// A section that is long enough for the index.
void prepareLongSection() {
    FILE* const f = fopen(szFile, "w");
    fputs("[section]\nkey=first\n", f);
    for (int i = 0; i < 20; ++i)
        fprintf(f, "key%d=%d\n", i, i);
    fclose(f);
    registryFlush(openSection());
}

// What was freed is found by nobody, and what the kill brought back by all.
void addDeletions(std::vector<killOperation>& list) {
    list.push_back({"registry key, delete and free", [](const killPeer&) { prepareLongSection(); },
                    [](const killPeer&) { registryDeleteKey(openSection(), "key"); },
                    [](const killPeer&) {
                        regSaveRegistryDocument(openSection());
                        set("second");
                    },
                    expectValue("none|second")});
}

void addSaves(std::vector<killOperation>& list) {
    list.push_back({"registry save", [](const killPeer&) { prepareValue("short"); },
                    [](const killPeer&) { set("changed"); },
                    [](const killPeer&) { regSaveRegistryDocument(openSection()); }, expectValue("changed")});
    list.push_back({"registry saver, come and go", [](const killPeer&) { prepareValue("short"); },
                    [](const killPeer&) { beMonitor(); },
                    [](const killPeer&) {
                        registryRegistSaver();
                        registryUnregistSaver();
                    },
                    nullptr});
    list.push_back({"registry flush, through the saver", [](const killPeer&) { prepareValue("short"); },
                    [](const killPeer&) {
                        beMonitor();
                        registryRegistSaver();
                        set("changed");
                    },
                    [](const killPeer&) {
                        registryFlush(openSection());
                        handleAll();
                    },
                    expectValue("short|changed")});
}

}  // namespace

std::vector<killOperation> registryOperations() {
    std::vector<killOperation> list;
    addDocuments(list);
    addMonitors(list);
    addDeletions(list);
    addSaves(list);
    return list;
}

}  // namespace qorTest
