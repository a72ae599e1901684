pkg_check_modules(BPF REQUIRED IMPORTED_TARGET libbpf)
find_program(ORVANE_BPF_COMPILER NAMES clang clang-14 REQUIRED)
find_program(ORVANE_BPFTOOL NAMES bpftool REQUIRED)

# orvane_bpf(LIBRARY NAME STRUCT HEADERS...): compiles NAME.bpf.c, which includes HEADERS, to BPF. Embeds the result in
# the generated header NAME.skel.h, which declares the type STRUCT and which only the sources of LIBRARY can include.
function(orvane_bpf library name struct)
  add_custom_command(
    OUTPUT generated/${name}.skel.h
    COMMAND ${CMAKE_COMMAND} -E make_directory generated
    # Version 3 of the instruction set has atomic operations with a result (Linux 5.12).
    COMMAND ${ORVANE_BPF_COMPILER} -target bpf -mcpu=v3 -O2 -g -Wall -Wextra -Werror
            -ffile-prefix-map=${PROJECT_SOURCE_DIR}=/usr/src/orvane-se -I${PROJECT_SOURCE_DIR}/src -idirafter
            /usr/include/${CMAKE_LIBRARY_ARCHITECTURE} -c ${CMAKE_CURRENT_SOURCE_DIR}/${name}.bpf.c -o ${name}.debug.o
    COMMAND ${ORVANE_BPFTOOL} gen object ${name}.bpf.o ${name}.debug.o # strips debug information
    # clang-tidy must skip the generated code: it would report that the code leaks a few bytes when memory runs out.
    COMMAND ${CMAKE_COMMAND} -E echo "// NOLINTBEGIN" > generated/${name}.skel.h
    COMMAND ${ORVANE_BPFTOOL} gen skeleton ${name}.bpf.o name ${struct} >> generated/${name}.skel.h
    COMMAND ${CMAKE_COMMAND} -E echo "// NOLINTEND" >> generated/${name}.skel.h
    DEPENDS ${name}.bpf.c ${ARGN} VERBATIM)
  target_sources(${library} PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/generated/${name}.skel.h)
  target_link_libraries(${library} PUBLIC PkgConfig::BPF)
  target_include_directories(${library} SYSTEM PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/generated)
endfunction()
