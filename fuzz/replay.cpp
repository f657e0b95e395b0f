// Runs a fuzz target over files, and over mutations of them that are the same in every run.
//
//     <name>_fuzz [--mutations N] FILE_OR_DIRECTORY ...
//
// An input that ends the program is left in the working directory as "crash-<name>", and its origin is named
// on standard error. So is one that takes longer than a minute.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/isolation.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize);
// There only in programs with a sanitizer, which ends the program without a signal.
extern "C" __attribute__((weak)) void __sanitizer_set_death_callback(void (*pCallback)());

namespace {

constexpr unsigned patience = 60;      // seconds for one input
constexpr size_t maxInput = 1u << 16;  // bytes of a mutation

typedef std::vector<uint8_t> bytes;

// The input that runs now.
const bytes* s_pCurrent = NULL;
std::string s_strOrigin;
std::string s_strCrashFile;
pid_t s_idProcess = 0;

void say(const char* lpsz) {
    if (write(STDERR_FILENO, lpsz, strlen(lpsz)) < 0)
        _exit(98);
}

void keepInput() {
    if (s_pCurrent == NULL || getpid() != s_idProcess)
        return;
    say("fuzz input: ");
    say(s_strOrigin.c_str());
    const int fd = open(s_strCrashFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (fd != -1 && write(fd, s_pCurrent->data(), s_pCurrent->size()) == static_cast<ssize_t>(s_pCurrent->size())) {
        say(", kept as ");
        say(s_strCrashFile.c_str());
    }
    say("\n");
}

void onDeath(int nSignal) {
    if (nSignal == SIGALRM)
        say("watchdog: the input takes too long\n");
    keepInput();
    signal(nSignal, SIG_DFL);
    raise(nSignal);
}

void watchForDeath(const char* lpszProgram) {
    const char* lpszSlash = strrchr(lpszProgram, '/');
    s_strCrashFile = std::string("crash-") + (lpszSlash != NULL ? lpszSlash + 1 : lpszProgram);
    s_idProcess = getpid();
    signal(SIGALRM, onDeath);
    if (__sanitizer_set_death_callback != NULL) {
        __sanitizer_set_death_callback(keepInput);
        signal(SIGABRT, onDeath);
        return;
    }
    for (const int nSignal : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP})
        signal(nSignal, onDeath);
}

void run(const bytes& data, const std::string& strOrigin) {
    s_strOrigin = strOrigin;
    s_pCurrent = &data;
    alarm(patience);
    LLVMFuzzerTestOneInput(data.data(), data.size());
    alarm(0);
    s_pCurrent = NULL;
}

// ---- inputs

bool readFile(const std::string& strPath, bytes& data) {
    FILE* pFile = fopen(strPath.c_str(), "rb");
    if (pFile == NULL)
        return false;
    uint8_t aPart[4096];
    size_t nPart = 0;
    while ((nPart = fread(aPart, 1, sizeof(aPart), pFile)) > 0)
        data.insert(data.end(), aPart, aPart + nPart);
    const bool bGood = ferror(pFile) == 0;
    fclose(pFile);
    return bGood;
}

void listFiles(const std::string& strPath, std::vector<std::string>& listFile) {
    DIR* pDirectory = opendir(strPath.c_str());
    if (pDirectory == NULL) {
        listFile.push_back(strPath);
        return;
    }
    while (const dirent* pEntry = readdir(pDirectory))
        if (pEntry->d_name[0] != '.')
            listFile.push_back(strPath + "/" + pEntry->d_name);
    closedir(pDirectory);
}

// ---- mutations

class mutator {
public:
    explicit mutator(const std::vector<bytes>& listSeed) : m_listSeed(listSeed) {}

    bytes Next() {
        bytes data = Seed();
        for (uint32_t nLeft = 1 + Random(4); nLeft > 0; --nLeft)
            Change(data);
        if (data.size() > maxInput)
            data.resize(maxInput);
        return data;
    }

private:
    // Numbers below nBelow; the same row in every run and on every machine.
    uint32_t Random(size_t nBelow) {
        m_uState ^= m_uState << 13;
        m_uState ^= m_uState >> 7;
        m_uState ^= m_uState << 17;
        return static_cast<uint32_t>((m_uState >> 16) % nBelow);
    }
    const bytes& Seed() { return m_listSeed[Random(m_listSeed.size())]; }
    uint8_t Byte() {
        static const uint8_t aTelling[] = {0, 1, 4, 0x7F, 0x80, 0xFF, '\n', '\r', '"', '<', '[', '=', ';', '(', '\\'};
        return Random(2) == 0 ? aTelling[Random(sizeof(aTelling))] : static_cast<uint8_t>(Random(256));
    }
    void Change(bytes& data) {
        const size_t i = Random(data.size() + 1);
        const size_t nCount = std::min<size_t>(data.size() - i, 1 + Random(16));
        const auto it = data.begin() + static_cast<ptrdiff_t>(i);
        switch (Random(6)) {
            case 0:
                data.insert(it, 1 + Random(8), Byte());
                break;
            case 1:
                data.erase(it, it + static_cast<ptrdiff_t>(nCount));
                break;
            case 2:
                std::fill(it, it + static_cast<ptrdiff_t>(nCount), Byte());
                break;
            case 3:
                if (nCount > 0)
                    *it = static_cast<uint8_t>(*it ^ (1u << Random(8)));
                break;
            case 4: {
                const bytes part(it, it + static_cast<ptrdiff_t>(nCount));
                data.insert(data.begin() + static_cast<ptrdiff_t>(Random(data.size() + 1)), part.begin(), part.end());
                break;
            }
            default: {
                const bytes& other = Seed();
                const size_t iFrom = Random(other.size() + 1);
                data.resize(i);
                data.insert(data.end(), other.begin() + static_cast<ptrdiff_t>(iFrom), other.end());
            }
        }
    }

    const std::vector<bytes>& m_listSeed;
    uint64_t m_uState = 0x9E3779B97F4A7C15u;
};

}  // namespace

int main(int argc, char** argv) {
    qorTest::isolate(argc, argv);
    long nMutations = 0;
    std::vector<std::string> listFile;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--mutations") == 0 && i + 1 < argc)
            nMutations = strtol(argv[++i], NULL, 10);
        else
            listFiles(argv[i], listFile);
    }
    std::sort(listFile.begin(), listFile.end());
    if (listFile.empty()) {
        fprintf(stderr, "usage: %s [--mutations N] FILE_OR_DIRECTORY ...\n", argv[0]);
        return 2;
    }
    watchForDeath(argv[0]);
    std::vector<bytes> listSeed;
    for (const std::string& strFile : listFile) {
        bytes data;
        if (!readFile(strFile, data)) {
            fprintf(stderr, "cannot read %s: %s\n", strFile.c_str(), strerror(errno));
            return 1;
        }
        run(data, strFile);
        listSeed.push_back(data);
    }
    mutator mutations(listSeed);
    for (long i = 0; i < nMutations; ++i)
        run(mutations.Next(), "mutation " + std::to_string(i));
    printf("%zu files, %ld mutations\n", listFile.size(), nMutations);
    return 0;
}
