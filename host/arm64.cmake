# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0

# Toolchain file: programs for the arm64 terminal, against the sysroot that host/setup makes.

get_filename_component(kus_sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/deps/sysroot-arm64 ABSOLUTE)
if(NOT EXISTS ${kus_sysroot}/usr/include)
    message(FATAL_ERROR "${kus_sysroot} is missing: run host/setup terminal")
endif()

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_SYSROOT ${kus_sysroot})

foreach(language C CXX)
    set(CMAKE_${language}_COMPILER_TARGET aarch64-linux-gnu)
    # By /usr, not by the link /lib that clang tries first: ninja takes the ".." of the headers'
    # paths literally, would not find them behind a link, and would build all anew each time.
    set(CMAKE_${language}_COMPILER_EXTERNAL_TOOLCHAIN ${kus_sysroot}/usr)
endforeach()
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
foreach(kind EXE SHARED MODULE)
    set(CMAKE_${kind}_LINKER_FLAGS_INIT -fuse-ld=lld)
endforeach()

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
foreach(mode LIBRARY INCLUDE PACKAGE)
    set(CMAKE_FIND_ROOT_PATH_MODE_${mode} ONLY)
endforeach()
