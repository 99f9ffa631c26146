# 32-bit x86 Linux on an x86-64 host with Debian's g++-multilib (which brings its own OpenMP runtime).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i386)
set(CMAKE_C_FLAGS_INIT -m32)
set(CMAKE_CXX_FLAGS_INIT -m32)
set(CMAKE_CROSSCOMPILING_EMULATOR "")
