# hx_map_library(VARIABLE): sets it to the files of the map library, MapLibre GL, that the page takes
# from npm, by page/package-lock.json; their licences are in the file that the global property
# HX_MAP_LICENCE names. They are fetched once, when the build is configured, and again when
# package-lock.json changes. Without npm or a network, the page has a stand-in and says that its map is
# left out.
set(HX_PAGE_MAP AUTO CACHE STRING
  "Put the map library into the page of hxcf serve: ON, OFF, or AUTO if it can be had")
set_property(CACHE HX_PAGE_MAP PROPERTY STRINGS AUTO ON OFF)

function(hx_map_library variable)
  set(page ${CMAKE_CURRENT_SOURCE_DIR}/page)
  set(folder ${CMAKE_CURRENT_BINARY_DIR}/map-library)
  set(${variable} ${page}/without-npm/maplibre-gl.mjs PARENT_SCOPE)
  if(NOT HX_PAGE_MAP)
    return()
  endif()
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${page}/package-lock.json)
  set(names maplibre-gl.mjs maplibre-gl-worker.mjs maplibre-gl.css maplibre-gl-LICENSE.txt)
  list(TRANSFORM names PREPEND ${folder}/ OUTPUT_VARIABLE files)

  # The last of the files is there only if all are.
  if(${page}/package-lock.json IS_NEWER_THAN ${folder}/maplibre-gl-LICENSE.txt)
    hx_fetch_map_library(${page} ${folder} trouble)
    if(trouble AND HX_PAGE_MAP STREQUAL "AUTO")
      message(STATUS "The page of hxcf serve has no map: ${trouble}")
      return()
    elseif(trouble)
      message(FATAL_ERROR "HX_PAGE_MAP is ${HX_PAGE_MAP}, but ${trouble}")
    endif()
  endif()
  set(${variable} ${files} PARENT_SCOPE)
  set_property(GLOBAL PROPERTY HX_MAP_LICENCE ${folder}/maplibre-gl-LICENSE.txt)
endfunction()

# Puts the library's files into the folder; sets `trouble` to why it could not.
function(hx_fetch_map_library page folder trouble)
  find_program(HX_npm npm)
  if(NOT HX_npm)
    set(${trouble} "there is no npm" PARENT_SCOPE)
    return()
  endif()
  message(STATUS "Fetching the map library by npm")
  file(REMOVE_RECURSE ${folder})
  file(COPY ${page}/package.json ${page}/package-lock.json DESTINATION ${folder})
  execute_process(COMMAND ${HX_npm} ci --ignore-scripts --no-audit --no-fund --fetch-retries=0
    WORKING_DIRECTORY ${folder} TIMEOUT 120 RESULT_VARIABLE result
    OUTPUT_FILE ${folder}/npm.log ERROR_FILE ${folder}/npm.log)
  if(NOT result EQUAL 0)
    set(${trouble} "npm cannot fetch it (see ${folder}/npm.log)" PARENT_SCOPE)
    return()
  endif()
  set(package ${folder}/node_modules/maplibre-gl)
  file(COPY ${package}/dist/maplibre-gl.mjs ${package}/dist/maplibre-gl-worker.mjs
            ${package}/dist/maplibre-gl.css DESTINATION ${folder})
  # The library has parts of the packages that it depends on within it.
  set(licences "")
  file(GLOB_RECURSE texts RELATIVE ${folder}/node_modules ${folder}/node_modules/*/LICENSE*)
  foreach(text IN LISTS texts)
    file(READ ${folder}/node_modules/${text} licence)
    string(APPEND licences "==== ${text}\n\n${licence}\n\n")
  endforeach()
  file(WRITE ${folder}/maplibre-gl-LICENSE.txt "${licences}")
  file(REMOVE_RECURSE ${folder}/node_modules)
  set(${trouble} "" PARENT_SCOPE)
endfunction()
