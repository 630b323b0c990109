#include "entry_form.h"

#include "schedule_rules.h"

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
        if (field == 0) {
            if (type != variant_type_string) {
                return std::nullopt;
            }
            continue;
        }
        if (!isPlainInteger(type)) {
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

bool reproduces(std::span<const schedule_entry_t> entries, const entrylist_form_t& form,
                const variant_list_t& maps, std::span<const std::size_t> order) {
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (!(rebuild(entries[i], form) == maps[order[i]])) {
            return false;
        }
    }
    return true;
}

// Every element as a record, in input order; at the first that is not an
// entry map, its position.
std::optional<std::vector<schedule_entry_t>> records(const variant_list_t& maps,
                                                     std::size_t* bad) {
    std::vector<schedule_entry_t> all;
    all.reserve(maps.size());
    for (const variant_t& element : maps) {
        std::unique_ptr<schedule_entry_t> entry = variant2schedule_entry_t(&element);
        if (!entry) {
            *bad = all.size();
            return std::nullopt;
        }
        all.push_back(std::move(*entry));
    }
    return all;
}

// How the ordered entries are given back: rebuilt from the records when the
// maps follow one form, else the maps themselves in order.
entry_form_t formFor(const variant_list_t& maps, const parsed_entries_t& parsed) {
    entry_form_t form;
    if (parsed.order.empty()) {
        form.form = entrylist_form_t{};
        return form;
    }
    form.form = formOf(maps[parsed.order.front()]);
    if (form.form && reproduces(parsed.entries, *form.form, maps, parsed.order)) {
        return form;
    }
    form.form.reset();
    auto given = std::make_shared<variant_list_t>();
    given->reserve(parsed.order.size());
    for (std::size_t at : parsed.order) {
        given->push_back(maps[at]);
    }
    form.given = std::move(given);
    return form;
}

}  // namespace

entries_result_t entries_parse(const variant_list_t& maps) {
    entries_result_t result;
    std::optional<std::vector<schedule_entry_t>> all = records(maps, &result.badElement);
    if (!all) {
        return result;
    }
    parsed_entries_t parsed;
    parsed.order = schedule_order(*all);
    parsed.entries.reserve(parsed.order.size());
    for (std::size_t at : parsed.order) {
        parsed.entries.push_back(std::move((*all)[at]));
    }
    parsed.form = formFor(maps, parsed);
    result.parsed = std::move(parsed);
    return result;
}

std::shared_ptr<const variant_list_t> entries_maps(std::span<const schedule_entry_t> entries,
                                                   const entry_form_t& form) {
    if (!form.form) {
        return form.given;
    }
    auto maps = std::make_shared<variant_list_t>();
    maps->reserve(entries.size());
    for (const schedule_entry_t& entry : entries) {
        maps->push_back(rebuild(entry, *form.form));
    }
    return maps;
}
