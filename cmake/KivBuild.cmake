# Shared build settings: warnings, sanitizers and the one-library-per-folder helper.

add_compile_options(-Wall -Wextra -Wno-unused-parameter)
# KIV_WERROR (CI turns it on): a warning fails the build.
if(KIV_WERROR)
  add_compile_options(-Werror)
endif()

# KIV_THREAD_SAFETY (make check-threads): clang checks the lock annotations of
# host/ThreadAnnotations.h; a field touched without its lock fails the build.
if(KIV_THREAD_SAFETY)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "KIV_THREAD_SAFETY needs clang (CC=clang CXX=clang++)")
  endif()
  add_compile_options(-Wthread-safety -Werror=thread-safety)
endif()

if(KIV_SANITIZE)
  add_compile_options(-fsanitize=${KIV_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=${KIV_SANITIZE})
endif()

# Debian's hardening flags (fortify, stack protector, relro, BIND_NOW) as
# dpkg-buildflags gives them, in every build but the sanitizer builds, so the
# packaged programs and the tested ones are the same. The build type keeps
# choosing optimisation and debug information (-O, -g and the prefix map are
# dropped from what dpkg-buildflags says). All executables are PIE.
option(KIV_HARDEN "Build with the hardening flags of dpkg-buildflags" ON)
find_program(KIV_DPKG_BUILDFLAGS dpkg-buildflags)
if(KIV_HARDEN AND NOT KIV_SANITIZE AND KIV_DPKG_BUILDFLAGS)
  foreach(kind CPPFLAGS CXXFLAGS LDFLAGS)
    execute_process(COMMAND ${CMAKE_COMMAND} -E env DEB_BUILD_MAINT_OPTIONS=hardening=+all
                            ${KIV_DPKG_BUILDFLAGS} --get ${kind}
                    OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE)
    separate_arguments(flags UNIX_COMMAND "${flags}")
    list(FILTER flags EXCLUDE REGEX "^-(g|O.*|ffile-prefix-map=.*|fdebug-prefix-map=.*)$")
    if(kind STREQUAL LDFLAGS)
      add_link_options(${flags})
    else()
      add_compile_options(${flags})
    endif()
  endforeach()
endif()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
include(CheckPIESupported)
check_pie_supported()

# kiv_library(NAME folder-name DEPS targets...)
# Builds every .cpp of the calling folder into the static library kiv_<NAME>.
# Headers are included as "folder/File.h" from the source root.
function(kiv_library name)
  cmake_parse_arguments(K "" "" "DEPS" ${ARGN})
  file(GLOB srcs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp ${CMAKE_CURRENT_SOURCE_DIR}/*.c)
  add_library(kiv_${name} STATIC ${srcs})
  target_include_directories(kiv_${name} PUBLIC ${CMAKE_SOURCE_DIR})
  target_link_libraries(kiv_${name} PUBLIC ${K_DEPS})
endfunction()

# kiv_test(NAME SOURCES files... LIBS targets... [LABELS labels...] [TIMEOUT seconds])
# One GoogleTest executable, run as one CTest test. Label "tsan" marks the
# tests that the ThreadSanitizer build runs.
function(kiv_test name)
  cmake_parse_arguments(K "" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${K_SOURCES})
  target_link_libraries(${name} PRIVATE ${K_LIBS} kiv_testsupport GTest::gtest GTest::gmock)
  # GCC 12 with the sanitizers warns falsely inside std::regex (a
  # std::function in its compiler's states "may be used uninitialized"), which
  # only tests use: off for the tests of the sanitizer builds alone.
  if(KIV_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${name} PRIVATE -Wno-maybe-uninitialized)
  endif()
  add_test(NAME ${name} COMMAND ${name})
  if(NOT K_TIMEOUT)
    set(K_TIMEOUT 600)
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT ${K_TIMEOUT} LABELS "${K_LABELS}")
  # The ThreadSanitizer build compiles only these.
  if("tsan" IN_LIST K_LABELS)
    if(NOT TARGET kiv_tsan_tests)
      add_custom_target(kiv_tsan_tests)
    endif()
    add_dependencies(kiv_tsan_tests ${name})
  endif()
endfunction()
