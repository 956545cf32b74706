# Copyright (C) 2026 The kusd authors
# SPDX-License-Identifier: Apache-2.0

# The platform's libraries on Debian, as targets with the names that Android.bp uses: libbase,
# liblog, libutils, libcutils, libbinder, libbacktrace, libtinyxml2, libudev. KUS_AIDL is the aidl
# program. What is missing here, host/setup gets.

include_guard(GLOBAL)

set(KUS_HOST_DIR ${CMAKE_CURRENT_LIST_DIR})
get_filename_component(KUS_BUILD_ROOT ${KUS_HOST_DIR}/../build ABSOLUTE)

if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    set(KUS_ARCH arm64)
    set(KUS_TRIPLET aarch64-linux-gnu)
    set(KUS_SETUP "host/setup terminal")
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|amd64)$")
    set(KUS_ARCH amd64)
    set(KUS_TRIPLET x86_64-linux-gnu)
    set(KUS_SETUP "host/setup native")
else()
    message(FATAL_ERROR "No port for the processor ${CMAKE_SYSTEM_PROCESSOR}: amd64, arm64 only.")
endif()

if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "The platform's headers need clang: run cmake with "
                        "-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++")
endif()

set(KUS_PLATFORM_DIR ${KUS_BUILD_ROOT}/platform/${KUS_ARCH})
set(KUS_SYSTEM_LIB_DIR ${CMAKE_SYSROOT}/usr/lib/${KUS_TRIPLET})
set(KUS_ANDROID_LIB_DIR ${KUS_SYSTEM_LIB_DIR}/android)
set(KUS_ANDROID_INCLUDE_DIR ${CMAKE_SYSROOT}/usr/include/android)

find_program(KUS_AIDL aidl NO_CMAKE_FIND_ROOT_PATH)
if(NOT KUS_AIDL)
    message(FATAL_ERROR "The program aidl is missing: run host/setup native")
endif()

function(kus_require path)
    if(NOT EXISTS ${path})
        message(FATAL_ERROR "${path} is missing: run ${KUS_SETUP}")
    endif()
endfunction()

# kus_platform_library(<target> <file of the library> [LINK <targets>] [INCLUDE <directories>])
function(kus_platform_library target file)
    cmake_parse_arguments(arg "" "" "LINK;INCLUDE" ${ARGN})
    kus_require(${file})
    foreach(directory IN LISTS arg_INCLUDE)
        kus_require(${directory})
    endforeach()
    add_library(${target} SHARED IMPORTED GLOBAL)
    set_target_properties(${target} PROPERTIES IMPORTED_LOCATION ${file})
    target_include_directories(${target} INTERFACE ${arg_INCLUDE})
    target_link_libraries(${target} INTERFACE ${arg_LINK})
endfunction()

add_library(kus_platform_headers INTERFACE)
target_include_directories(kus_platform_headers SYSTEM INTERFACE ${KUS_ANDROID_INCLUDE_DIR})
# The list of hand-written interfaces is checked by a macro that aidl 10 generates for all.
target_compile_definitions(kus_platform_headers INTERFACE DO_NOT_CHECK_MANUAL_BINDER_INTERFACES)
target_compile_options(kus_platform_headers INTERFACE
                       "$<$<COMPILE_LANGUAGE:CXX>:SHELL:-include ${KUS_HOST_DIR}/prelude.h>")
kus_require(${KUS_ANDROID_INCLUDE_DIR})

foreach(name base log utils cutils backtrace)
    kus_platform_library(lib${name} ${KUS_ANDROID_LIB_DIR}/lib${name}.so
                         LINK kus_platform_headers)
endforeach()
target_link_libraries(libbase INTERFACE liblog)
target_link_libraries(libutils INTERFACE libcutils liblog)

kus_platform_library(libtinyxml2 ${KUS_SYSTEM_LIB_DIR}/libtinyxml2.so)
kus_platform_library(libudev ${KUS_SYSTEM_LIB_DIR}/libudev.so)

# Installed, and in the terminal, a program finds the libraries next to itself and at Debian's place,
# never by a path of the machine that built it.
set(CMAKE_INSTALL_RPATH $ORIGIN/../lib /usr/lib/${KUS_TRIPLET}/android)
if(CMAKE_CROSSCOMPILING)
    set(CMAKE_BUILD_WITH_INSTALL_RPATH ON)
endif()

# KUS_PORT_ITSELF is set where the pieces below are being built.
if(KUS_PORT_ITSELF)
    return()
endif()

# Debian's C library does not know the platform's option to give free memory back.
add_library(kus_malloc STATIC ${KUS_HOST_DIR}/malloc/mallopt.cpp)
target_link_libraries(kus_malloc PRIVATE kus_platform_headers)
target_link_libraries(libbase INTERFACE kus_malloc)

# Debian's libcutils has no properties; the port's own library stands in for that part of it.
add_library(kus_properties STATIC IMPORTED GLOBAL)
set_target_properties(kus_properties PROPERTIES
                      IMPORTED_LOCATION ${KUS_PLATFORM_DIR}/lib/libproperties.a)
kus_require(${KUS_PLATFORM_DIR}/lib/libproperties.a)
target_include_directories(kus_properties INTERFACE ${KUS_PLATFORM_DIR}/include)
target_link_libraries(kus_properties INTERFACE libbase)
target_link_libraries(libcutils INTERFACE kus_properties)

kus_platform_library(libbinder ${KUS_PLATFORM_DIR}/lib/libbinder.so
                     LINK libutils libcutils libbase liblog kus_platform_headers
                     INCLUDE ${KUS_PLATFORM_DIR}/include)
