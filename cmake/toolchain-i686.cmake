# Cross build for i686 with Debian's g++-i686-linux-gnu.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER i686-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER i686-linux-gnu-g++)
# These binaries run natively; only their loader and libraries stand elsewhere. The libraries need each other: only a path
# of the old kind (DT_RPATH) is searched for them, too.
set(i686_libraries "-Wl,-rpath,/usr/i686-linux-gnu/lib -Wl,--disable-new-dtags")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,--dynamic-linker=/usr/i686-linux-gnu/lib/ld-linux.so.2 ${i686_libraries}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${i686_libraries}")
