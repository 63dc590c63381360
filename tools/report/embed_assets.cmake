# Writes a C++ source that holds the HTML page's style sheet and script as
# character arrays. Run as: cmake -DCSS=... -DJS=... -DOUT=... -P embed_assets.cmake
file(READ "${CSS}" css)
file(READ "${JS}" js)
set(delim "tarvex_asset")
foreach(text IN ITEMS "${css}" "${js}")
  string(FIND "${text}" ")${delim}\"" clash)
  if(NOT clash EQUAL -1)
    message(FATAL_ERROR "an embedded asset contains the raw-string delimiter")
  endif()
endforeach()
file(WRITE "${OUT}.tmp"
  "// Generated from page.css and page.js; do not edit.\n"
  "#include \"html_output.h\"\n\n"
  "namespace tarvex::report {\n\n"
  "extern const char k_page_css[] = R\"${delim}(${css})${delim}\";\n\n"
  "extern const char k_page_js[] = R\"${delim}(${js})${delim}\";\n\n"
  "}  // namespace tarvex::report\n")
# Rewritten only when different, so an unchanged page does not rebuild.
configure_file("${OUT}.tmp" "${OUT}" COPYONLY)
file(REMOVE "${OUT}.tmp")
