#include "support/isolation.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace qorTest {

namespace {

constexpr const char* szMark = "QOR_TEST_ISOLATED";
bool s_bUsers = false;

bool asksForList(int argc, char** argv) {
    for (int i = 1; i < argc; ++i)
        if (strncmp(argv[i], "--gtest_list_tests", 18) == 0)
            return true;
    return false;
}

std::string ownPath() {
    char szPath[4096];
    const ssize_t nLength = readlink("/proc/self/exe", szPath, sizeof(szPath) - 1);
    return std::string(szPath, nLength > 0 ? static_cast<size_t>(nLength) : 0);
}

// The words that start a program of this build: an emulator and its options, or nothing.
std::vector<std::string> emulatorWords() {
    std::vector<std::string> listWord;
    std::string strWord;
    for (const char* lpsz = QOR_TEST_EMULATOR; *lpsz != 0; ++lpsz) {
        if (*lpsz != '|') {
            strWord += *lpsz;
            continue;
        }
        listWord.push_back(strWord);
        strWord.clear();
    }
    if (!strWord.empty())
        listWord.push_back(strWord);
    return listWord;
}

}  // namespace

std::vector<std::string> wordsOfProgram() {
    std::vector<std::string> listWord = emulatorWords();
    listWord.push_back(ownPath());
    return listWord;
}

bool needUsers() {
    s_bUsers = true;
    return true;
}

void isolate(int argc, char** argv) {
    if (asksForList(argc, argv))
        return;
    if (getenv(szMark) != NULL) {
        setenv("HOME", "/tmp/home", 1);
        unsetenv("trace");
        return;
    }
    setenv(szMark, "1", 1);
    if (s_bUsers)
        setenv("QOR_ISOLATE_USERS", "1", 1);
    else
        unsetenv("QOR_ISOLATE_USERS");
    std::vector<std::string> listWord = {"sh", QOR_TEST_SOURCES "/scripts/lib/isolate", QOR_TEST_SOURCES,
                                         QOR_TEST_BUILD};
    for (const std::string& strWord : wordsOfProgram())
        listWord.push_back(strWord);
    for (int i = 1; i < argc; ++i)
        listWord.push_back(argv[i]);
    std::vector<char*> listArgument;
    for (std::string& strWord : listWord)
        listArgument.push_back(&strWord[0]);
    listArgument.push_back(NULL);
    execvp(listArgument[0], listArgument.data());
    perror("Tests need user, mount and IPC namespaces of their own: sh");
    exit(97);
}

}  // namespace qorTest
