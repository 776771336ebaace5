# Cross build for 64-bit ARM devices with Debian's cross toolchain (g++-aarch64-linux-gnu) and the
# arm64 libraries, installed as :arm64 packages or unpacked under TESSARD_TARGET_ROOT.
#   cmake -S . -B build-arm64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-arm64.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(TESSARD_TRIPLET aarch64-linux-gnu)
set(TESSARD_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross-common.cmake)
