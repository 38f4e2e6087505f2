# Flags shared by every target of the project.

# Frame pointers everywhere: the runtime captures call stacks by walking
# them. Leaf functions never appear in the middle of a walked chain, so they
# may go without (the lock fast paths are leaves).
add_compile_options(-fno-omit-frame-pointer -momit-leaf-frame-pointer)

if(KYRT_SANITIZE)
  if(NOT KYRT_SANITIZE MATCHES "^(address,undefined|undefined,address|address|undefined|thread)$")
    message(FATAL_ERROR "KYRT_SANITIZE must be 'address,undefined' or 'thread', not '${KYRT_SANITIZE}'")
  endif()
  add_compile_options(-fsanitize=${KYRT_SANITIZE} -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${KYRT_SANITIZE} -fno-sanitize-recover=all)
endif()

# Fuzzing: every object is instrumented for the fuzzer's coverage and for
# AddressSanitizer and UndefinedBehaviorSanitizer; the fuzz targets link the
# fuzzer's main.
if(KYRT_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all)
  add_link_options(-fsanitize=address,undefined)
endif()

# Warnings are errors for the project's own code (not for third-party code
# built alongside, such as GoogleTest).
# Under the sanitizers GCC's flow analysis reports "maybe uninitialized"
# for code it can no longer follow (standard library internals among it):
# that one warning is left to the uninstrumented build. (clang has no such
# warning and rejects the flag.)
function(kyrt_strict_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
  if(KYRT_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -Wno-maybe-uninitialized)
  endif()
endfunction()
