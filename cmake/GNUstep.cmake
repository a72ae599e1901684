# GNUstep's Foundation, on which tests run the Objective-C++ of the macOS platform. Sets ORVANE_GNUSTEP. If it is on,
# OBJCXX is a language of the project, and the target `gnustep` has the options and libraries for it.
set(ORVANE_GNUSTEP OFF)
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

# One of GNUstep's headers includes this header of another runtime if blocks are on, but needs nothing from it.
set(generated ${CMAKE_CURRENT_BINARY_DIR}/generated/gnustep)
file(WRITE ${generated}/objc/blocks_runtime.h "")

add_library(gnustep INTERFACE)
target_include_directories(gnustep SYSTEM INTERFACE ${generated} ${ORVANE_GNUSTEP_INCLUDE})
set(options
    -fblocks -fno-objc-arc -fobjc-exceptions -fno-strict-aliasing -fconstant-string-class=NSConstantString -DGNUSTEP
    -DGNUSTEP_BASE_LIBRARY=1 -DGNU_RUNTIME=1 -D_NATIVE_OBJC_EXCEPTIONS)
target_compile_options(
  gnustep INTERFACE "$<$<COMPILE_LANGUAGE:OBJCXX>:${options};SHELL:-idirafter ${ORVANE_OBJC_INCLUDE}>")
# The blocks runtime must come first, and must be loaded even if a linker sees no need. GNUstep has one for another
# compiler, whose Block_copy would leave clang's blocks on the stack.
target_link_options(gnustep INTERFACE -Wl,--no-as-needed)
target_link_libraries(gnustep INTERFACE ${ORVANE_BLOCKS_RUNTIME} ${ORVANE_GNUSTEP_BASE} objc ${CMAKE_DL_LIBS})
