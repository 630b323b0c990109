// Helpers on variant lists.
#include "orv/variant_list.h"

#include <string>
#include <utility>

#include "orv/error.h"

void variant_list_initialize(variant_list_t* list) {
    if (list != nullptr) {
        list->clear();
    }
}

void variant_list_cleanup(variant_list_t* list) {
    if (list != nullptr) {
        list->clear();
        list->shrink_to_fit();
    }
}

std::size_t variant_list_size(const variant_list_t* list) {
    return list != nullptr ? list->size() : 0;
}

bool variant_list_isEmpty(const variant_list_t* list) {
    return list == nullptr || list->empty();
}

bool variant_list_add(variant_list_t* list, const variant_t* variant) {
    if (list == nullptr || variant == nullptr) {
        orv_setError(orv_error_invalid_argument);
        return false;
    }
    variant_t copy(*variant);  // the variant may live in the list itself
    list->push_back(std::move(copy));
    return true;
}

bool variant_list_addChar(variant_list_t* list, std::string_view text) {
    if (list == nullptr) {
        orv_setError(orv_error_invalid_argument);
        return false;
    }
    variant_t value(text);  // the text may live in the list itself
    list->push_back(std::move(value));
    return true;
}

bool variant_list_addString(variant_list_t* list, const std::string& text) {
    return variant_list_addChar(list, text);
}

variant_t* variant_list_first(variant_list_t* list) {
    if (list == nullptr || list->empty()) {
        return nullptr;
    }
    return &list->front();
}
