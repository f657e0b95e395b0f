// The tree itself: layers, where the system is called, sizes of files, and the two copies of the message types.
#include <cxxabi.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

namespace fs = std::filesystem;

namespace {

const fs::path s_pathTree = QOR_SOURCE_DIR;

std::string textOf(const fs::path& path) {
    std::ifstream in(path);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// Files below a folder, by their path from the tree's root.
std::vector<std::string> filesBelow(const char* lpszFolder) {
    std::vector<std::string> listFile;
    for (const auto& entry : fs::recursive_directory_iterator(s_pathTree / lpszFolder))
        if (entry.is_regular_file() && std::regex_search(entry.path().string(), std::regex("\\.(h|cpp)$")))
            listFile.push_back(fs::relative(entry.path(), s_pathTree).string());
    std::sort(listFile.begin(), listFile.end());
    return listFile;
}

// A module's layer, from the bottom. A file belongs to the first row that it matches.
int layerOf(const std::string& strFile) {
    static const std::vector<std::pair<const char*, int>> listRow = {
        {"qor/Types\\.h", 0},
        {"xInc/platform", 0},
        {"TraceHelper/Report\\.h|QORTrace/report|internal/report\\.h", 0},
        {"ChainHelper|_chChain|internal/journal\\.h", 1},
        {"AllocHelper|_chAlloc|internal/arena\\.h", 2},
        {"StringHelper|_chString|internal/string_block\\.h", 3},
        {"ArrayHelper|_chArray|ListHelper|_chList|internal/(hash_slots|arena_array)\\.h", 4},
        {"MiscHelper|_chMisc|xMisc", 5},
        {"BaseHelper|_chBaseClass|xBaseClass|xInc/(keyfile|file_lock|journal|rights|segment_table|tick)|internal/"
         "(scope_lock|singleton)\\.h",
         6},
        {"TraceHelper|QORTrace", 7},
        {"InspectHelper|QORInspect|xInspect", 11},
        {"FileHelper|QORFile|internal/(safe_save|whole_file|byte_string|ini_text)\\.", 8},
        {"RegularExpress", 8},
        {"CodePage", 8},
        {"RegistryHelper|QORRegistry|internal/registry\\.h", 10},
        {"SocketHelper|QORSocket|xSocket|internal/socket\\.h", 8},
        {"MsgQueueHelper|QORMsgSystem|xMsgSystem|internal/", 9},
        {"flat\\.h|SubClass|sub-interface|sub-class|qor/qor\\.h", 11},
    };
    for (const auto& row : listRow)
        if (std::regex_search(strFile, std::regex(row.first)))
            return row.second;
    return -1;
}

TEST(Tree, AModuleIncludesOnlyWhatIsBelowIt) {
    std::vector<std::string> listFile = filesBelow("include");
    for (const std::string& strFile : filesBelow("src"))
        listFile.push_back(strFile);
    int nLines = 0;
    for (const std::string& strFile : listFile) {
        const int nLayer = layerOf(strFile);
        ASSERT_GE(nLayer, 0) << strFile << " belongs to no layer";
        const std::string strText = textOf(s_pathTree / strFile);
        const std::regex include("#include \"([^\"]+)\"");
        for (std::sregex_iterator it(strText.begin(), strText.end(), include), end; it != end; ++it, ++nLines) {
            const std::string strIncluded = (*it)[1];
            EXPECT_GE(layerOf(strIncluded), 0) << strFile << " includes " << strIncluded;
            EXPECT_LE(layerOf(strIncluded), nLayer) << strFile << " includes " << strIncluded;
        }
    }
    EXPECT_GT(nLines, 100);
}

TEST(Tree, TheFlatHeaderNeedsNoOther) {
    EXPECT_EQ(std::string::npos, textOf(s_pathTree / "include/qor/flat.h").find("#include \"")) << "flat.h";
}

std::string withoutComments(const std::string& strText) {
    return std::regex_replace(strText, std::regex("//[^\n]*"), "");
}

// The folder of a source or private header: its module.
std::string moduleOf(const std::string& strFile) { return fs::path(strFile).parent_path().filename().string(); }

// Only xInc/platform.h and xInc/file_lock.h are the platform's face to the modules.
bool isPrivateHeader(const std::string& strFile) {
    return moduleOf(strFile) != "internal" && strFile != "xInc/platform.h" && strFile != "xInc/file_lock.h";
}

// xInc/xMsgSystem.h declares the platform half of QORMsgSystem.
bool isPlatformHalf(const std::string& strFile, const std::string& strIncluded) {
    const std::string strHalf = fs::path(strIncluded).stem().string().substr(1);
    return moduleOf(strIncluded) == "xInc" && moduleOf(strFile) == "QOR" + strHalf;
}

TEST(Tree, APrivateHeaderIsIncludedByItsModuleAlone) {
    int nPrivate = 0;
    for (const std::string& strFile : filesBelow("src")) {
        const std::string strText = textOf(s_pathTree / strFile);
        const std::regex include("#include \"([^\"]+)\"");
        for (std::sregex_iterator it(strText.begin(), strText.end(), include), end; it != end; ++it) {
            const std::string strIncluded = (*it)[1];
            if (strIncluded.find("qor/") == 0 || !isPrivateHeader(strIncluded))
                continue;
            ++nPrivate;
            EXPECT_TRUE(moduleOf(strFile) == moduleOf(strIncluded) || isPlatformHalf(strFile, strIncluded))
                << strFile << " includes " << strIncluded;
        }
    }
    EXPECT_GT(nPrivate, 5);
}

TEST(Tree, AHeaderOfSeveralModulesIsIncludedBySeveral) {
    std::map<std::string, std::set<std::string>> mapUser;
    for (const std::string& strFile : filesBelow("src")) {
        const std::string strText = textOf(s_pathTree / strFile);
        const std::regex include("#include \"(internal/[^\"]+)\"");
        for (std::sregex_iterator it(strText.begin(), strText.end(), include), end; it != end; ++it)
            mapUser[(*it)[1]].insert(moduleOf(strFile));
    }
    EXPECT_GT(mapUser.size(), 5u);
    for (const auto& user : mapUser)
        EXPECT_GT(user.second.size(), 1u) << user.first << " is used by " << *user.second.begin() << " alone";
}

// ---- the system

// Headers of the C standard and, without ".h", of the C++ standard.
bool isStandardHeader(const std::string& strHeader) {
    static const std::regex standardC(
        "(assert|ctype|errno|float|inttypes|limits|locale|math|setjmp|stdarg|stdbool|stddef|stdint|stdio|stdlib|string|"
        "time|wchar|wctype)\\.h");
    return strHeader.find('.') == std::string::npos ? strHeader.find('/') == std::string::npos && strHeader != "cxxabi"
                                                    : std::regex_match(strHeader, standardC);
}

// Public headers whose classes hold a type of the system, or whose functions take one.
bool needsSystemHeader(const std::string& strFile, const std::string& strHeader) {
    static const std::set<std::pair<std::string, std::string>> setNeeded = {
        {"BaseHelper/Console.h", "termios.h"},      {"BaseHelper/Directory.h", "dirent.h"},
        {"BaseHelper/Select.h", "sys/time.h"},      {"BaseHelper/Sync.h", "pthread.h"},
        {"BaseHelper/Sync.h", "sys/types.h"},       {"MiscHelper/Path.h", "sys/stat.h"},
        {"SocketHelper/Address.h", "netinet/in.h"}, {"SocketHelper/System.h", "sys/socket.h"},
    };
    return setNeeded.count({fs::relative(strFile, "include/qor").string(), strHeader}) == 1;
}

TEST(Tree, OnlyThePlatformHalvesIncludeHeadersOfTheSystem) {
    const std::regex include("#include <([^>]+)>");
    int nHeaders = 0;
    for (const char* lpszFolder : {"include", "src"})
        for (const std::string& strFile : filesBelow(lpszFolder)) {
            if (strFile.find("src/xInc/") == 0)
                continue;
            const std::string strText = textOf(s_pathTree / strFile);
            for (std::sregex_iterator it(strText.begin(), strText.end(), include), end; it != end; ++it, ++nHeaders)
                EXPECT_TRUE(isStandardHeader((*it)[1]) || needsSystemHeader(strFile, (*it)[1]))
                    << strFile << " includes <" << (*it)[1] << ">";
        }
    EXPECT_GT(nHeaders, 100);
}

// ---- what the objects of the library define and call

struct symbol {
    std::string strFile;  // the source, from the tree's root
    std::string strName;  // as the linker knows it
    char chType;          // as nm prints it
};

const std::vector<symbol>& symbols() {
    static const std::vector<symbol> s_listSymbol = [] {
        std::vector<symbol> listSymbol;
        const std::regex line("(src/[^:]+\\.cpp)\\.[a-z]+: (\\S+) ([A-Za-z])\\b");
        std::ifstream in(QOR_SYMBOLS);
        std::smatch match;
        for (std::string strLine; std::getline(in, strLine);)
            if (std::regex_search(strLine, match, line))
                listSymbol.push_back({match[1], match[2], match[3].str()[0]});
        return listSymbol;
    }();
    return s_listSymbol;
}

// Defined here, for all objects of the library and once.
bool isDefined(const symbol& s) { return std::string("TDBRG").find(s.chType) != std::string::npos; }

std::string demangled(const std::string& strName) {
    int nStatus = 0;
    char* const lpszName = abi::__cxa_demangle(strName.c_str(), NULL, NULL, &nStatus);
    const std::string strResult = nStatus == 0 ? lpszName : strName;
    free(lpszName);
    return strResult;
}

// The clock keeps its calibration in a named block: the one step upwards, through functions that it declares itself.
bool isTheStepUpwards(const symbol& s) {
    return s.strFile == "src/xInc/xBaseClass-tick.cpp" &&
           (s.strName == "nameHelperLock" || s.strName == "nameHelperUnlock" || s.strName == "nameGetSystemObject");
}

TEST(Tree, AModuleCallsOnlyWhatIsBelowIt) {
    std::map<std::string, std::string> mapDefiner;
    for (const symbol& s : symbols())
        if (isDefined(s))
            mapDefiner[s.strName] = s.strFile;
    EXPECT_GT(mapDefiner.size(), 500u);
    int nCalls = 0;
    for (const symbol& s : symbols()) {
        const auto definer = mapDefiner.find(s.strName);
        if (s.chType != 'U' || definer == mapDefiner.end() || isTheStepUpwards(s))
            continue;
        ++nCalls;
        EXPECT_LE(layerOf(definer->second), layerOf(s.strFile))
            << s.strFile << " calls " << demangled(s.strName) << " of " << definer->second;
    }
    EXPECT_GT(nCalls, 500);
}

// A name of the library: its namespace, which may be none, and the class or function in it.
struct declaredName {
    std::string strNamespace;
    std::string strName;

    bool operator<(const declaredName& other) const {
        return std::tie(strNamespace, strName) < std::tie(other.strNamespace, other.strName);
    }
};

bool isIn(const std::string& strNamespace, const std::string& strText) {
    return strNamespace == "" || strText.find("namespace " + strNamespace) != std::string::npos;
}

// The classes that a header defines, and whatever stands in front of a parenthesis there: its functions are among them.
std::set<std::string> namesIn(const std::string& strText) {
    static const std::regex name("\\b(?:class|struct) (?:QOR_API )?(\\w+)[^;{()]*\\{|\\b([A-Za-z_]\\w+)\\(");
    std::set<std::string> setName;
    for (std::sregex_iterator it(strText.begin(), strText.end(), name), end; it != end; ++it)
        setName.insert((*it)[1].matched ? (*it)[1] : (*it)[2]);
    return setName;
}

TEST(Tree, AFunctionIsDefinedNoHigherThanItIsDeclared) {
    const std::regex first("^(?:(QOR_\\w+)::)?([A-Za-z_]\\w+)");
    std::map<declaredName, std::string> mapDefiner;
    std::smatch match;
    for (const symbol& s : symbols()) {
        const std::string strName = demangled(s.strName);
        if (s.chType != 'T' || !std::regex_search(strName, match, first))
            continue;
        std::string& strDefiner = mapDefiner[{match[1], match[2]}];
        // Of functions with one name, a higher module may have one of its own.
        if (strDefiner == "" || layerOf(s.strFile) < layerOf(strDefiner))
            strDefiner = s.strFile;
    }
    EXPECT_GT(mapDefiner.size(), 300u);
    int nDeclared = 0;
    for (const char* lpszFolder : {"include", "src"})
        for (const std::string& strFile : filesBelow(lpszFolder)) {
            if (strFile.back() != 'h')
                continue;
            const std::string strText = withoutComments(textOf(s_pathTree / strFile));
            const std::set<std::string> setName = namesIn(strText);
            for (const auto& definer : mapDefiner) {
                if (setName.count(definer.first.strName) == 0 || !isIn(definer.first.strNamespace, strText))
                    continue;
                ++nDeclared;
                EXPECT_LE(layerOf(definer.second), layerOf(strFile))
                    << strFile << " declares " << definer.first.strName << " of " << definer.second;
            }
        }
    EXPECT_GT(nDeclared, 300);
}

// What the objects outside xInc/ may take from the C library: functions of the C standard, and what POSIX adds to them
// for texts, times, memory and the order of bytes. Without optimisation inline functions of headers are called, too.
bool isOfTheLanguage(const std::string& strName) {
    static const std::regex runtime("_.*");  // of the compiler, the C++ library and the sanitizers
    static const std::regex additions(
        "strn(len|dup)|strchrnul|str(case|ncase)cmp|newlocale|uselocale|freelocale|gmtime_r|localtime_r|posix_memalign|"
        "bcmp|stpcpy|mempcpy|[hn]to[hn][ls]|getc_unlocked");
    static const std::regex standard(
        "abort|atexit|exit|getenv|qsort|(c|m|re)alloc|free|ato\\w+|strto\\w+|mem(chr|cmp|cpy|move|set)|"
        "str(cat|chr|cmp|coll|cpy|cspn|error|ftime|len|ncat|ncmp|ncpy|pbrk|rchr|spn|str|xfrm)|"
        "(v?f?|v?s|v?sn)printf|v?f?s?scanf|f(open|close|read|write|flush|eof|error|puts|gets|putc|getc|printf|seek|"
        "tell)"
        "(64)?|clearerr|setvbuf|ungetc|put(s|c|char)|getc|std(in|out|err)|time|mktime|difftime|clock|"
        "(mbr|wcr)to(wc|mb)|mb\\w+|wc\\w+|wmem\\w+|isw\\w+|tow\\w+|is(alpha|digit|space)|to(lower|upper)|"
        "f(mod|loor|abs|max|min)f?|ceilf?|round|l?lround|trunc|rint|pow|sqrt|exp|log\\w*|modf|frexp|ldexp|sin|cos");
    return std::regex_match(strName, runtime) || std::regex_match(strName, additions) ||
           std::regex_match(strName, standard);
}

TEST(Tree, OnlyThePlatformHalvesCallTheSystem) {
    std::set<std::string> setDefined;
    for (const symbol& s : symbols())
        if (s.chType != 'U')
            setDefined.insert(s.strName);
    std::set<std::string> setSystem;
    for (const symbol& s : symbols()) {
        if (s.chType != 'U' || setDefined.count(s.strName) == 1 || isOfTheLanguage(s.strName))
            continue;
        setSystem.insert(s.strName);
        EXPECT_EQ(0u, s.strFile.find("src/xInc/")) << s.strFile << " calls " << s.strName;
    }
    EXPECT_EQ(1u, setSystem.count("semget"));
    EXPECT_GT(setSystem.size(), 50u);
}

// What the compiler makes part of a source is not called, and the kernel has calls without a function.
TEST(Tree, OnlyThePlatformHalvesNameThreadsAndSystemCalls) {
    const std::regex named("\\b(pthread_(?!mutex_t|t\\b|rwlock_t|cond_t)\\w+|syscall|SYS_\\w+|O_[A-Z]+|S_IS[A-Z]+)\\b");
    for (const std::string& strFile : filesBelow("src")) {
        if (strFile.find("src/xInc/") == 0)
            continue;
        std::smatch match;
        const std::string strText = withoutComments(textOf(s_pathTree / strFile));
        EXPECT_FALSE(std::regex_search(strText, match, named)) << strFile << " names " << match.str();
    }
}

// QOR_MODULE differs between sources: with it, an inline function of a header would be another one in each of them.
TEST(Tree, NoHeaderReportsInTheNameOfTheSourceThatIncludesIt) {
    const std::regex module("\\b(QOR_MODULE|QOR_ASSERT|QOR_ASSERT_TEXT|QOR_WARN|QOR_WARN_TEXT)\\b");
    int nHeaders = 0;
    for (const char* lpszFolder : {"include", "src"})
        for (const std::string& strFile : filesBelow(lpszFolder)) {
            if (strFile.back() != 'h' || strFile == "src/internal/report.h")
                continue;
            std::smatch match;
            const std::string strText = withoutComments(textOf(s_pathTree / strFile));
            EXPECT_FALSE(std::regex_search(strText, match, module)) << strFile << " uses " << match.str();
            ++nHeaders;
        }
    EXPECT_GT(nHeaders, 50);
}

// The install test compiles templates.cpp with the installed headers alone.
TEST(Tree, EveryPublicTemplateIsInstantiatedFromTheInstalledHeaders) {
    const std::string strUser = textOf(s_pathTree / "tests/install/consumer/templates.cpp");
    const std::regex declared(
        "\ntemplate <[^>\n]+>\n(?:class|struct|inline|const)?[^(:{;\n]*?\\b(\\w+)(?: : [^\n]*| "
        "\\{[^\n]*|\\([^\n]*|\n|;)");
    int nTemplates = 0;
    for (const std::string& strFile : filesBelow("include")) {
        const std::string strText = textOf(s_pathTree / strFile);
        for (std::sregex_iterator it(strText.begin(), strText.end(), declared), end; it != end; ++it, ++nTemplates)
            EXPECT_TRUE(std::regex_search(strUser, std::regex("\\b" + (*it)[1].str() + "\\b")))
                << strFile << ": " << (*it)[1].str();
    }
    EXPECT_GT(nTemplates, 50);
}

TEST(Tree, EveryTestSaysFirstWhatItIsAbout) {
    for (const char* lpszFolder : {"tests/unit", "tests/process", "tests/support", "tests/peers", "fuzz"})
        for (const std::string& strFile : filesBelow(lpszFolder)) {
            const fs::path path = s_pathTree / strFile;
            const bool bHeaderSaysIt = path.extension() == ".cpp" && fs::exists(fs::path(path).replace_extension(".h"));
            EXPECT_TRUE(bHeaderSaysIt || textOf(path).rfind("// ", 0) == 0) << strFile;
        }
}

TEST(Tree, NoFileIsLongerThanAThousandLines) {
    for (const char* lpszFolder : {"include", "src", "tests", "examples", "bench", "fuzz", "tools"})
        for (const std::string& strFile : filesBelow(lpszFolder)) {
            const std::string strText = textOf(s_pathTree / strFile);
            EXPECT_LE(std::count(strText.begin(), strText.end(), '\n'), 1000) << strFile;
        }
}

TEST(Tree, TheTwoCopiesOfTheMessageTypesAreTheSame) {
    const auto blockOf = [](const char* lpszFile) {
        const std::string strText = textOf(s_pathTree / lpszFile);
        const size_t nBegin = strText.find("#define QOR_MESSAGE_TYPES");
        return strText.substr(nBegin, strText.find("#endif", nBegin) - nBegin);
    };
    EXPECT_GT(blockOf("include/qor/flat.h").size(), 500u);
    EXPECT_EQ(blockOf("include/qor/flat.h"), blockOf("include/qor/MsgQueueHelper/Message.h"));
}

}  // namespace
