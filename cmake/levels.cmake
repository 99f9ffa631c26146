# The one home of instruction-set flags, and of every flag that the bits of a result depend on.
#
# A level is a set of instructions that kernels are compiled for: each source in a subsystem's list of kernels is
# compiled once per level, in the namespace zenr::<level>; everything else is compiled for the baseline alone.

set(ZENR_LEVELS sse2 avx2 avx512)

if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  # Without -mfpmath=sse the compiler evaluates float expressions in 80 bits, and results differ from x86-64.
  set(ZENR_BASELINE_FLAGS -msse2 -mfpmath=sse)
else()
  set(ZENR_BASELINE_FLAGS)
endif()
# A fused multiply-add gives other bits than a multiplication and an addition. So the compiler never contracts to one
# (-ffp-contract=off): only kernels that prove their results otherwise ask for it, by name.
set(ZENR_LEVEL_FLAGS_sse2)
set(ZENR_LEVEL_FLAGS_avx2 -mavx2 -mfma -mpopcnt -mlzcnt -mbmi -mbmi2)
set(ZENR_LEVEL_FLAGS_avx512 ${ZENR_LEVEL_FLAGS_avx2} -mavx512f -mavx512bw -mavx512dq -mavx512vl
    -mprefer-vector-width=512)

set(ZENR_LIBRARY_OPTIMISATION -O3)
set(ZENR_SANITIZE "" CACHE STRING "sanitizers, as in -fsanitize=")
if(ZENR_SANITIZE)
  add_compile_options(-fsanitize=${ZENR_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=${ZENR_SANITIZE})
endif()
if(ZENR_SANITIZE MATCHES address)
  # At -O3 with checks in line the largest kernels take over ten minutes each to compile. A call per check is enough, and
  # what null and object-size would find, the addresses show. HACKING.md says what plain -O1 does to masks.
  set(ZENR_LIBRARY_OPTIMISATION -O1 -fexpensive-optimizations -fno-sanitize=null,object-size
      --param=asan-instrumentation-with-call-threshold=0)
endif()

# Flags that every target of this project shares: those that fix the bits, and warnings.
function(zenr_common_flags target)
  target_compile_options(${target} PRIVATE ${ZENR_BASELINE_FLAGS} -ffp-contract=off -Wall -Wextra
      $<$<COMPILE_LANGUAGE:CXX>:-Wno-psabi>)
endfunction()

# Flags of the library's own code: optimised also in Debug, no C++ run-time library needed, nothing exported
# that is not marked.
function(zenr_library_flags target)
  zenr_common_flags(${target})
  target_compile_options(${target} PRIVATE ${ZENR_LIBRARY_OPTIMISATION} -fno-math-errno -fno-trapping-math -fopenmp -fvisibility=hidden
      $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics -fvisibility-inlines-hidden>)
  target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src)
endfunction()

# zenr_level_libraries(NAME SOURCES...): object libraries NAME_sse2, NAME_avx2 ... of the same sources, and the
# list of their objects in NAME_OBJECTS of the caller.
function(zenr_level_libraries name)
  set(objects)
  foreach(level ${ZENR_LEVELS})
    add_library(${name}_${level} OBJECT ${ARGN})
    zenr_library_flags(${name}_${level})
    target_compile_options(${name}_${level} PRIVATE ${ZENR_LEVEL_FLAGS_${level}})
    target_compile_definitions(${name}_${level} PRIVATE ZENR_LEVEL=${level} ZENR_LEVEL_${level}=1)
    list(APPEND objects $<TARGET_OBJECTS:${name}_${level}>)
  endforeach()
  set(${name}_OBJECTS ${objects} PARENT_SCOPE)
endfunction()
