# Warnings and sanitizers: one place for every target of this project.

option(HX_WARNINGS_AS_ERRORS "Treat compiler warnings as errors" OFF)
set(HX_SANITIZE "" CACHE STRING "Sanitizers, as -fsanitize= takes them (address,undefined or thread)")
option(HX_COVERAGE "Record test coverage" OFF)

if(PROJECT_IS_TOP_LEVEL AND NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "" FORCE)
endif()

# From -O2 on, g++ 12 counts a loop down by an instruction that overwrites the condition code, even if
# a branch behind the loop still needs it: StoreBatch::Write then wrote no entries. The option -march
# changes nothing.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_SYSTEM_PROCESSOR MATCHES "^s390")
  add_compile_options(-fno-branch-count-reg)
endif()

find_package(Threads REQUIRED)

function(hx_target_settings target)
  target_compile_features(${target} PRIVATE cxx_std_20)
  set_target_properties(${target} PROPERTIES
    CXX_EXTENSIONS OFF
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    POSITION_INDEPENDENT_CODE ON)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
  # Nobody replaces functions of these libraries, so calls within one need no detour.
  target_compile_options(${target} PRIVATE -fno-semantic-interposition)
  # Of tests and programs the lines will do: that takes a quarter less time to build. package_abi
  # looks into the libraries.
  get_target_property(type ${target} TYPE)
  if(type MATCHES "EXECUTABLE|MODULE" AND CMAKE_CXX_FLAGS MATCHES "(^| )-g( |$)")
    target_compile_options(${target} PRIVATE -g1)
  endif()
  if(HX_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  if(HX_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${HX_SANITIZE} -fno-sanitize-recover=all
                                             -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=${HX_SANITIZE})
    # The sanitizer does not follow fences; where there is one, nothing that it looks at depends on it.
    if(HX_SANITIZE MATCHES "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
      target_compile_options(${target} PRIVATE -Wno-tsan)
    endif()
  endif()
  if(HX_COVERAGE)
    target_compile_options(${target} PRIVATE --coverage)
    target_link_options(${target} PRIVATE --coverage)
  endif()
endfunction()

# Compiles several files of the target at once: to read the headers of libraries, and to make code of
# their templates for each file anew, takes most of the time.
function(hx_build_together target)
  set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 6)
endfunction()

# A shared library with an include folder that its users need as well. Its headers stay usable
# from C++17.
function(hx_shared_library target include_dir)
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${include_dir}>)
  target_compile_features(${target} PUBLIC cxx_std_17)
  hx_target_settings(${target})
  set_target_properties(${target} PROPERTIES
    VERSION ${HxCompactFile_VERSION}
    SOVERSION ${HxCompactFile_VERSION_MAJOR})
  # Sanitizers want one address for the type information of the standard library's templates.
  if(NOT HX_SANITIZE)
    set(map ${HxCompactFile_SOURCE_DIR}/cmake/HxExports.map)
    target_link_options(${target} PRIVATE LINKER:--version-script=${map}
                                          LINKER:-Bsymbolic-functions)
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${map})
  endif()
endfunction()
