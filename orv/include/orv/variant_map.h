// Helpers on variant maps. A map keeps its keys in the order they were added;
// keys are matched exactly (case-sensitive).
#pragma once

#include <cstdint>
#include <string_view>

#include "orv/variant.h"

// The value stored under key, or null.
variant_t* variant_map_find(variant_map_t* map, std::string_view key);
const variant_t* variant_map_find(const variant_map_t* map, std::string_view key);

// Add an element at the end. A key that is present already is replaced in
// place, so a map never holds a key twice.
bool variant_map_add(variant_map_t* map, std::string_view key, const variant_t* value);
bool variant_map_addChar(variant_map_t* map, std::string_view key, std::string_view value);
bool variant_map_addUInt32(variant_map_t* map, std::string_view key, std::uint32_t value);
bool variant_map_addBool(variant_map_t* map, std::string_view key, bool value);
bool variant_map_addListCopy(variant_map_t* map, std::string_view key, const variant_list_t* list);
