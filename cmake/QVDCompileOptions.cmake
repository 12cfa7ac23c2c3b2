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

# qvd_simd_sources(TARGET FLAGS SOURCES...): translation units built with
# their own instruction-set flags.
function(qvd_simd_sources target flags)
  set_source_files_properties(${ARGN} TARGET_DIRECTORY ${target}
    PROPERTIES COMPILE_OPTIONS "${flags}")
  target_sources(${target} PRIVATE ${ARGN})
endfunction()

# qvd_kernel_sources(TARGET SOURCES...): each file's flags follow from the
# variant suffix of its name (Kernel_m256_fma.cpp: -mavx -mfma), so a kernel
# file cannot be built for another level than its name says.
function(qvd_kernel_sources target)
  foreach(file IN LISTS ARGN)
    get_filename_component(stem ${file} NAME_WE)
    if(stem MATCHES "_m512$")
      set(flags "-mavx512f;-mavx512dq;-mavx512bw;-mavx512vl")
    elseif(stem MATCHES "_m256_avx2$")
      set(flags "-mavx2")
    elseif(stem MATCHES "_m256_fma$")
      set(flags "-mavx;-mfma")
    elseif(stem MATCHES "_m256$")
      set(flags "-mavx")
    elseif(stem MATCHES "_m128_fma$")
      set(flags "-mfma")
    elseif(stem MATCHES "_m128_sse41$")
      set(flags "-msse4.1")
    elseif(stem MATCHES "_m128$")
      set(flags "-msse2")
    else()
      message(FATAL_ERROR "${file}: no instruction-set suffix (_m128, _m128_sse41, _m128_fma, _m256, _m256_fma, _m256_avx2, _m512)")
    endif()
    qvd_simd_sources(${target} "${flags}" ${file})
  endforeach()
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
