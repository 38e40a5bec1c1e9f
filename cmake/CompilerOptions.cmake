# One target that carries the warnings and the sanitizers of this project.
add_library(udisk_options INTERFACE)
target_compile_options(udisk_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor
  -Wold-style-cast -Woverloaded-virtual -Wformat=2 -Wimplicit-fallthrough)
if(UDISK_WERROR)
  target_compile_options(udisk_options INTERFACE -Werror)
endif()
target_link_options(udisk_options INTERFACE -Wl,--as-needed)

if(UDISK_SANITIZE)
  target_compile_options(udisk_options INTERFACE
    -fsanitize=${UDISK_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(udisk_options INTERFACE -fsanitize=${UDISK_SANITIZE})
else()
  add_compile_definitions(
    $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2> _GLIBCXX_ASSERTIONS)
  target_compile_options(udisk_options INTERFACE -fstack-protector-strong)
  target_link_options(udisk_options INTERFACE -Wl,-z,relro,-z,now)
endif()

if(UDISK_FUZZ)
  target_compile_options(udisk_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
