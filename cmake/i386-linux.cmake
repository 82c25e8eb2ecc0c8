# Toolchain for building 32-bit x86 code on a 64-bit x86 Linux machine. A native i386 system
# needs no toolchain file.
set(CMAKE_C_FLAGS_INIT "-m32")
set(CMAKE_CXX_FLAGS_INIT "-m32")
