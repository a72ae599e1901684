# Finds GNUstep's Foundation, with which tests on Linux run the Objective-C++ code of the macOS platform. If all
# programs, headers and libraries for this are found, sets ORVANE_GNUSTEP to ON, enables the language OBJCXX, and adds
# the target `gnustep` with the options and libraries that Objective-C++ code needs.
set(ORVANE_GNUSTEP OFF)
if(CMAKE_CROSSCOMPILING)
  message(STATUS "No tests of the macOS platform: they run only if the build is for this machine's processor")
  return()
endif()
find_program(ORVANE_OBJCXX_COMPILER NAMES clang++ clang++-14)
find_path(ORVANE_GNUSTEP_INCLUDE Foundation/NSDebug.h PATH_SUFFIXES GNUstep)
find_path(ORVANE_BLOCKS_INCLUDE Block.h)
find_library(ORVANE_GNUSTEP_BASE gnustep-base)
find_library(ORVANE_BLOCKS_RUNTIME BlocksRuntime)
# The headers of the Objective-C runtime are in g++'s own folder, where clang does not look.
execute_process(COMMAND g++ -print-file-name=include OUTPUT_VARIABLE include OUTPUT_STRIP_TRAILING_WHITESPACE
                ERROR_QUIET RESULT_VARIABLE ignored)
find_path(ORVANE_OBJC_INCLUDE objc/objc.h HINTS "${include}")
if(NOT ORVANE_OBJCXX_COMPILER OR NOT ORVANE_GNUSTEP_INCLUDE OR NOT ORVANE_BLOCKS_INCLUDE OR NOT ORVANE_GNUSTEP_BASE
   OR NOT ORVANE_BLOCKS_RUNTIME OR NOT ORVANE_OBJC_INCLUDE)
  message(STATUS "No tests of the macOS platform: they need clang, GNUstep's Foundation and a blocks runtime")
  return()
endif()
set(ORVANE_GNUSTEP ON)

set(CMAKE_OBJCXX_COMPILER ${ORVANE_OBJCXX_COMPILER})
enable_language(OBJCXX)
set(CMAKE_OBJCXX_STANDARD ${CMAKE_CXX_STANDARD})
set(CMAKE_OBJCXX_STANDARD_REQUIRED ON)
set(CMAKE_OBJCXX_EXTENSIONS OFF)

# With -fblocks, one of GNUstep's headers contains #include <objc/blocks_runtime.h>. That file belongs to another
# Objective-C runtime, and is not installed. GNUstep needs nothing from it, so an empty file takes its place.
set(generated ${CMAKE_CURRENT_BINARY_DIR}/generated/gnustep)
file(WRITE ${generated}/objc/blocks_runtime.h "")

add_library(gnustep INTERFACE)
target_include_directories(gnustep SYSTEM INTERFACE ${generated} ${ORVANE_GNUSTEP_INCLUDE})
set(options
    -fblocks -fno-objc-arc -fobjc-exceptions -fno-strict-aliasing -fconstant-string-class=NSConstantString -DGNUSTEP
    -DGNUSTEP_BASE_LIBRARY=1 -DGNU_RUNTIME=1 -D_NATIVE_OBJC_EXCEPTIONS)
target_compile_options(
  gnustep INTERFACE "$<$<COMPILE_LANGUAGE:OBJCXX>:${options};SHELL:-idirafter ${ORVANE_OBJC_INCLUDE}>")
# GNUstep contains a blocks runtime for another compiler. The Block_copy of that runtime would leave clang's blocks on
# the stack. So clang's blocks runtime is linked before GNUstep. --no-as-needed makes programs load clang's runtime even
# if the linker finds that they do not need it.
target_link_options(gnustep INTERFACE -Wl,--no-as-needed)
target_link_libraries(gnustep INTERFACE ${ORVANE_BLOCKS_RUNTIME} ${ORVANE_GNUSTEP_BASE} objc ${CMAKE_DL_LIBS})
