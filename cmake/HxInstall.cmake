# cmake --install, and find_package(HxCompactFile) with HxCompactFile_DIR naming this build folder.
include(CMakePackageConfigHelpers)

# On Debian the libraries lie where its packages have them, whatever the prefix: one build folder
# serves both.
if(PROJECT_IS_TOP_LEVEL AND CMAKE_LIBRARY_ARCHITECTURE AND EXISTS /etc/debian_version)
  set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Folder of the libraries")
endif()
include(GNUInstallDirs)
set(hx_include_dir ${CMAKE_INSTALL_INCLUDEDIR}/HxCompactFile)
set(hx_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/HxCompactFile)
set(hx_pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The libraries find each other wherever their folder is moved.
set(hx_libraries HxBase HxStream HxToolkit HxCompactFile HxTiles)
set_target_properties(${hx_libraries} PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS ${hx_libraries} EXPORT HxCompactFileTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development
  INCLUDES DESTINATION ${hx_include_dir})
# The command, with its manual and its completion.
if(TARGET hxcf)
  file(RELATIVE_PATH hx_libraries_from_bin /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
  set_target_properties(hxcf PROPERTIES INSTALL_RPATH "$ORIGIN/${hx_libraries_from_bin}")
  install(TARGETS hxcf RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Tools)
  install(DIRECTORY ${PROJECT_BINARY_DIR}/tools/hxcf/man1
    DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT Tools)
  install(FILES ${PROJECT_BINARY_DIR}/tools/hxcf/completion RENAME hxcf
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT Tools)
  get_property(hx_map_licence GLOBAL PROPERTY HX_MAP_LICENCE)
  if(hx_map_licence)
    install(FILES ${hx_map_licence} DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/hxcf-tools
      COMPONENT Tools)
  endif()
endif()
# The Python module: where Debian's Python looks, or below the prefix where that of others does.
if(TARGET HxPython)
  if(EXISTS /etc/debian_version)
    set(hx_python_dir lib/python3/dist-packages/hxcf)
  else()
    set(hx_python_dir lib/python${Python3_VERSION_MAJOR}.${Python3_VERSION_MINOR}/site-packages/hxcf)
  endif()
  file(RELATIVE_PATH hx_libraries_from_python /${hx_python_dir} /${CMAKE_INSTALL_LIBDIR})
  set_target_properties(HxPython PROPERTIES INSTALL_RPATH "$ORIGIN/${hx_libraries_from_python}")
  install(TARGETS HxPython LIBRARY DESTINATION ${hx_python_dir} COMPONENT Python)
  install(DIRECTORY python/hxcf/ DESTINATION ${hx_python_dir} COMPONENT Python
    FILES_MATCHING PATTERN "*.py" PATTERN "*.pyi" PATTERN py.typed)
endif()
install(DIRECTORY include/ tiles/include/ platform/base/include/ platform/stream/include/ platform/toolkit/include/
  DESTINATION ${hx_include_dir} COMPONENT Development
  PATTERN FileSyscalls.h EXCLUDE)  # for tests

# The documents, which link to each other and to the examples.
install(FILES README.md CONTRIBUTING.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT Development)
install(DIRECTORY docs examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT Development
  PATTERN Doxyfile EXCLUDE)

configure_file(cmake/HxCompactFileConfig.cmake.in HxCompactFileConfig.cmake COPYONLY)
write_basic_package_version_file(HxCompactFileConfigVersion.cmake COMPATIBILITY SameMajorVersion)
export(EXPORT HxCompactFileTargets NAMESPACE HxCompactFile::)
install(EXPORT HxCompactFileTargets NAMESPACE HxCompactFile::
  DESTINATION ${hx_cmake_dir} COMPONENT Development)
install(FILES ${PROJECT_BINARY_DIR}/HxCompactFileConfig.cmake
  ${PROJECT_BINARY_DIR}/HxCompactFileConfigVersion.cmake
  DESTINATION ${hx_cmake_dir} COMPONENT Development)

# The way from the .pc file to the prefix, which may be moved.
set(hx_prefix_from_pc /)
cmake_path(RELATIVE_PATH hx_prefix_from_pc BASE_DIRECTORY /${hx_pkgconfig_dir})
foreach(hx_library IN ITEMS hxcompactfile hxtiles)
  configure_file(cmake/${hx_library}.pc.in ${hx_library}.pc @ONLY)
endforeach()
install(FILES ${PROJECT_BINARY_DIR}/hxcompactfile.pc ${PROJECT_BINARY_DIR}/hxtiles.pc
  DESTINATION ${hx_pkgconfig_dir} COMPONENT Development)
