#include "load_arguments.h"

#include <fstream>
#include <utility>

namespace load {

namespace {

variant_t entry(const char* state, std::uint32_t begin, std::uint32_t end) {
    variant_map_t map;
    map.push_back({"state", variant_t(state)});
    map.push_back({"begin", variant_t(begin)});
    map.push_back({"end", variant_t(end)});
    return variant_t(std::move(map));
}

}  // namespace

variant_map_t addArguments(const std::string& type, const std::string& id, const char* base,
                           variant_list_t entries) {
    variant_map_t info;
    info.push_back({"ID", variant_t(id)});
    info.push_back({"enable", variant_t(true)});
    info.push_back({"base", variant_t(base)});
    info.push_back({"def", variant_t("off")});
    info.push_back({"override", variant_t("")});
    info.push_back({"schedule", variant_t(std::move(entries))});
    variant_map_t arguments;
    arguments.push_back({"type", variant_t(type)});
    arguments.push_back({"info", variant_t(std::move(info))});
    return arguments;
}

variant_map_t onceArguments(const std::string& type, const std::string& id, std::int64_t begin,
                            std::int64_t end) {
    variant_list_t entries;
    entries.push_back(
        entry("on", static_cast<std::uint32_t>(begin), static_cast<std::uint32_t>(end)));
    return addArguments(type, id, "Once", std::move(entries));
}

daily_entry_t dailyEntry(std::size_t i, std::size_t k) {
    constexpr std::uint32_t kQuarter = 21600;
    constexpr std::uint32_t kSpan = 900;
    const auto first = static_cast<std::uint32_t>((i * 7919) % (kQuarter - kSpan));
    const auto begin = static_cast<std::uint32_t>(first + k * kQuarter);
    return {k % 2 == 0 ? "on" : "eco", begin, begin + kSpan};
}

variant_map_t dailyArguments(const std::string& type, const std::string& id, std::size_t i) {
    variant_list_t entries;
    for (std::size_t k = 0; k < kDailyEntries; ++k) {
        const daily_entry_t e = dailyEntry(i, k);
        entries.push_back(entry(e.state, e.begin, e.end));
    }
    return addArguments(type, id, "Daily", std::move(entries));
}

bool writeDailyStore(const std::filesystem::path& file, const std::string& type,
                     std::size_t count) {
    std::ofstream out(file);
    out << "{\"type\": \"" << type << "\", \"rejected\": [], \"schedules\": [";
    for (std::size_t i = 0; i < count; ++i) {
        out << (i == 0 ? "\n" : ",\n") << "{\"ID\": \"S" << i
            << R"(", "enable": true, "base": "Daily", "def": "off", "override": "", "schedule": [)";
        for (std::size_t k = 0; k < kDailyEntries; ++k) {
            const daily_entry_t e = dailyEntry(i, k);
            out << (k == 0 ? "" : ", ") << R"({"state": ")" << e.state << R"(", "begin": )"
                << e.begin << R"(, "end": )" << e.end << "}";
        }
        out << "]}";
    }
    out << "\n]}\n";
    out.close();
    return static_cast<bool>(out);
}

variant_map_t removeArguments(const std::string& type, const std::string& id) {
    variant_list_t ids;
    ids.emplace_back(id);
    variant_map_t arguments;
    arguments.push_back({"type", variant_t(type)});
    arguments.push_back({"ID", variant_t(std::move(ids))});
    return arguments;
}

variant_map_t registerArguments(const std::string& type, const std::string& path) {
    variant_list_t states;
    for (const char* state : {"on", "off", "eco"}) {
        states.emplace_back(state);
    }
    variant_map_t arguments;
    arguments.push_back({"type", variant_t(type)});
    arguments.push_back({"path", variant_t(path)});
    arguments.push_back({"states", variant_t(std::move(states))});
    return arguments;
}

variant_map_t typeArguments(const std::string& type) {
    variant_map_t arguments;
    arguments.push_back({"type", variant_t(type)});
    return arguments;
}

}  // namespace load
