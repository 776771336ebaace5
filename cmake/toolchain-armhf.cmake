# Cross build for 32-bit ARM devices (hard-float ABI) with Debian's cross toolchain
# (g++-arm-linux-gnueabihf) and the armhf libraries, installed as :armhf packages or unpacked under
# TESSARD_TARGET_ROOT.
#   cmake -S . -B build-armhf -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(TESSARD_TRIPLET arm-linux-gnueabihf)
set(TESSARD_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/cross-common.cmake)
