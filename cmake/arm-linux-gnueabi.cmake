# 32-bit little-endian ARM, as on the router; tests run under qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabi-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabi-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabi)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm;-L;/)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
