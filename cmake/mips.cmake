# Static 32-bit MIPS, big-endian; its tests run under qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mips)
set(CMAKE_CXX_COMPILER mips-linux-gnu-g++)
set(CMAKE_C_COMPILER mips-linux-gnu-gcc)
set(CMAKE_EXE_LINKER_FLAGS_INIT -static)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mips-static)
