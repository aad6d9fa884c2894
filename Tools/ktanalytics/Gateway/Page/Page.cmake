# The live page's files go into the gateway as byte arrays, generated at build time from the
# files beside this one, so that editing a page file rebuilds the gateway and nothing else.
# Included from Tools/ktanalytics/CMakeLists.txt; also run as a script (-P) by the build to
# write the generated source.

# Each file: name here, path served, content type (all UTF-8 text).
set(kt_page_assets
  "index.html|/|text/html"
  "page.css|/page.css|text/css"
  "page.js|/page.js|text/javascript")

if(CMAKE_SCRIPT_MODE_FILE)
  set(arrays "")
  set(entries "")
  set(index 0)
  foreach(asset IN LISTS kt_page_assets)
    string(REPLACE "|" ";" fields "${asset}")
    list(GET fields 0 name)
    list(GET fields 1 served)
    list(GET fields 2 type)
    file(READ "${PAGE_DIR}/${name}" bytes HEX)
    string(LENGTH "${bytes}" hexLength)
    math(EXPR size "${hexLength} / 2")
    string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
    string(REGEX REPLACE "((0x[0-9a-f][0-9a-f],){24})" "\\1\n    " bytes "${bytes}")
    string(APPEND arrays "// ${name}\nconst unsigned char asset${index}[${size}] = {\n    ${bytes}\n};\n\n")
    string(APPEND entries "    PageAsset{\"${served}\", \"${type}; charset=utf-8\", std::span<const unsigned char>(asset${index}, ${size})},\n")
    math(EXPR index "${index} + 1")
  endforeach()
  file(WRITE "${PAGE_OUTPUT}.new"
    "// Generated from Tools/ktanalytics/Gateway/Page by Page.cmake; edit those files instead.\n"
    "#include \"Gateway/Page/PageAssets.h\"\n\n"
    "namespace kt::gateway {\n\nnamespace {\n\n${arrays}"
    "const PageAsset assets[] = {\n${entries}};\n\n}  // namespace\n\n"
    "std::span<const PageAsset> pageAssets() { return assets; }\n\n}  // namespace kt::gateway\n")
  # Left untouched when unchanged, so that nothing recompiles for nothing.
  file(COPY_FILE "${PAGE_OUTPUT}.new" "${PAGE_OUTPUT}" ONLY_IF_DIFFERENT)
  file(REMOVE "${PAGE_OUTPUT}.new")
  return()
endif()

set(kt_page_dir ${CMAKE_CURRENT_LIST_DIR})
set(kt_page_source ${CMAKE_CURRENT_BINARY_DIR}/generated/GatewayPageAssets.cpp)
set(kt_page_inputs "")
foreach(asset IN LISTS kt_page_assets)
  string(REPLACE "|" ";" fields "${asset}")
  list(GET fields 0 name)
  list(APPEND kt_page_inputs ${kt_page_dir}/${name})
endforeach()
add_custom_command(
  OUTPUT ${kt_page_source}
  COMMAND ${CMAKE_COMMAND} -DPAGE_DIR=${kt_page_dir} -DPAGE_OUTPUT=${kt_page_source} -P ${kt_page_dir}/Page.cmake
  DEPENDS ${kt_page_inputs} ${kt_page_dir}/Page.cmake
  COMMENT "Embedding the gateway's live page"
  VERBATIM)
target_sources(kt_gateway PRIVATE ${kt_page_source})
