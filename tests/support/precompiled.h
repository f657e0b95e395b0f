// What nearly every test includes, compiled once per program.
#include <gtest/gtest.h>

#include <string>
#include <vector>
