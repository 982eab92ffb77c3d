# Lets a project outside this tree say find_package(HxCompactFile) with HxCompactFile_DIR naming
# this build folder.
include(CMakePackageConfigHelpers)

set(hx_exported HxCompactFile)
foreach(base IN ITEMS HxBase HxStream HxToolkit)
  get_target_property(hx_imported ${base} IMPORTED)
  if(NOT hx_imported)
    list(APPEND hx_exported ${base})
  endif()
endforeach()

export(TARGETS ${hx_exported} NAMESPACE HxCompactFile::
       FILE ${PROJECT_BINARY_DIR}/HxCompactFileTargets.cmake)
configure_file(${CMAKE_CURRENT_LIST_DIR}/HxCompactFileConfig.cmake.in
               ${PROJECT_BINARY_DIR}/HxCompactFileConfig.cmake @ONLY)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/HxCompactFileConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
