# One target that carries the warnings and the sanitizers of this project.
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)

add_library(udisk_options INTERFACE)
target_compile_options(udisk_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor
  -Wold-style-cast -Woverloaded-virtual -Wformat=2 -Wimplicit-fallthrough)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(udisk_options INTERFACE -Wthread-safety)
endif()
if(UDISK_WERROR)
  target_compile_options(udisk_options INTERFACE -Werror)
endif()
target_link_options(udisk_options INTERFACE -Wl,--as-needed)

# udisk_hardening(FLAG): where the compiler knows it for this processor.
function(udisk_hardening flag)
  string(MAKE_C_IDENTIFIER "UDISK_HAS${flag}" known)
  set(CMAKE_REQUIRED_FLAGS -Werror)
  check_cxx_compiler_flag(${flag} ${known})
  if(${known})
    target_compile_options(udisk_options INTERFACE ${flag})
  endif()
endfunction()

if(UDISK_SANITIZE)
  target_compile_options(udisk_options INTERFACE
    -fsanitize=${UDISK_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(udisk_options INTERFACE -fsanitize=${UDISK_SANITIZE})
else()
  # A toolchain may have a level of its own, which is not lowered.
  set(CMAKE_REQUIRED_FLAGS -O2)
  check_cxx_source_compiles("
    #if !defined(_FORTIFY_SOURCE) || _FORTIFY_SOURCE < 2
    #error
    #endif
    int main() {}" UDISK_TOOLCHAIN_FORTIFIES)
  unset(CMAKE_REQUIRED_FLAGS)
  if(NOT UDISK_TOOLCHAIN_FORTIFIES)
    target_compile_options(udisk_options INTERFACE
      $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
  endif()
  add_compile_definitions(_GLIBCXX_ASSERTIONS)
  foreach(flag -fstack-protector-strong -fstack-clash-protection -fcf-protection)
    udisk_hardening(${flag})
  endforeach()
  target_link_options(udisk_options INTERFACE -Wl,-z,relro,-z,now)
endif()

# Where it was built is nobody's business; the counts of coverage name real files.
if(NOT UDISK_SANITIZE AND NOT CMAKE_CXX_FLAGS MATCHES "-fcoverage-mapping")
  target_compile_options(udisk_options INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.>)
endif()

if(UDISK_FUZZ)
  target_compile_options(udisk_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
