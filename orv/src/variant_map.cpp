// Helpers on variant maps: keys in insertion order, each key at most once.
#include "orv/variant_map.h"

#include <string>
#include <utility>

#include "orv/error.h"

namespace {

// Stores value under key: in place when the key is present, else at the end.
bool put(variant_map_t* map, std::string_view key, variant_t value) {
    if (map == nullptr) {
        orv_setError(orv_error_invalid_argument);
        return false;
    }
    if (variant_t* existing = variant_map_find(map, key)) {
        *existing = std::move(value);
        return true;
    }
    map->push_back(variant_map_entry_t{std::string(key), std::move(value)});
    return true;
}

}  // namespace

variant_t* variant_map_find(variant_map_t* map, std::string_view key) {
    if (map == nullptr) {
        return nullptr;
    }
    for (variant_map_entry_t& entry : *map) {
        if (entry.key == key) {
            return &entry.value;
        }
    }
    return nullptr;
}

const variant_t* variant_map_find(const variant_map_t* map, std::string_view key) {
    return variant_map_find(const_cast<variant_map_t*>(map), key);
}

bool variant_map_add(variant_map_t* map, std::string_view key, const variant_t* value) {
    if (value == nullptr) {
        orv_setError(orv_error_invalid_argument);
        return false;
    }
    // Copy first: key and value may live in the map itself.
    return put(map, std::string(key), variant_t(*value));
}

bool variant_map_addChar(variant_map_t* map, std::string_view key, std::string_view value) {
    return put(map, std::string(key), variant_t(value));
}

bool variant_map_addUInt32(variant_map_t* map, std::string_view key, std::uint32_t value) {
    return put(map, key, variant_t(value));
}

bool variant_map_addBool(variant_map_t* map, std::string_view key, bool value) {
    return put(map, key, variant_t(value));
}

bool variant_map_addListCopy(variant_map_t* map, std::string_view key, const variant_list_t* list) {
    if (list == nullptr) {
        orv_setError(orv_error_invalid_argument);
        return false;
    }
    return put(map, std::string(key), variant_t(variant_list_t(*list)));
}
