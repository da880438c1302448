# What every target of the project has in common, and one function per kind of target.
include(GNUInstallDirs)

set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)

# What a function costs must not depend on where the one before it ended: that alone was worth 12 % of a short one.
add_compile_options(-falign-functions=64)

if(ZEL_SANITIZE)
  add_compile_options(-O1 -g1 -fsanitize=${ZEL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ZEL_SANITIZE})
endif()

find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)

function(zel_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)
endfunction()

# A folder of the plug-in: objects without exceptions, RTTI or any need of the C++ runtime library. Its own folder is its
# only include directory; DEPENDS names the targets whose headers its sources may include, EXPOSES those that its headers
# include.
function(zel_plugin_module target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;DEPENDS;EXPOSES")
  add_library(${target} OBJECT ${arg_SOURCES})
  zel_warnings(${target})
  target_compile_options(${target} PRIVATE
    $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>)
  target_compile_definitions(${target} PRIVATE ZEL_RTC_SPEECH_TO_TEXT_BUILD)
  target_include_directories(${target} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(${target} PRIVATE ${arg_DEPENDS} PUBLIC ${arg_EXPOSES})
  set_property(GLOBAL APPEND PROPERTY ZEL_PLUGIN_MODULES ${target})
endfunction()

# A static library of ordinary C++.
function(zel_library target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;DEPENDS;EXPOSES")
  add_library(${target} STATIC ${arg_SOURCES})
  zel_warnings(${target})
  target_include_directories(${target} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(${target} PRIVATE ${arg_DEPENDS} PUBLIC ${arg_EXPOSES})
endfunction()

# A program; NAME is its file name.
function(zel_program target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "NAME" "SOURCES;DEPENDS")
  add_executable(${target} ${arg_SOURCES})
  zel_warnings(${target})
  set_target_properties(${target} PROPERTIES OUTPUT_NAME ${arg_NAME})
  target_link_libraries(${target} PRIVATE ${arg_DEPENDS})
endfunction()

# A GoogleTest program whose cases CTest runs one by one. TIMEOUT is in seconds, 60 by default.
function(zel_test target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "TIMEOUT" "SOURCES;DEPENDS")
  add_executable(${target} ${arg_SOURCES})
  zel_warnings(${target})
  target_link_libraries(${target} PRIVATE ${arg_DEPENDS} GTest::gtest GTest::gmock GTest::gtest_main)
  set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 60)
  endif()
  gtest_discover_tests(${target} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT ${arg_TIMEOUT})
endfunction()

# A test of plug-in modules: sees the headers of the folders named in MODULES and links the plug-in as an archive.
function(zel_module_test target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "TIMEOUT" "SOURCES;DEPENDS;MODULES")
  zel_test(${target} SOURCES ${arg_SOURCES} TIMEOUT "${arg_TIMEOUT}" DEPENDS ${arg_DEPENDS} zel_plugin_archive zel_include)
  foreach(module IN LISTS arg_MODULES)
    target_include_directories(${target} PRIVATE $<TARGET_PROPERTY:${module},INTERFACE_INCLUDE_DIRECTORIES>)
  endforeach()
endfunction()

# A Google Benchmark program, part of the target benchmarks; it sees the plug-in's folders as a module test does.
function(zel_benchmark target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;DEPENDS;MODULES")
  zel_program(${target} NAME ${target} SOURCES ${arg_SOURCES}
    DEPENDS ${arg_DEPENDS} zel_plugin_archive zel_include benchmark::benchmark)
  foreach(module IN LISTS arg_MODULES)
    target_include_directories(${target} PRIVATE $<TARGET_PROPERTY:${module},INTERFACE_INCLUDE_DIRECTORIES>)
  endforeach()
  set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bench)
  add_dependencies(benchmarks ${target})
endfunction()
