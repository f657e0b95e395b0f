// reg: the shared configuration.
#include <CLI/CLI.hpp>

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "device.h"
#include "qor/flat.h"
#include "table.h"

namespace qorctl {

namespace {

struct registryArguments {
    std::string strDocument;
    std::string strSection;
    std::string strKey;
    std::string strValue;
};

// Documents have absolute names.
std::string absolute(const std::string& strFile) {
    char szDirectory[4096];
    if (strFile.empty() || strFile[0] == '/' || getcwd(szDirectory, sizeof(szDirectory)) == nullptr)
        return strFile;
    return std::string(szDirectory) + "/" + strFile;
}

bool isSameName(const std::string& a, const std::string& b) { return strcasecmp(a.c_str(), b.c_str()) == 0; }

const documentView* findDocument(const registryView& view, const std::string& strFile) {
    for (const documentView& document : view.documents)
        if (document.strFile == strFile)
            return &document;
    return nullptr;
}

const sectionView* findSection(const documentView& document, const std::string& strName) {
    for (const sectionView& section : document.sections)
        if (isSameName(section.strName, strName))
            return &section;
    return nullptr;
}

const keyView* findKey(const sectionView& section, const std::string& strName) {
    for (const keyView& key : section.keys)
        if (isSameName(key.strName, strName))
            return &key;
    return nullptr;
}

// What the arguments name in the image; what they name and what is not there sets the status.
class registryLook {
public:
    // With bKey the arguments name a key: then an empty name is one, too.
    registryLook(program& prog, registryArguments arguments, bool bKey = false) {
        arguments.strDocument = absolute(arguments.strDocument);
        if (!m_dev.open(prog, segmentRegistry))
            return;
        m_view = readRegistry(m_dev.segment(segmentRegistry));
        bFound = arguments.strDocument.empty() || find(prog, arguments, bKey);
    }

    const device& dev() const { return m_dev; }
    const registryView& view() const { return m_view; }

    const documentView* pDocument = nullptr;
    const sectionView* pSection = nullptr;
    const keyView* pKey = nullptr;
    bool bFound = false;

private:
    bool find(program& prog, const registryArguments& arguments, bool bKey) {
        pDocument = findDocument(m_view, arguments.strDocument);
        if (pDocument == nullptr)
            return prog.fail(exitNotFound, "nobody has opened \"" + arguments.strDocument + "\""), false;
        const bool bSection = bKey || !arguments.strSection.empty();
        if (bSection)
            pSection = findSection(*pDocument, arguments.strSection);
        if (bSection && pSection == nullptr)
            return prog.fail(exitNotFound, "there is no section \"" + arguments.strSection + "\""), false;
        if (bKey)
            pKey = findKey(*pSection, arguments.strKey);
        if (bKey && pKey == nullptr)
            return prog.fail(exitNotFound, "there is no key \"" + arguments.strKey + "\""), false;
        return true;
    }

