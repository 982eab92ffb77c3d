# Finds Python, for the tests and for the module hxcf, and says whether that is built: HX_HAS_PYTHON.

# On Debian the system's, for whose packages the module is, and not one that comes first in PATH.
if(NOT DEFINED Python3_EXECUTABLE AND EXISTS /etc/debian_version AND EXISTS /usr/bin/python3)
  set(Python3_EXECUTABLE /usr/bin/python3)
endif()

set(HX_HAS_PYTHON ${HX_BUILD_PYTHON})
if(HX_BUILD_PYTHON STREQUAL "AUTO")
  set(HX_HAS_PYTHON OFF)
  # What it calls has its own tests under sanitizers, and Python itself is built without them.
  if(PROJECT_IS_TOP_LEVEL AND NOT CMAKE_CROSSCOMPILING AND NOT HX_SANITIZE)
    find_package(Python3 3.11 QUIET COMPONENTS Interpreter Development.Module)
    set(PYBIND11_NOPYTHON ON)  # it finds none of its own
    find_package(pybind11 2.10 QUIET CONFIG)
    if(Python3_FOUND AND pybind11_FOUND)
      set(HX_HAS_PYTHON ON)
    else()
      message(STATUS "No pybind11 or no Python 3.11 to build for: the Python module is left out")
    endif()
  endif()
elseif(HX_BUILD_PYTHON)
  set(PYBIND11_NOPYTHON ON)
  find_package(Python3 3.11 REQUIRED COMPONENTS Interpreter Development.Module)
  find_package(pybind11 2.10 REQUIRED CONFIG)
endif()
