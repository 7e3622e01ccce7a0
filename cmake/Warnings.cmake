function(vemo_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow -Wformat=2)
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    # Lock annotations are checked whenever the build uses clang.
    target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-Wthread-safety -Werror=thread-safety>)
  endif()
endfunction()
