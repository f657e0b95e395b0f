// Fatal assertions by their exact texts.
#ifndef QOR_TESTS_SUPPORT_FATAL_H
#define QOR_TESTS_SUPPORT_FATAL_H

#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>

#include <string>

namespace qorTest {

// A pattern for the line of a report: the module and the fixed text between the brackets and the ids.
inline std::string reportOf(const std::string& strModule, const std::string& strText) {
    std::string strPattern = "\\[" + strModule + ":[0-9]+\\] ";
    for (const char ch : strText)
        strPattern += (strchr("\\^$.|?*+()[]{}", ch) != nullptr ? "\\" : "") + std::string(1, ch);
    return strPattern + " \\(";
}

}  // namespace qorTest

// The statement ends the process with that assertion of the module.
#define EXPECT_FATAL(module, statement, text) \
    EXPECT_EXIT(statement, testing::KilledBySignal(SIGABRT), qorTest::reportOf(module, text))

#endif
