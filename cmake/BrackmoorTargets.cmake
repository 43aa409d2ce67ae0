# Per-target build settings shared by every component of the project.

# Warnings as errors for our own code.
function(brackmoor_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror -Wshadow -Wformat=2)
endfunction()

# Hardening for everything that runs as root or inside sshd.
function(brackmoor_harden target)
  target_compile_options(${target} PRIVATE -fstack-protector-strong
    $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
  target_link_options(${target} PRIVATE -Wl,-z,relro,-z,now)
endfunction()

# Sanitizers chosen with -DBRACKMOOR_SANITIZE=address|thread.
function(brackmoor_sanitize target)
  if(BRACKMOOR_SANITIZE STREQUAL "address")
    # GCC 12 reports false maybe-uninitialized warnings in instrumented library code (std::regex).
    target_compile_options(${target} PRIVATE -fsanitize=address,undefined -fno-omit-frame-pointer
      -fno-sanitize-recover=undefined -Wno-maybe-uninitialized)
    target_link_options(${target} PRIVATE -fsanitize=address,undefined)
  elseif(BRACKMOOR_SANITIZE STREQUAL "thread")
    target_compile_options(${target} PRIVATE -fsanitize=thread -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=thread)
  endif()
endfunction()

# Everything our own code needs: warnings, hardening, sanitizers.
function(brackmoor_target target)
  brackmoor_warnings(${target})
  brackmoor_harden(${target})
  brackmoor_sanitize(${target})
endfunction()

# A GoogleTest executable registered with ctest under the given labels.
#   brackmoor_gtest(NAME name SOURCES ... LIBS ... LABELS unit|integration|stress|e2e
#                   [SANDBOX] [RESOURCE_LOCK lock] [TIMEOUT s])
# SANDBOX: the suite changes system paths or binds the agent's socket name, so
# it runs inside tests/sandbox/sandbox-run and skips (77) anywhere else.
function(brackmoor_gtest)
  cmake_parse_arguments(T "SANDBOX" "NAME;TIMEOUT;RESOURCE_LOCK" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${T_NAME} ${T_SOURCES})
  brackmoor_target(${T_NAME})
  if(T_SANDBOX)
    target_link_libraries(${T_NAME} PRIVATE ${T_LIBS} brackmoor::sandbox_main GTest::gtest GTest::gmock)
    add_test(NAME ${T_NAME} COMMAND ${BRACKMOOR_SANDBOX_RUN} $<TARGET_FILE:${T_NAME}>)
  else()
    target_link_libraries(${T_NAME} PRIVATE ${T_LIBS} GTest::gtest GTest::gmock GTest::gtest_main)
    add_test(NAME ${T_NAME} COMMAND ${T_NAME})
  endif()
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 300)
  endif()
  set_tests_properties(${T_NAME} PROPERTIES LABELS "${T_LABELS}" TIMEOUT ${T_TIMEOUT} SKIP_RETURN_CODE 77)
  if(T_RESOURCE_LOCK)
    set_tests_properties(${T_NAME} PROPERTIES RESOURCE_LOCK ${T_RESOURCE_LOCK})
  endif()
endfunction()

# Adds every sub-folder of `parent` that has a CMakeLists.txt, so that a new
# suite or benchmark needs no registration elsewhere.
function(brackmoor_add_subdirectories parent)
  file(GLOB children LIST_DIRECTORIES true "${parent}/*")
  foreach(dir ${children})
    if(IS_DIRECTORY "${dir}" AND EXISTS "${dir}/CMakeLists.txt")
      add_subdirectory(${dir})
    endif()
  endforeach()
endfunction()
