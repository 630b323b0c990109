#include "scheduler_entrylist.h"

#include <string_view>
#include <utility>

namespace {

constexpr std::array<std::string_view, 3> kKeys = {"state", "begin", "end"};

bool isPlainInteger(variant_type_t type) {
    return type == variant_type_int32 || type == variant_type_int64 ||
           type == variant_type_uint32 || type == variant_type_uint64;
}

// The form of the first map, when it is one the records can reproduce: the
// three keys in any order, a text state and times of a 32- or 64-bit type.
std::optional<entrylist_form_t> formOf(const variant_t& first) {
    const variant_map_t* map = variant_da_map(&first);
    if (map == nullptr || map->size() != kKeys.size()) {
        return std::nullopt;
    }
    entrylist_form_t form;
    unsigned seen = 0;
    for (std::size_t at = 0; at < map->size(); ++at) {
        const variant_map_entry_t& pair = (*map)[at];
        std::size_t field = 0;
        while (field < kKeys.size() && kKeys[field] != pair.key) {
            ++field;
        }
        if (field == kKeys.size() || (seen & (1U << field)) != 0) {
            return std::nullopt;
        }
        seen |= 1U << field;
        form.keyAt[at] = static_cast<std::uint8_t>(field);
        const variant_type_t type = variant_type(&pair.value);
        if (field == 0 && type != variant_type_string) {
            return std::nullopt;
        }
        if (field != 0 && !isPlainInteger(type)) {
            return std::nullopt;
        }
        (field == 1 ? form.beginType : form.endType) = type;
    }
    return form;
}

// The time as the client wrote it: signed types hold the 32-bit value with
// its sign, unsigned ones without.
variant_t timeOf(std::uint32_t value, variant_type_t type) {
    const auto signedValue = static_cast<std::int32_t>(value);
    switch (type) {
        case variant_type_int32:
            return variant_t(signedValue);
        case variant_type_int64:
            return variant_t(static_cast<std::int64_t>(signedValue));
        case variant_type_uint64:
            return variant_t(static_cast<std::uint64_t>(value));
        default:
            return variant_t(value);
    }
}

variant_t rebuild(const schedule_entry_t& entry, const entrylist_form_t& form) {
    variant_map_t map;
    map.reserve(kKeys.size());
    for (std::uint8_t field : form.keyAt) {
        switch (field) {
            case 0:
                map.push_back({std::string(kKeys[0]), variant_t(entry.state)});
                break;
            case 1:
                map.push_back({std::string(kKeys[1]), timeOf(entry.begin, form.beginType)});
                break;
            default:
                map.push_back({std::string(kKeys[2]), timeOf(entry.end, form.endType)});
                break;
        }
    }
    return variant_t(std::move(map));
}

bool reproduces(const entrylist_t& packed, const variant_list_t& list) {
    for (std::size_t i = 0; i < list.size(); ++i) {
        if (!(rebuild(packed.entries[i], *packed.form) == list[i])) {
            return false;
        }
    }
    return true;
}

}  // namespace

std::optional<entrylist_t> entrylist_pack(std::shared_ptr<const variant_list_t> list) {
    entrylist_t packed;
    if (!list || list->empty()) {
        packed.form = entrylist_form_t{};
        return packed;
    }
    packed.entries.reserve(list->size());
    for (const variant_t& element : *list) {
        std::unique_ptr<schedule_entry_t> entry = variant2schedule_entry_t(&element);
        if (!entry) {
            return std::nullopt;
        }
        packed.entries.push_back(std::move(*entry));
    }
    packed.entries.shrink_to_fit();
    packed.form = formOf(list->front());
    if (!packed.form || !reproduces(packed, *list)) {
        packed.form.reset();
        packed.given = std::move(list);
    }
    return packed;
}

std::shared_ptr<const variant_list_t> entrylist_variants(const entrylist_t& list) {
    if (!list.form) {
        return list.given;
    }
    auto maps = std::make_shared<variant_list_t>();
    maps->reserve(list.entries.size());
    for (const schedule_entry_t& entry : list.entries) {
        maps->push_back(rebuild(entry, *list.form));
    }
    return maps;
}
