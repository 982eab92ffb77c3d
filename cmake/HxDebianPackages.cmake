# cpack -G DEB: one package per component of HxInstall.cmake.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libhxcompactfile)
set(CPACK_PACKAGE_VENDOR "libHxCompactFile developers")
set(CPACK_PACKAGE_CONTACT "libHxCompactFile developers <developers@example.invalid>")
set(CPACK_COMPONENTS_ALL Runtime Development)
if(TARGET hxcf)
  list(APPEND CPACK_COMPONENTS_ALL Tools)
endif()
if(TARGET HxPython)
  list(APPEND CPACK_COMPONENTS_ALL Python)
endif()
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Where the libraries are that the program of the -dev package needs.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src
                                                ${PROJECT_BINARY_DIR}/tiles
                                                ${PROJECT_BINARY_DIR}/platform)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

# The first line of both descriptions is the project's own.
set(hx_description "\
Tiles are addressed by grid cell or by name, stored whole or in pieces, in
versions, and read by many threads and processes while others write.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libhxcompactfile${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "${hx_description}")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libhxcompactfile-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
    "${hx_description}\n.\nThis package holds what is needed to build programs with it.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME hxcf-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
    "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
    "${hx_description}\n.\nThis package holds the command hxcf, which looks into files, imports and\nexports them.")
# What Debian wants in every package.
set(hx_debian ${PROJECT_SOURCE_DIR}/cmake/debian)
if(TARGET HxPython)
  # An extension is for one version of Python. Debian's compiles modules as they are installed.
  set(hx_minor ${Python3_VERSION_MINOR})
  math(EXPR hx_next_minor "${hx_minor} + 1")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-hxcf)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (= ${PROJECT_VERSION}), \
python3 (>= 3.${hx_minor}~), python3 (<< 3.${hx_next_minor})")
  set(CPACK_DEBIAN_PYTHON_DESCRIPTION
      "${hx_description}\n.\nThis package holds the module hxcf for Python 3.")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA ${hx_debian}/python/postinst
                                                ${hx_debian}/python/prerm)
endif()
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${hx_debian}/triggers)
execute_process(COMMAND gzip -9nc ${hx_debian}/changelog
  OUTPUT_FILE ${PROJECT_BINARY_DIR}/changelog.gz COMMAND_ERROR_IS_FATAL ANY)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} name)
  install(FILES ${hx_debian}/copyright ${PROJECT_BINARY_DIR}/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${name}_PACKAGE_NAME}
    COMPONENT ${component})
endforeach()
install(FILES ${hx_debian}/overrides RENAME ${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME}
  DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT Runtime)
include(CPack)
