# Shared build settings: warnings, sanitizers and the one-library-per-folder helper.

add_compile_options(-Wall -Wextra -Wno-unused-parameter)

if(KIV_SANITIZE)
  add_compile_options(-fsanitize=${KIV_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=${KIV_SANITIZE})
endif()

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
