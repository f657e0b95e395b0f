// Included by a test program that leaks on purpose: address sanitizer's leak checker is off in it.
#ifndef QOR_TESTS_SUPPORT_NO_LEAK_CHECK_H
#define QOR_TESTS_SUPPORT_NO_LEAK_CHECK_H

#ifdef __SANITIZE_ADDRESS__
extern "C" int __lsan_is_turned_off() { return 1; }
#endif

#endif
