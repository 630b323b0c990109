// The console page's files, built into the program.
#pragma once

#include <string_view>

struct web_asset_t {
    std::string_view name;
    std::string_view contentType;
    std::string_view data;
};

// The file of that name ("index.html", "console.js", …), or null.
const web_asset_t* web_findAsset(std::string_view name);
