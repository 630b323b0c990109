// Helpers on variant lists. A list is a std::vector of variants, so callers
// walk it with a range-for; these cover what the plug-in adds and checks.
#pragma once

#include <cstddef>
#include <string_view>

#include "orv/variant.h"

void variant_list_initialize(variant_list_t* list);
void variant_list_cleanup(variant_list_t* list);
std::size_t variant_list_size(const variant_list_t* list);
bool variant_list_isEmpty(const variant_list_t* list);
// Appends a copy of the variant.
bool variant_list_add(variant_list_t* list, const variant_t* variant);
bool variant_list_addChar(variant_list_t* list, std::string_view text);
bool variant_list_addString(variant_list_t* list, const std::string& text);
// The first element, or null for an empty or missing list.
variant_t* variant_list_first(variant_list_t* list);