    device m_dev;
    registryView m_view;
};

// ---- ls

size_t countKeys(const documentView& document) {
    size_t n = 0;
    for (const sectionView& section : document.sections)
        n += section.keys.size();
    return n;
}

json monitorNames(const device& dev, const sectionView& section) {
    json names = json::array();
    for (const monitorView& monitor : section.monitors)
        names.push_back(dev.nameOf(monitor.idTask));
    return names;
}

std::string joined(const json& names) {
    std::string str;
    for (const json& name : names)
        str += (str.empty() ? "" : ", ") + name.get<std::string>();
    return str;
}

void listDocuments(const program& prog, const registryLook& look) {
    table tab({{"document", "DOCUMENT", false, true},
               {"sections", "SECTIONS", true},
               {"keys", "KEYS", true},
               {"unsaved", "UNSAVED", true}});
    for (const documentView& document : look.view().documents)
        tab.add({{"document", document.strFile},
                 {"sections", document.sections.size()},
                 {"keys", countKeys(document)},
                 {"unsaved", document.nChanges}},
                document.nChanges != 0 ? styleWarn : styleNone);
    tab.print(prog);
}

void listSections(const program& prog, const registryLook& look) {
    table tab({{"section", "SECTION", false, true},
               {"keys", "KEYS", true},
               {"unsaved", "UNSAVED", true},
               {"unflushed", "UNFLUSHED"},
               {"monitorText", "MONITORS", false, true}});
    for (const sectionView& section : look.pDocument->sections) {
        const json names = monitorNames(look.dev(), section);
        tab.add({{"section", section.strName},
                 {"keys", section.keys.size()},
                 {"unsaved", section.nChanges},
                 {"unflushed", section.bChanged},
                 {"monitors", names},
                 {"monitorText", names.empty() ? json() : json(joined(names))}},
                section.nChanges != 0 ? styleWarn : styleNone);
    }
    tab.print(prog);
}

void listKeys(const program& prog, const registryLook& look) {
    table tab({{"key", "KEY", false, true}, {"unsaved", "UNSAVED", true}, {"value", "VALUE", false, true}});
    for (const keyView& key : look.pSection->keys)
        tab.add({{"key", key.strName}, {"unsaved", key.nChanges}, {"value", key.strValue}},
                key.nChanges != 0 ? styleWarn : styleNone);
    tab.print(prog);
}

void runList(program& prog, const registryArguments& arguments) {
    const registryLook look(prog, arguments);
    if (!look.bFound)
        return;
    if (look.pSection != nullptr)
        listKeys(prog, look);
    else if (look.pDocument != nullptr)
        listSections(prog, look);
    else
        listDocuments(prog, look);
}

// ---- get, dump

void runGet(program& prog, const registryArguments& arguments) {
    const registryLook look(prog, arguments, true);
    if (!look.bFound)
        return;
    if (prog.bJson)
        printJson({{"key", look.pKey->strName}, {"value", look.pKey->strValue}, {"unsaved", look.pKey->nChanges}});
    else
        put(look.pKey->strValue + "\n");
}

json documentJson(const documentView& document) {
    json sections = json::object();
    for (const sectionView& section : document.sections) {
        json keys = json::object();
        for (const keyView& key : section.keys)
            keys[key.strName] = key.strValue;
        sections[section.strName] = keys;
    }
    return {{"document", document.strFile}, {"sections", sections}};
}

void putDocument(const documentView& document) {
    put("; " + printable(document.strFile) + "\n");
    for (const sectionView& section : document.sections) {
        put("[" + printable(section.strName) + "]\n");
        for (const keyView& key : section.keys)
            put(printable(key.strName) + "=" + printable(key.strValue) + (key.nChanges != 0 ? "  ; unsaved\n" : "\n"));
    }
}

void runDump(program& prog, const registryArguments& arguments) {
    const registryLook look(prog, arguments);
    if (!look.bFound)
        return;
    json all = json::array();
    for (const documentView& document : look.view().documents) {
        if (look.pDocument != nullptr && look.pDocument != &document)
            continue;
        if (prog.bJson)
            all.push_back(documentJson(document));
        else
            putDocument(document);
    }
    if (prog.bJson)
        printJson(all);
}

// ---- set, flush: as any process does it

void runSet(program& prog, const registryArguments& arguments) {
    if (!prog.isLive())
        return;
    const std::string strFile = absolute(arguments.strDocument);
    const HREGISTRY hSection = registryOpen(strFile.c_str(), arguments.strSection.c_str());
    if (hSection == NULL) {
        prog.fail(exitNotFound, "\"" + strFile + "\" cannot be read");
        return;
    }
    registrySetString(hSection, arguments.strKey.c_str(), arguments.strValue.c_str());
    // An unchanged value and a refused one have the same result.
    const int nSize = static_cast<int>(arguments.strValue.size()) + 2;
    std::vector<char> value(static_cast<size_t>(nSize));
    registryGetStringN(hSection, arguments.strKey.c_str(), value.data(), nSize, "");
    if (arguments.strValue != value.data())
        prog.fail(exitUsage, "a document cannot hold that name or value");
}

void runFlush(program& prog, const registryArguments& arguments) {
    if (!prog.isLive())
        return;
    const registryLook look(prog, arguments);
    if (!look.bFound)
        return;
    for (const documentView& document : look.view().documents) {
        if ((look.pDocument != nullptr && look.pDocument != &document) || document.sections.empty())
            continue;
        registryFlush(reinterpret_cast<HREGISTRY>(static_cast<uintptr_t>(document.sections[0].uHandle)));
    }
}

// ---- watch

// What a watcher knows of its sections.
class registryWatch {
public:
    registryWatch(const program& prog, const registryArguments& arguments)
        : m_prog(prog), m_arguments(arguments), m_mapValue(read()) {}

    void tellChanges() {
        std::map<std::pair<std::string, std::string>, std::string> now = read();
        for (const auto& entry : now) {
            const auto it = m_mapValue.find(entry.first);
            if (it == m_mapValue.end() || it->second != entry.second)
                tell(entry.first.first, entry.first.second, entry.second);
        }
        flushOutput();
        m_mapValue = now;
    }

private:
    std::map<std::pair<std::string, std::string>, std::string> read() const {
        std::map<std::pair<std::string, std::string>, std::string> values;
        deviceImage image;
        takeImage(image, takeOptions());
        const registryView view = readRegistry(image.segment(segmentRegistry));
        const documentView* pDocument = findDocument(view, m_arguments.strDocument);
        for (const sectionView& section : pDocument != nullptr ? pDocument->sections : std::vector<sectionView>())
            if (m_arguments.strSection.empty() || isSameName(section.strName, m_arguments.strSection))
                for (const keyView& key : section.keys)
                    values[{section.strName, key.strName}] = key.strValue;
        return values;
    }
    void tell(const std::string& strSection, const std::string& strKey, const std::string& strValue) const {
        if (m_prog.bJson)
            printJsonLine({{"section", strSection}, {"key", strKey}, {"value", strValue}});
        else
            put("[" + printable(strSection) + "] " + printable(strKey) + "=" + printable(strValue) + "\n");
    }

