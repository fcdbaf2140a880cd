# Warning, sanitizer and target flags for everything the project builds.

add_compile_options(
  -Wall -Wextra -Werror -Wformat=2 -Wmissing-declarations -Wundef -Wvla
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
  # __FILE__ relative to the source root wherever the build tree lives: trace
  # lines and the out-of-memory message carry it.
  -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=)

if(ZORV_M32)
  add_compile_options(-m32)
  add_link_options(-m32)
endif()

if(ZORV_ASAN)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()

if(ZORV_TSAN)
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
endif()

if(ZORV_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "ZORV_FUZZ needs clang (CXX=clang++)")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()
