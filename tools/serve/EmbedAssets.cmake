# hx_embed_assets(TARGET FILE...): compresses the files by gzip and puts them into the target, with a
# table of their names (without folders), types and bytes: Serve::kAssets of Assets.h.
find_program(HX_gzip gzip REQUIRED)

function(hx_embed_assets target)
  set(folder ${CMAKE_CURRENT_BINARY_DIR}/assets)
  set(type_html "text/html; charset=utf-8")
  set(type_css "text/css; charset=utf-8")
  set(type_js "text/javascript; charset=utf-8")
  set(type_mjs "${type_js}")
  set(type_json "application/json")
  set(type_svg "image/svg+xml")
  set(type_png "image/png")
  set(type_woff2 "font/woff2")
  set(type_txt "text/plain; charset=utf-8")

  set(bytes "")
  set(names "")
  set(rows "")
  set(compressed "")
  set(number 0)
  foreach(file IN LISTS ARGN)
    cmake_path(GET file FILENAME name)
    cmake_path(GET file EXTENSION LAST_ONLY extension)
    string(SUBSTRING "${extension}" 1 -1 extension)
    if(NOT DEFINED type_${extension})
      message(FATAL_ERROR "${file}: what type has .${extension}?")
    endif()
    set(output ${folder}/${name}.gz)
    add_custom_command(OUTPUT ${output}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${folder}
      COMMAND ${HX_gzip} -9nc ${file} > ${output}
      DEPENDS ${file}
      VERBATIM)
    list(APPEND compressed ${output})
    string(APPEND bytes
      "    \"hx_asset_${number}:\\n.incbin \\\"${output}\\\"\\nhx_asset_${number}_end:\\n\"\n")
    string(APPEND names "ASSET(hx_asset_${number})\nASSET(hx_asset_${number}_end)\n")
    string(APPEND rows "    {\"${name}\", \"${type_${extension}}\",\n"
                       "     {hx_asset_${number}, hx_asset_${number}_end}},\n")
    math(EXPR number "${number} + 1")
  endforeach()

  # The bytes go from the files into the object without a compiler that would have to read them.
  set(source ${CMAKE_CURRENT_BINARY_DIR}/AssetTable.cpp)
  file(CONFIGURE OUTPUT ${source} @ONLY CONTENT [[
#include "Assets.h"

asm(".pushsection .rodata, \"a\"\n"
@bytes@    ".popsection\n");

#define ASSET(name) extern "C" __attribute__((visibility("hidden"))) const char name[];
@names@
const std::vector<Serve::Asset> Serve::kAssets = {
@rows@};
]])
  # By itself, for files that are built together depend on no other ones.
  set_source_files_properties(${source} PROPERTIES
    OBJECT_DEPENDS "${compressed}"
    SKIP_UNITY_BUILD_INCLUSION ON)
  target_sources(${target} PRIVATE ${source})
endfunction()
