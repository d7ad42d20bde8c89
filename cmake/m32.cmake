# 32-bit x86 build on an x86-64 host (Debian: g++-12-multilib).
# m32-include/asm stands for the /usr/include/asm link that gcc-multilib
# would make (that package conflicts with the s390x cross compiler); the x86
# kernel headers serve both widths.
set(CMAKE_C_FLAGS_INIT "-m32 -idirafter ${CMAKE_CURRENT_LIST_DIR}/m32-include")
set(CMAKE_CXX_FLAGS_INIT "-m32 -idirafter ${CMAKE_CURRENT_LIST_DIR}/m32-include")
set(CMAKE_EXE_LINKER_FLAGS_INIT -m32)
set(CMAKE_SHARED_LINKER_FLAGS_INIT -m32)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(VARLO_OTHER_ARCH ON CACHE BOOL "Built for another architecture than this machine's")
