// XML documents: texts parsed and written beside what else there is, in memory.
//
// usage: qor_bench_xml [--quick]
//
// What a document costs depends on whether its memory is new to the process: the system has to clear each page of it
// first. Who gives memory back between two parses is a matter of what lies behind it in the heap, not of the parser. So
// there are two tables: the heap keeps its memory, and the only parse of a fresh process.
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "qor/FileHelper.h"
#include "support.h"

#ifdef QOR_BENCH_TINYXML2
#include <tinyxml2.h>
#endif
#ifdef QOR_BENCH_PUGIXML
#include <pugixml.hpp>
#endif

using namespace bench;

namespace {

double s_nRepeat = 1;
int s_nFresh = 15;  // processes
std::vector<size_t> s_arrSize = {10000, 1000000, 10000000};

// ---- the texts

enum class shape { mixed, attributes, texts, nested };

std::string mixedPart(int i) {
    char sz[512];
    snprintf(sz, sizeof(sz),
             "  <device id=\"%d\" name=\"unit &amp; %d\">\n    <!-- what this is about -->\n    "
             "<address>10.0.%d.%d</address>\n"
             "    <port unit=\"none\">%d</port>\n    <description>some words about device number %d, x &lt; "
             "y</description>\n"
             "    <enabled/>\n  </device>\n",
             i, i % 17, (i >> 8) & 255, i & 255, 5000 + i % 100, i);
    return sz;
}

std::string part(shape eShape, int i) {
    char sz[256];
    switch (eShape) {
        case shape::mixed:
            return mixedPart(i);
        case shape::attributes:
            snprintf(sz, sizeof(sz), "  <key name=\"key.%d\" value=\"%d.%d\" type=\"string\"/>\n", i, i, i % 7);
            return sz;
        case shape::texts:
            snprintf(sz, sizeof(sz), "  <text>number %d: the quick brown fox jumps over the lazy dog, ", i);
            return sz + std::string(700, 'x') + "</text>\n";
        case shape::nested:
            return i % 16 == 15 ? "</n></n></n></n></n></n></n></n></n></n></n></n></n></n></n>\n" : "<n>";
    }
    return "";
}

std::string shortName(shape eShape) {
    static const char* const arrName[] = {"elements of all kinds", "attributes", "long texts", "nested elements"};
    return arrName[static_cast<int>(eShape)];
}

// A text of nSize bytes and a little more.
std::string xmlTextOf(shape eShape, size_t nSize) {
    std::string strText = "<?xml version=\"1.0\"?>\n<root>\n";
    int i = 0;
    while (strText.size() < nSize || (eShape == shape::nested && i % 16 != 0))
        strText += part(eShape, i++);
    return strText + "</root>\n";
}

// ---- who parses and writes: each parse makes a document and deletes it

class contender {
public:
    virtual ~contender() {}
    virtual const char* name() const = 0;
    virtual void parse(const std::string& strText) = 0;
    // Parses once, for write().
    virtual void keep(const std::string& strText) = 0;
    virtual size_t write() = 0;
};

void expect(bool bRight) {
    if (bRight)
        return;
    fprintf(stderr, "a text was not understood\n");
    exit(1);
}

class libraryXml : public contender {
public:
    const char* name() const override { return "qor"; }
    void parse(const std::string& strText) override {
        QOR_FileHelper::xmlDocument document;
        expect(*document.ParseDocument(strText.c_str()) == 0);
    }
    void keep(const std::string& strText) override { m_document.ParseDocument(strText.c_str()); }
    size_t write() override { return static_cast<size_t>(m_document.ExportToText().GetLength()); }

private:
    QOR_FileHelper::xmlDocument m_document;
};

#ifdef QOR_BENCH_TINYXML2
class tinyXml : public contender {
public:
    const char* name() const override { return "TinyXML-2"; }
    void parse(const std::string& strText) override {
        tinyxml2::XMLDocument document;
        expect(document.Parse(strText.data(), strText.size()) == tinyxml2::XML_SUCCESS);
    }
    void keep(const std::string& strText) override { m_document.Parse(strText.data(), strText.size()); }
    size_t write() override {
        tinyxml2::XMLPrinter printer;
        m_document.Print(&printer);
        return static_cast<size_t>(printer.CStrSize());
    }

private:
    tinyxml2::XMLDocument m_document;
};
#endif

#ifdef QOR_BENCH_PUGIXML
struct stringWriter : pugi::xml_writer {
    void write(const void* p, size_t nSize) override { strText.append(static_cast<const char*>(p), nSize); }
    std::string strText;
};

class pugiXml : public contender {
public:
    const char* name() const override { return "pugixml"; }
    void parse(const std::string& strText) override {
        pugi::xml_document document;
        expect(document.load_buffer(strText.data(), strText.size(), pugi::parse_full));
    }
    void keep(const std::string& strText) override {
        m_document.load_buffer(strText.data(), strText.size(), pugi::parse_full);
    }
    size_t write() override {
        stringWriter writer;
        m_document.save(writer, "  ", pugi::format_indent | pugi::format_no_declaration);
        return writer.strText.size();
    }

private:
    pugi::xml_document m_document;
};
#endif

std::vector<std::unique_ptr<contender>> allContenders() {
    std::vector<std::unique_ptr<contender>> list;
    list.push_back(std::make_unique<libraryXml>());
#ifdef QOR_BENCH_TINYXML2
    list.push_back(std::make_unique<tinyXml>());
#endif
#ifdef QOR_BENCH_PUGIXML
    list.push_back(std::make_unique<pugiXml>());
#endif
    return list;
}

// ---- measurements

// Against TinyXML-2, on 1 MB; 0 without it.
struct ratios {
    double nParse, nWrite;
};

// Prints one table.
ratios printXml(const char* lpszShape, shape eShape) {
    ratios result = {};
    printf("XML, %s (us; per byte in ns; against qor)\n", lpszShape);
    for (const size_t nSize : s_arrSize) {
        const std::string strText = xmlTextOf(eShape, nSize);
        const auto list = allContenders();
        std::vector<std::function<void()>> listParse, listWrite;
        for (auto& p : list) {
            p->keep(strText);
            listParse.push_back([&]() { p->parse(strText); });
            listWrite.push_back([&]() { expect(p->write() > nSize / 2); });
        }
        const std::vector<double> arrParse = mediansSpent(nSize, s_nRepeat, listParse);
        const std::vector<double> arrWrite = mediansSpent(nSize, s_nRepeat, listWrite);
        for (size_t i = 0; i < list.size(); ++i)
            printf("  %8zu bytes  %-11s parse %9.0f %7.2f %6.2f   write %9.0f %7.2f %6.2f\n", nSize, list[i]->name(),
                   arrParse[i] / 1000, arrParse[i] / nSize, arrParse[i] / arrParse[0], arrWrite[i] / 1000,
                   arrWrite[i] / nSize, arrWrite[i] / arrWrite[0]);
        fflush(stdout);
        for (size_t i = 0; i < list.size() && nSize == 1000000; ++i)
            if (strcmp(list[i]->name(), "TinyXML-2") == 0)
                result = {arrParse[0] / arrParse[i], arrWrite[0] / arrWrite[i]};
    }
    printf("\n");
    return result;
}

// What one parse costs a process that has not had the memory before.
long long timeOfFirst(contender& r, const std::string& strText) {
    int arrFd[2];
    expect(pipe(arrFd) == 0);
    const pid_t pid = fork();
    if (pid == 0) {
        malloc_trim(0);
        const long long nStart = spent();
        r.parse(strText);
        const long long nTime = spent() - nStart;
        _exit(write(arrFd[1], &nTime, sizeof(nTime)) == sizeof(nTime) ? 0 : 1);
    }
    long long nTime = 0;
    expect(read(arrFd[0], &nTime, sizeof(nTime)) == sizeof(nTime));
    close(arrFd[0]);
    close(arrFd[1]);
    waitpid(pid, NULL, 0);
    return nTime;
}

void printFirst(const char* lpszShape, shape eShape) {
    printf("XML, %s: the only parse of a fresh process (us; per byte in ns; against qor)\n", lpszShape);
    for (const size_t nSize : s_arrSize) {
        const std::string strText = xmlTextOf(eShape, nSize);
        const auto list = allContenders();
        std::vector<std::vector<long long>> listTime(list.size());
        for (int n = 0; n < s_nFresh; ++n)
            for (size_t i = 0; i < list.size(); ++i)
                listTime[i].push_back(timeOfFirst(*list[i], strText));
        const double nOwn = figuresOf(listTime[0]).nMedian;
        for (size_t i = 0; i < list.size(); ++i) {
            const double nTime = figuresOf(listTime[i]).nMedian;
            printf("  %8zu bytes  %-11s parse %9.0f %7.2f %6.2f\n", nSize, list[i]->name(), nTime / 1000, nTime / nSize,
                   nTime / nOwn);
        }
        fflush(stdout);
    }
    printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && strcmp(argv[1], "--quick") == 0) {
        s_nRepeat = 0.05;
        s_nFresh = 3;
        s_arrSize.pop_back();
    } else if (argc > 1) {
        fprintf(stderr, "usage: qor_bench_xml [--quick]\n");
        return 2;
    }
    pin(0);
    const struct {
        const char* lpszName;
        shape eShape;
    } arrShape[] = {{"elements with attributes, texts, comments and entities", shape::mixed},
                    {"empty elements with three attributes", shape::attributes},
                    {"elements with long texts", shape::texts},
                    {"nested elements of one letter", shape::nested}};
    // Before the heap has anything to keep.
    for (const auto& r : arrShape)
        printFirst(r.lpszName, r.eShape);
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    mallopt(M_MMAP_THRESHOLD, 1 << 30);
    std::vector<ratios> listRatio;
    for (const auto& r : arrShape)
        listRatio.push_back(printXml(r.lpszName, r.eShape));
    if (listRatio[0].nParse == 0)
        return 0;
    printf("goals, 1000000 bytes\n");
    for (size_t i = 0; i < listRatio.size(); ++i) {
        printGoal(("parse / TinyXML-2, " + shortName(arrShape[i].eShape)).c_str(), listRatio[i].nParse, 1.0);
        printGoal(("write / TinyXML-2, " + shortName(arrShape[i].eShape)).c_str(), listRatio[i].nWrite, 1.0);
    }
    return 0;
}
