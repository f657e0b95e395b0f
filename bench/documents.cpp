// Documents: INI files loaded and saved beside what else there is, and the dump of a whole file beside plain reads.
//
// usage: qor_bench_documents [--quick]
//
// Run it through scripts/bench, which gives it a /tmp in memory: what is compared is the work of the processor.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "qor/FileHelper.h"
#include "support.h"

#ifdef QOR_BENCH_SIMPLEINI
#define SI_NO_CONVERSION
#include <SimpleIni.h>
#endif
#ifdef QOR_BENCH_BOOST
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#endif

using namespace bench;

namespace {

constexpr const char* lpszFile = "/tmp/bench.ini";
constexpr const char* lpszSaved = "/tmp/bench.saved.ini";
double s_nRepeat = 1;

// ---- the texts

enum class shape { mixed, sections, oneSection };

std::string iniText(shape eShape, size_t nSize) {
    std::string strText = eShape == shape::oneSection ? "[ all ]\n" : "";
    char szLine[96];
    for (int i = 0; strText.size() < nSize; ++i) {
        if (eShape == shape::sections)
            snprintf(szLine, sizeof(szLine), "[ section.%d ]\n", i);
        else if (eShape == shape::oneSection)
            snprintf(szLine, sizeof(szLine), "key.%d = %d.%d.%d.%d\n", i, i & 255, (i >> 8) & 255, i % 7, i % 11);
        else if (i % 20 == 0)
            snprintf(szLine, sizeof(szLine), "\n; what this is about\n[ section.%d ]\n", i);
        else
            snprintf(szLine, sizeof(szLine), "key.%d = some value with %d words\n", i % 20, i);
        strText += szLine;
    }
    return strText;
}

void store(const std::string& strText) {
    FILE* pFile = fopen(lpszFile, "wb");
    if (pFile == NULL || fwrite(strText.data(), 1, strText.size(), pFile) != strText.size() || fclose(pFile) != 0) {
        perror(lpszFile);
        exit(1);
    }
    unlink(lpszSaved);
}

// ---- who loads and saves

class contender {
public:
    virtual ~contender() {}
    virtual const char* name() const = 0;
    virtual void load() = 0;
    virtual void save() = 0;
};

class libraryIni : public contender {
public:
    const char* name() const override { return "qor"; }
    void load() override { m_file.LoadFromFile(lpszFile); }
    void save() override { m_file.SaveToFile(lpszSaved); }

private:
    QOR_FileHelper::iniFile m_file{NULL};
};

#ifdef QOR_BENCH_SIMPLEINI
class simpleIni : public contender {
public:
    const char* name() const override { return "SimpleIni"; }
    void load() override {
        m_ini.Reset();
        m_ini.LoadFile(lpszFile);
    }
    void save() override { m_ini.SaveFile(lpszSaved); }

private:
    CSimpleIniA m_ini;
};
#endif

#ifdef QOR_BENCH_BOOST
class propertyTree : public contender {
public:
    const char* name() const override { return "Boost tree"; }
    void load() override {
        m_tree.clear();
        boost::property_tree::read_ini(lpszFile, m_tree);
    }
    void save() override { boost::property_tree::write_ini(lpszSaved, m_tree); }

private:
    boost::property_tree::ptree m_tree;
};
#endif

// Those that keep what a shape is made of: the tree drops sections without keys, so of nothing but those it keeps
// nothing.
std::vector<std::unique_ptr<contender>> contendersFor(shape eShape) {
    std::vector<std::unique_ptr<contender>> list;
    list.push_back(std::make_unique<libraryIni>());
#ifdef QOR_BENCH_SIMPLEINI
    list.push_back(std::make_unique<simpleIni>());
#endif
#ifdef QOR_BENCH_BOOST
    if (eShape != shape::sections)
        list.push_back(std::make_unique<propertyTree>());
#endif
    (void)eShape;
    return list;
}

// ---- measurements

// Against the fastest of the others; 0 where no other is installed.
struct ratios {
    double nLoad, nSave;
};

double againstFastest(const std::vector<double>& listTime) {
    return listTime.size() > 1 ? listTime[0] / *std::min_element(listTime.begin() + 1, listTime.end()) : 0;
}

// Prints one table and returns the ratios of 1 MB.
ratios printIni(const char* lpszShape, shape eShape) {
    printf("INI, %s (us; per byte in ns; against qor)\n", lpszShape);
    if (eShape == shape::sections)
        printf("  (without Boost tree, which drops empty sections as it reads)\n");
    ratios result = {};
    for (const size_t nSize : {size_t(10000), size_t(1000000), size_t(10000000)}) {
        store(iniText(eShape, nSize));
        const auto list = contendersFor(eShape);
        std::vector<std::function<void()>> listLoad, listSave;
        for (auto& p : list) {
            listLoad.push_back([&]() { p->load(); });
            listSave.push_back([&]() { p->save(); });
        }
        const std::vector<double> arrLoad = mediansSpent(nSize, s_nRepeat, listLoad);
        const std::vector<double> arrSave = mediansSpent(nSize, s_nRepeat, listSave);
        for (size_t i = 0; i < list.size(); ++i)
            printf("  %8zu bytes  %-11s load %9.0f %7.2f %6.2f   save %9.0f %7.2f %6.2f\n", nSize, list[i]->name(),
                   arrLoad[i] / 1000, arrLoad[i] / nSize, arrLoad[i] / arrLoad[0], arrSave[i] / 1000,
                   arrSave[i] / nSize, arrSave[i] / arrSave[0]);
        fflush(stdout);
        if (nSize == 1000000)
            result = {againstFastest(arrLoad), againstFastest(arrSave)};
    }
    printf("\n");
    return result;
}

void readPlainly(size_t nSize) {
    const int fd = open(lpszFile, O_RDONLY | O_CLOEXEC);
    struct stat st;
    fstat(fd, &st);
    std::unique_ptr<char[]> aText(new char[static_cast<size_t>(st.st_size) + 1]);
    if (read(fd, aText.get(), nSize) != static_cast<ssize_t>(nSize))
        exit(1);
    close(fd);
}

void printDumps() {
    printf("whole files (us; against plain read)\n");
    for (const size_t nSize : {size_t(10000), size_t(1000000), size_t(10000000)}) {
        store(std::string(nSize, 'x'));
        const std::vector<double> arr =
            mediansSpent(nSize, s_nRepeat,
                         {[&]() { readPlainly(nSize); }, []() { QOR_FileHelper::qorDumpBinFile(lpszFile); },
                          []() { QOR_FileHelper::qorDumpTextFileA(lpszFile); }});
        printf("  %8zu bytes  read %8.1f   qorDumpBinFile %8.1f %5.2f   qorDumpTextFileA %8.1f %5.2f\n", nSize,
               arr[0] / 1000, arr[1] / 1000, arr[1] / arr[0], arr[2] / 1000, arr[2] / arr[0]);
    }
    printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && strcmp(argv[1], "--quick") == 0) {
        s_nRepeat = 0.05;
    } else if (argc > 1) {
        fprintf(stderr, "usage: qor_bench_documents [--quick]\n");
        return 2;
    }
    pin(0);
    const ratios mixed = printIni("sections of 19 keys with comments", shape::mixed);
    printIni("every line a section", shape::sections);
    printIni("all keys in one section", shape::oneSection);
    printDumps();
    if (mixed.nLoad > 0) {
        printf("goals, 1000000 bytes, sections of 19 keys with comments\n");
        printGoal("load / the fastest other", mixed.nLoad, 1.0);
        printGoal("save / the fastest other", mixed.nSave, 1.0);
    }
    return 0;
}
