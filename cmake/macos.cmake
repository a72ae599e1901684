# The toolchain for building for macOS on another system: clang and lld, and the SDK in CMAKE_OSX_SYSROOT. On a Mac,
# this file does nothing.
if(CMAKE_HOST_APPLE)
  return()
endif()
if(NOT CMAKE_OSX_SYSROOT)
  message(FATAL_ERROR "Building for macOS on another system needs an SDK:\n"
                      "  cmake --preset macos -DCMAKE_OSX_SYSROOT=/path/to/MacOSX.sdk\nIgnore the errors after this one.")
endif()
get_filename_component(CMAKE_OSX_SYSROOT "${CMAKE_OSX_SYSROOT}" ABSOLUTE)
if(NOT EXISTS ${CMAKE_OSX_SYSROOT}/usr/include/c++/v1)
  message(FATAL_ERROR "${CMAKE_OSX_SYSROOT} is not a macOS SDK: it has no usr/include/c++/v1")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CMAKE_OSX_SYSROOT)

set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_VERSION 20) # Darwin 20 is macOS 11

# Distributions install some of the tools below only in LLVM's own folders, which are not in PATH.
file(GLOB llvm /usr/lib/llvm-*/bin)
macro(orvane_find_tool variable name)
  find_program(${variable} ${name} PATHS ${llvm} REQUIRED)
endmacro()
orvane_find_tool(CMAKE_CXX_COMPILER clang++)
set(CMAKE_OBJCXX_COMPILER ${CMAKE_CXX_COMPILER})
orvane_find_tool(CMAKE_INSTALL_NAME_TOOL llvm-install-name-tool)
orvane_find_tool(ORVANE_LLD ld64.lld)
orvane_find_tool(ORVANE_LIPO llvm-lipo)
orvane_find_tool(ORVANE_LIBTOOL llvm-libtool-darwin)

# Each file is compiled for two processors, arm64 and x86_64. The compiler joins the two objects with a program that
# must be named "lipo". -B below names the folder in which the compiler finds this program.
set(tools ${CMAKE_BINARY_DIR}/tools)
file(MAKE_DIRECTORY ${tools})
file(CREATE_LINK ${ORVANE_LIPO} ${tools}/lipo SYMBOLIC)

foreach(language CXX OBJCXX)
  set(CMAKE_${language}_COMPILER_TARGET arm64-apple-darwin) # CMAKE_OSX_ARCHITECTURES overrides "arm64"
  set(CMAKE_${language}_FLAGS_INIT "-B${tools} -stdlib=libc++ -stdlib++-isystem ${CMAKE_OSX_SYSROOT}/usr/include/c++/v1")
  # The archiver that CMake would use (ar) does not support objects for two processors.
  set(CMAKE_${language}_CREATE_STATIC_LIBRARY "${ORVANE_LIBTOOL} --static -o <TARGET> <OBJECTS>")
endforeach()
set(CMAKE_EXE_LINKER_FLAGS_INIT "-fuse-ld=lld -Wl,-fatal_warnings")

set(CMAKE_FIND_ROOT_PATH ${CMAKE_OSX_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
