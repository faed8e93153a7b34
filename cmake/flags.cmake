# Compiler and linker flags of everything that is built here.
include(CheckCCompilerFlag)
include(CheckCXXCompilerFlag)
include(CheckLinkerFlag)

add_library(orvscan_flags INTERFACE)

function(orvscan_add_flags)
  foreach(flag IN LISTS ARGN)
    string(MAKE_C_IDENTIFIER "has${flag}" name)
    check_c_compiler_flag("${flag}" c_${name})
    check_cxx_compiler_flag("${flag}" ${name})
    if(c_${name} AND ${name})
      target_compile_options(orvscan_flags INTERFACE "${flag}")
    elseif(${name})
      target_compile_options(orvscan_flags INTERFACE "$<$<COMPILE_LANGUAGE:CXX>:${flag}>")
    endif()
  endforeach()
endfunction()

orvscan_add_flags(
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2 -Wold-style-cast
  -Wcast-qual -Wcast-align -Wnull-dereference -Wnon-virtual-dtor -Woverloaded-virtual -Wundef
  -Wimplicit-fallthrough -Wdouble-promotion -Wunused -Wmissing-declarations
  -Wduplicated-cond -Wlogical-op -Wextra-semi -Wdate-time)
if(ORVSCAN_WERROR)
  target_compile_options(orvscan_flags INTERFACE -Werror)
endif()

# Messages name source files relative to the project.
orvscan_add_flags("-ffile-prefix-map=${CMAKE_SOURCE_DIR}/=")

if(ORVSCAN_SANITIZE)
  target_compile_options(orvscan_flags INTERFACE
    -fsanitize=${ORVSCAN_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(orvscan_flags INTERFACE -fsanitize=${ORVSCAN_SANITIZE})
endif()
if(ORVSCAN_COVERAGE)
  # Signal handlers and children count, too.
  target_compile_options(orvscan_flags INTERFACE --coverage -fprofile-update=atomic -O0)
  target_link_options(orvscan_flags INTERFACE --coverage)
  target_sources(orvscan_flags INTERFACE
    $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:${CMAKE_SOURCE_DIR}/tests/support/write_counters.c>)
endif()

# Hardening of what is shipped, after the OpenSSF compiler guide.
if(CMAKE_BUILD_TYPE STREQUAL "Release" AND NOT ORVSCAN_SANITIZE)
  orvscan_add_flags(
    -fstack-protector-strong -fstack-clash-protection -fcf-protection=full
    -fno-delete-null-pointer-checks -fno-strict-overflow -fno-strict-aliasing
    -ftrivial-auto-var-init=zero)
  target_compile_options(orvscan_flags INTERFACE
    -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3 -D_GLIBCXX_ASSERTIONS)
  target_link_options(orvscan_flags INTERFACE
    -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,--as-needed
    "$<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-pie;-Wl,-z,nodlopen>")
endif()
