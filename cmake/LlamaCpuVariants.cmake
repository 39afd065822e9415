# Trims ggml's list of CPU backend variants (GGML_CPU_ALL_VARIANTS) to the ones Vorn
# ships. Every variant is a full compile of ggml's CPU code, and most of the list adds
# little over its neighbours. llama.cpp's CMake build, run by the llama-cpp-sys-2 build
# script, includes this file after project(ggml) through CMAKE_PROJECT_ggml_INCLUDE
# (vorn-engine/.cargo/config.toml, scripts/engine-cargo).
#
# llama.cpp configures once per cargo target folder: after changing the list, run
#   scripts/engine-cargo clean -p llama-cpp-sys-2
#
# At run time ggml loads the variant whose instructions the CPU has and that scores
# highest (see vorn-engine/src/cpu_backend.rs), so every x86-64 CPU finds one here:
#   x64        any x86-64 CPU (SSE2)
#   sse42      SSE4.2 (2008 on; also the Atom-class chips of low-cost laptops)
#   haswell    AVX2, FMA, F16C, BMI2 (2013 on; AMD Zen 1 to 3)
#   alderlake  haswell + AVX-VNNI (Intel Core 12th generation on, without AVX-512)
#   skylakex   haswell + AVX-512 F/CD/VL/DQ/BW
#   icelake    skylakex + AVX-512 VBMI and VNNI (Ice Lake on, AMD Zen 4 and 5)
# Left out: sandybridge, ivybridge, piledriver (AVX without AVX2: they use sse42),
# cannonlake and cascadelake (close to icelake / skylakex), cooperlake and zen4 (add
# AVX-512 BF16, which only BF16 models use), and sapphirerapids: llama.cpp built for
# the development machine's AMX crashed in its AMX matrix multiplication, and the AMX
# code has not been shown correct and faster since; CPUs with AMX load icelake.
set(VORN_CPU_VARIANTS_X86 x64 sse42 haswell alderlake skylakex icelake)

# ggml defines its variant function after this file runs. A watch on the variable that
# each variant sets first wraps that function once, when it exists; the original stays
# callable with a leading underscore.
function(vorn_wrap_cpu_variants variable access value)
  get_property(wrapped GLOBAL PROPERTY VORN_CPU_VARIANTS_WRAPPED)
  if(wrapped OR NOT access STREQUAL "MODIFIED_ACCESS"
     OR NOT COMMAND ggml_add_cpu_backend_variant_impl)
    return()
  endif()
  set_property(GLOBAL PROPERTY VORN_CPU_VARIANTS_WRAPPED TRUE)
  function(ggml_add_cpu_backend_variant_impl tag_name)
    if(NOT GGML_SYSTEM_ARCH STREQUAL "x86" OR "${tag_name}" STREQUAL ""
       OR tag_name IN_LIST VORN_CPU_VARIANTS_X86)
      _ggml_add_cpu_backend_variant_impl("${tag_name}")
    else()
      message(STATUS "Vorn: CPU backend variant ${tag_name} left out")
    endif()
  endfunction()
endfunction()

get_property(watching GLOBAL PROPERTY VORN_CPU_VARIANTS_WATCHING)
if(NOT watching)
  set_property(GLOBAL PROPERTY VORN_CPU_VARIANTS_WATCHING TRUE)
  variable_watch(GGML_CPU_TAG_NAME vorn_wrap_cpu_variants)
endif()
