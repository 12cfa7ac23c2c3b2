# Flags every target of ours shares. Results must be bit-exact with the scalar
# formulas, so no contraction into FMA except in kernels that ask for it.
add_library(qvd_options INTERFACE)
target_compile_options(qvd_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wcast-align
  -ffp-contract=off
  # Report assertion paths relative to the source tree.
  "-fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=")
if(QVD_ASSERTS)
  target_compile_definitions(qvd_options INTERFACE QVD_ASSERTS_ENABLED=1)
endif()

# qvd_simd_object(NAME FLAGS... SOURCES...): one translation unit per
# instruction set, each with its own target flags.
function(qvd_simd_sources target flags)
  set_source_files_properties(${ARGN} TARGET_DIRECTORY ${target}
    PROPERTIES COMPILE_OPTIONS "${flags}")
  target_sources(${target} PRIVATE ${ARGN})
endfunction()

# Sanitizer builds: QVD_SANITIZE=address,undefined or thread. Any report is
# fatal, so a test run under them fails on the first finding.
set(QVD_SANITIZE "" CACHE STRING "Sanitizers for every target: address,undefined or thread")
if(QVD_SANITIZE)
  target_compile_options(qvd_options INTERFACE -fsanitize=${QVD_SANITIZE} -fno-omit-frame-pointer
                         -fno-sanitize-recover=all)
  target_link_options(qvd_options INTERFACE -fsanitize=${QVD_SANITIZE})
endif()

# Fuzzing builds (clang only): coverage instrumentation everywhere; the fuzz
# targets link libFuzzer's main.
option(QVD_FUZZ "Build the libFuzzer targets (needs clang)" OFF)
if(QVD_FUZZ)
  target_compile_options(qvd_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