    const program& m_prog;
    const registryArguments m_arguments;
    std::map<std::pair<std::string, std::string>, std::string> m_mapValue;
};

registryWatch* s_pWatch = nullptr;

// A flush tells one message for each section; between two of them no value is lost, since they are read anew.
int onWatched(simpMSG* pMsg) {
    if (pMsg->uMsg == TM_REGISTRY_CHANGE)
        s_pWatch->tellChanges();
    return -1;
}

bool monitorSections(program& prog, const registryArguments& arguments) {
    const registryLook look(prog, arguments);
    if (!look.bFound)
        return false;
    for (const sectionView& section : look.pDocument->sections)
        if (look.pSection == nullptr || look.pSection == &section)
            regMonitorSection(reinterpret_cast<HREGISTRY>(static_cast<uintptr_t>(section.uHandle)));
    return true;
}

void runWatch(program& prog, registryArguments arguments) {
    if (!prog.isLive())
        return;
    arguments.strDocument = absolute(arguments.strDocument);
    const std::string strThread = "qorctl:" + std::to_string(getpid());
    const registryLook look(prog, arguments);
    if (!look.bFound)
        return;
    registryWatch watch(prog, arguments);
    s_pWatch = &watch;
    const HTHREAD hThread = msgRegistMainThread(strThread.c_str(), onWatched);
    if (monitorSections(prog, arguments))
        msgDefaultThreadRun();
    msgUnregistMainThread(hThread);
}

CLI::App* addRegistryCommand(CLI::App* pReg, const char* lpszName, const char* lpszText, const char* lpszExamples,
                             registryArguments& arguments, int nNeeded, int nTaken) {
    CLI::App* pCommand = addCommand(*pReg, lpszName, lpszText, lpszExamples);
    std::string* const arrText[] = {&arguments.strDocument, &arguments.strSection, &arguments.strKey,
                                    &arguments.strValue};
    static const char* const arrName[] = {"DOC", "SECTION", "KEY", "VALUE"};
    static const char* const arrHelp[] = {"The document's file", "A section", "A key", "The value"};
    for (int i = 0; i < nTaken; ++i)
        pCommand->add_option(arrName[i], *arrText[i], arrHelp[i])->required(i < nNeeded);
    if (nNeeded > 0)
        pCommand->get_option("DOC")->check([](const std::string& strFile) {
            return strFile.empty() ? std::string("a document has a name") : std::string();
        });
    return pCommand;
}

}  // namespace

void addRegistryCommands(CLI::App& app, program& prog) {
    static registryArguments s_arguments;
    CLI::App* pReg = addCommand(app, "reg", "The shared configuration",
                                "  qorctl reg ls\n  qorctl reg get /rundata/config/net.ini Net port");
    pReg->require_subcommand(1);
    addRegistryCommand(pReg, "ls", "Documents, sections or keys; what is unsaved, and who monitors what",
                       "  qorctl reg ls /rundata/config/net.ini", s_arguments, 0, 2)
        ->callback([&prog] { runList(prog, s_arguments); });
    addRegistryCommand(pReg, "get", "A value, of a document that some process has opened",
                       "  qorctl reg get /rundata/config/net.ini Net port", s_arguments, 3, 3)
        ->callback([&prog] { runGet(prog, s_arguments); });
    addRegistryCommand(pReg, "dump", "All values", "  qorctl reg dump --json", s_arguments, 0, 1)->callback([&prog] {
        runDump(prog, s_arguments);
    });
    addRegistryCommand(pReg, "set", "Change a value; the file gets it with the next flush",
                       "  qorctl reg set /rundata/config/net.ini Net port 5061", s_arguments, 4, 4)
        ->callback([&prog] { runSet(prog, s_arguments); });
    addRegistryCommand(pReg, "flush", "Tell the monitors, and save", "  qorctl reg flush", s_arguments, 0, 1)
        ->callback([&prog] { runFlush(prog, s_arguments); });
    addRegistryCommand(pReg, "watch", "Print values as flushes tell their change, until interrupted",
                       "  qorctl reg watch /rundata/config/net.ini Net", s_arguments, 1, 2)
        ->callback([&prog] { runWatch(prog, s_arguments); });
}

}  // namespace qorctl
