// Runs one input of a fuzz target in a forked child, for targets in which a fatal assertion is a good end.
//
// A child may return, or end by the library's assertion; anything else (another signal, a sanitizer's report,
// an abort without the red "error:" line, no end at all) ends the parent with what the child said. What the
// child has covered counts as covered by the parent.
#ifndef QOR_FUZZ_CHILDRUN_H
#define QOR_FUZZ_CHILDRUN_H

#include <sys/types.h>

#include <functional>

namespace qorFuzz {

// Returns the child's process id when it ended well. With QOR_FUZZ_VERBOSE in the environment, says how it
// ended.
pid_t runInChild(const std::function<void()>& fnRun);

}  // namespace qorFuzz

#endif
