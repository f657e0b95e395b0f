// The tree itself: layers, where the platform is called, sizes of files, and the two copies of the message types.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
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
        {"TraceHelper/Report\\.h|QORTrace/report|internal/report\\.h", 0},
        {"ChainHelper|_chChain", 1},
        {"AllocHelper|_chAlloc|internal/arena\\.h", 2},
        {"StringHelper|_chString|internal/string_block\\.h", 3},
        {"ArrayHelper|_chArray|ListHelper|_chList", 4},
        {"MiscHelper|_chMisc|xMisc", 5},
        {"BaseHelper|_chBaseClass|xBaseClass|xInc/keyfile|internal/(scope_lock|singleton|tick)\\.h", 6},
        {"TraceHelper|QORTrace", 7},
        {"FileHelper|QORFile|xFile|internal/(safe_save|file_lock|whole_file|byte_string|ini_text)\\.", 8},
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

TEST(Tree, OnlyThePlatformHalvesCallThePlatform) {
    const std::regex call(
        "\\b(semop|semtimedop|semget|semctl|shmget|shmat|shmdt|shmctl|ftok|pthread_create|pthread_join|clock_gettime|"
        "gettimeofday|times|nanosleep|usleep|tcgetattr|tcsetattr|opendir|readdir|closedir|mmap|munmap|msync|flock|"
        "accept4|recvfrom|sendmsg|sendto|getsockopt|setsockopt|gethostbyname_r|ioctl)\\(");
    for (const std::string& strFile : filesBelow("src")) {
        if (strFile.find("src/xInc/") == 0)
            continue;
        std::smatch match;
        const std::string strText = std::regex_replace(textOf(s_pathTree / strFile), std::regex("//[^\n]*"), "");
        EXPECT_FALSE(std::regex_search(strText, match, call)) << strFile << " calls " << match.str();
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
            const std::string strText = std::regex_replace(textOf(s_pathTree / strFile), std::regex("//[^\n]*"), "");
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

TEST(Tree, NoFileIsLongerThanAThousandLines) {
    for (const char* lpszFolder : {"include", "src", "tests", "examples", "bench", "fuzz"})
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
