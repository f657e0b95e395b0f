// Puts a test program into namespaces of its own: it neither sees nor leaves System V objects, key files or home
// directory contents of the machine.
//
// The program executes itself once more through scripts/lib/isolate, because a sanitizer's or an emulator's helper
// thread would make the kernel refuse the call from inside. In there, /tmp is an empty file system with the home
// directory in it, but for the tree and the build where these lie in /tmp, and /rundata and /vantrel are empty
// directories.
#ifndef TESTS_SUPPORT_ISOLATION_H
#define TESTS_SUPPORT_ISOLATION_H

#include <string>
#include <vector>

namespace qorTest {

// Returns in the isolated program only, or where the arguments just ask for the list of tests.
// Where the kernel refuses, the program ends with a line that says so.
void isolate(int argc, char** argv);

// For a program whose processes belong to several users: lets it run as root of the machine, without a user namespace,
// where it is started as such. To be called while the program is loaded: const bool b = needUsers();
bool needUsers();

// The words that start this program again: its path, with the emulator in front where there is one.
std::vector<std::string> wordsOfProgram();

}  // namespace qorTest

#endif
