# The part of the toolchain files that both ARM targets share; TESSARD_TRIPLET and TESSARD_QEMU are
# set by the file that includes this one.
#
# The target's libraries come from one of two places:
#  - multiarch packages (libglib2.0-dev:arm64 ...) under /usr/lib/TRIPLET and /usr/include, where
#    Debian's cross compiler looks by itself; or
#  - a directory given as TESSARD_TARGET_ROOT (cache variable or environment) into which the same
#    packages were unpacked, for hosts where apt cannot install them beside the host's own.
set(CMAKE_C_COMPILER ${TESSARD_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${TESSARD_TRIPLET}-g++)
set(CMAKE_STRIP ${TESSARD_TRIPLET}-strip CACHE FILEPATH "")
# Debian's multiarch library directory; GNUInstallDirs and find_package use it.
set(CMAKE_LIBRARY_ARCHITECTURE ${TESSARD_TRIPLET})

if(NOT DEFINED TESSARD_TARGET_ROOT AND DEFINED ENV{TESSARD_TARGET_ROOT})
  set(TESSARD_TARGET_ROOT "$ENV{TESSARD_TARGET_ROOT}")
endif()
set(TESSARD_TARGET_ROOT "${TESSARD_TARGET_ROOT}" CACHE PATH
    "Directory holding the target's unpacked -dev packages (empty: multiarch packages in /usr)")
# try_compile projects see the same root.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TESSARD_TARGET_ROOT)

set(CMAKE_FIND_ROOT_PATH /usr/${TESSARD_TRIPLET})
if(TESSARD_TARGET_ROOT)
  list(PREPEND CMAKE_FIND_ROOT_PATH ${TESSARD_TARGET_ROOT})
  set(target_libs ${TESSARD_TARGET_ROOT}/usr/lib/${TESSARD_TRIPLET}
                  ${TESSARD_TARGET_ROOT}/lib/${TESSARD_TRIPLET})
  list(TRANSFORM target_libs PREPEND "-Wl,-rpath-link," OUTPUT_VARIABLE rpath_link)
  # The build tree's search path written as DT_RPATH, which also serves the libraries' own
  # dependencies (libsystemd's libcap, say), where DT_RUNPATH would serve the binary's only.
  string(JOIN " " rpath_link ${rpath_link} "-Wl,--disable-new-dtags")
  set(CMAKE_EXE_LINKER_FLAGS_INIT "${rpath_link}")
  set(CMAKE_SHARED_LINKER_FLAGS_INIT "${rpath_link}")
  # Binaries in the build tree find the unpacked libraries when run under emulation; installed
  # ones lose this path.
  set(CMAKE_BUILD_RPATH ${target_libs})
  set(ENV{PKG_CONFIG_SYSROOT_DIR} "${TESSARD_TARGET_ROOT}")
else()
  list(APPEND CMAKE_FIND_ROOT_PATH /)
  set(ENV{PKG_CONFIG_SYSROOT_DIR} "")
endif()
# The target's .pc files only, never the host's.
set(ENV{PKG_CONFIG_LIBDIR}
    "${TESSARD_TARGET_ROOT}/usr/lib/${TESSARD_TRIPLET}/pkgconfig:${TESSARD_TARGET_ROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Tests run under user-mode emulation (Debian's qemu-user) when it is installed; the C library and
# libstdc++ of the cross toolchain live under /usr/TRIPLET.
find_program(TESSARD_QEMU_PROGRAM ${TESSARD_QEMU})
if(TESSARD_QEMU_PROGRAM)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${TESSARD_QEMU_PROGRAM} -L /usr/${TESSARD_TRIPLET})
endif()
