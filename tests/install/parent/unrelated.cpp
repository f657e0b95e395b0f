// A part of the project that does not use qor, and is compiled with no flag of qor's.
#if defined(_TIME_BITS) || __has_include("qor/flat.h")
#error "what qor is compiled with has come here"
#endif
