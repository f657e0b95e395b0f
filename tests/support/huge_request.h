// Included by a test program that asks for more memory than any heap has: the sanitizers' allocators then answer null,
// as malloc() does.
#ifndef QOR_TESTS_SUPPORT_HUGE_REQUEST_H
#define QOR_TESTS_SUPPORT_HUGE_REQUEST_H

extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char* __tsan_default_options() { return "allocator_may_return_null=1"; }

#endif
