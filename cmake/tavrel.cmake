# Helpers that keep every target's settings in one place.

# Warnings and sanitizers, linked by every target of ours and by nothing else.
add_library(tavrel_settings INTERFACE)
target_compile_options(tavrel_settings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
target_include_directories(tavrel_settings INTERFACE ${CMAKE_SOURCE_DIR}/src)
if(TAVREL_SANITIZER)
  target_compile_options(tavrel_settings INTERFACE
    -fsanitize=${TAVREL_SANITIZER} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(tavrel_settings INTERFACE -fsanitize=${TAVREL_SANITIZER})
endif()
if(TAVREL_SANITIZER MATCHES "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  target_compile_options(tavrel_settings INTERFACE -Wno-tsan)
endif()
if(TAVREL_SANITIZER MATCHES "address" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # g++ 12 sees uninitialised members in the standard library's <regex> once that is instrumented.
  target_compile_options(tavrel_settings INTERFACE -Wno-maybe-uninitialized)
endif()
if(CMAKE_UNITY_BUILD)
  # Several files are compiled as one: what is private to a file then looks as if it came from a header.
  target_compile_options(tavrel_settings INTERFACE -Wno-subobject-linkage)
endif()

# Of every test, and so of the programs that it starts. A longer history (8 MB a thread), since a
# suppression works only where both stacks are still known; no sleep of a second when a program ends,
# since tests wait for that.
set(TAVREL_TSAN_ENVIRONMENT
  "TSAN_OPTIONS=suppressions=${CMAKE_SOURCE_DIR}/tests/tsan.supp history_size=5 atexit_sleep_ms=0")

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
endif()
find_program(LLD_PROGRAM ld.lld)
if(LLD_PROGRAM)
  add_link_options(-fuse-ld=lld)
endif()

# tavrel_library(<folder> SOURCES a.cpp … [LINKS tavrel_x …] [PRIVATE_LINKS CURL::libcurl …])
# One static library per folder of src/, named tavrel_<folder>.
function(tavrel_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS;PRIVATE_LINKS" ${ARGN})
  add_library(tavrel_${name} STATIC ${ARG_SOURCES})
  target_link_libraries(tavrel_${name} PUBLIC tavrel_settings Threads::Threads ${ARG_LINKS}
                                       PRIVATE ${ARG_PRIVATE_LINKS})
endfunction()

# tavrel_test(<name> SOURCES a_test.cpp … LINKS tavrel_x … [LABELS slow])
# One GoogleTest binary; every TEST in it becomes a ctest entry of its own only for slow ones,
# otherwise the binary is one entry (starting a process per case costs more than the case).
function(tavrel_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LINKS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE tavrel_settings ${ARG_LINKS} GTest::gtest_main GTest::gmock)
  add_test(NAME ${name} COMMAND ${name})
  if(name MATCHES "^unit_")
    add_dependencies(unit_tests ${name})
  endif()
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 300)
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABELS}")
  if(TAVREL_SANITIZER MATCHES "thread")
    set_tests_properties(${name} PROPERTIES ENVIRONMENT "${TAVREL_TSAN_ENVIRONMENT}")
  endif()
endfunction()

# A folder that joins the build once it has something to build.
macro(tavrel_folder path)
  if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${path}/CMakeLists.txt)
    add_subdirectory(${path})
  endif()
endmacro()
