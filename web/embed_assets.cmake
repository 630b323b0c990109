# Writes OUTPUT: a C++ source that holds each file of FILES as bytes, so that
# orv-web serves its page from memory and never from a path.
#   cmake -DOUTPUT=out.cpp -DFILES="a.html|b.js" -P embed_assets.cmake
string(REPLACE "|" ";" FILES "${FILES}")
set(table "")
set(arrays "")
set(index 0)
foreach(file IN LISTS FILES)
    get_filename_component(name "${file}" NAME)
    get_filename_component(ext "${file}" LAST_EXT)
    if(ext STREQUAL ".html")
        set(type "text/html; charset=utf-8")
    elseif(ext STREQUAL ".js")
        set(type "text/javascript; charset=utf-8")
    elseif(ext STREQUAL ".css")
        set(type "text/css; charset=utf-8")
    elseif(ext STREQUAL ".svg")
        set(type "image/svg+xml")
    else()
        message(FATAL_ERROR "no content type for ${file}")
    endif()
    file(READ "${file}" hex HEX)
    string(LENGTH "${hex}" digits)
    math(EXPR size "${digits} / 2")
    string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
    if(size EQUAL 0)
        set(bytes "0")  # an array cannot be empty
    endif()
    string(APPEND arrays "const unsigned char asset${index}[] = {${bytes}};\n")
    string(APPEND table "    {\"${name}\", \"${type}\", {reinterpret_cast<const char*>(asset${index}), ${size}}},\n")
    math(EXPR index "${index} + 1")
endforeach()
file(WRITE "${OUTPUT}.tmp" "// Made by embed_assets.cmake from the files of web/assets.
#include \"web_assets.h\"

namespace {
${arrays}
const web_asset_t kAssets[] = {
${table}};
}  // namespace

const web_asset_t* web_findAsset(std::string_view name) {
    for (const web_asset_t& asset : kAssets) {
        if (asset.name == name) {
            return &asset;
        }
    }
    return nullptr;
}
")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
