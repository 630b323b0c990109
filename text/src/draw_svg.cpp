// The week grid as an SVG document: a coloured bar per day, hours across,
// the present moment as a red line, and a legend that names each state.
#include <array>
#include <string_view>

#include "scheduler/draw.h"

namespace scheduler {

namespace {

constexpr int kCell = 14;  // width of a half hour
constexpr int kRow = 24;   // height of a day
constexpr int kLeft = 48;  // room for the day names
constexpr int kTop = 44;   // room for the title and the hours
constexpr std::array<std::string_view, 7> kDays = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};
// The default state is a quiet grey; the others stand out, in the order of
// the terminal's colours.
constexpr std::array<std::string_view, 10> kFills = {"#d9d9d9", "#2ca02c", "#ff9f1a", "#1f77b4",
                                                     "#b04fc4", "#17a2a8", "#d62728", "#a6a600",
                                                     "#7b68ee", "#a0522d"};

std::string escaped(std::string_view text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string fill(std::uint8_t state) {
    return std::string(kFills[state % kFills.size()]);
}

// One rectangle per run of equal cells, titled with its state so that a
// viewer shows it on hover.
std::string dayRow(const week_grid_t& grid, int day) {
    const auto& cells = grid.cells[static_cast<std::size_t>(day)];
    std::string out;
    const int y = kTop + day * kRow;
    out += "<text x=\"8\" y=\"" + std::to_string(y + 16) + "\">" +
           std::string(kDays[static_cast<std::size_t>(day)]) + "</text>\n";
    for (int from = 0; from < week_grid_t::kSlots;) {
        int to = from;
        while (to < week_grid_t::kSlots &&
               cells[static_cast<std::size_t>(to)] == cells[static_cast<std::size_t>(from)]) {
            ++to;
        }
        const std::uint8_t state = cells[static_cast<std::size_t>(from)];
        out += "<rect x=\"" + std::to_string(kLeft + from * kCell) + "\" y=\"" +
               std::to_string(y + 2) + "\" width=\"" + std::to_string((to - from) * kCell) +
               "\" height=\"" + std::to_string(kRow - 4) + "\" fill=\"" + fill(state) +
               "\"><title>" + escaped(grid.states[state]) + "</title></rect>\n";
        // Runs of the other states are labelled where the name fits.
        const int runWidth = (to - from) * kCell;
        const auto& name = grid.states[state];
        if (state != 0 && runWidth >= static_cast<int>(name.size()) * 8 + 6) {
            out += "<text x=\"" + std::to_string(kLeft + from * kCell + runWidth / 2) + "\" y=\"" +
                   std::to_string(y + 16) +
                   "\" text-anchor=\"middle\" font-size=\"11\" fill=\"#fff\">" + escaped(name) +
                   "</text>\n";
        }
        from = to;
    }
    return out;
}

std::string hours() {
    std::string out;
    for (int hour = 0; hour <= 24; hour += 3) {
        const int x = kLeft + hour * 2 * kCell;
        out += "<line x1=\"" + std::to_string(x) + "\" y1=\"" + std::to_string(kTop - 4) +
               "\" x2=\"" + std::to_string(x) + "\" y2=\"" + std::to_string(kTop + 7 * kRow) +
               "\" stroke=\"#999\" stroke-width=\"0.5\"/>\n";
        out += "<text x=\"" + std::to_string(x) + "\" y=\"" + std::to_string(kTop - 8) +
               "\" text-anchor=\"middle\" font-size=\"11\">" + (hour < 10 ? "0" : "") +
               std::to_string(hour) + ":00</text>\n";
    }
    return out;
}

std::string legend(const week_grid_t& grid, int y) {
    std::string out;
    int x = kLeft;
    for (std::size_t i = 0; i < grid.states.size(); ++i) {
        out += "<rect x=\"" + std::to_string(x) + "\" y=\"" + std::to_string(y) +
               "\" width=\"14\" height=\"14\" fill=\"" + fill(static_cast<std::uint8_t>(i)) +
               "\"/>\n<text x=\"" + std::to_string(x + 20) + "\" y=\"" + std::to_string(y + 12) +
               "\">" + escaped(grid.states[i]) + "</text>\n";
        x += 40 + static_cast<int>(grid.states[i].size()) * 8;
    }
    return out;
}

std::string nowMarker(const week_grid_t& grid) {
    if (!grid.now) {
        return "";
    }
    const int day = static_cast<int>(*grid.now / 86400);
    const int x = kLeft + static_cast<int>(*grid.now % 86400) * kCell / 1800;
    const int y = kTop + day * kRow;
    return "<line x1=\"" + std::to_string(x) + "\" y1=\"" + std::to_string(y) + "\" x2=\"" +
           std::to_string(x) + "\" y2=\"" + std::to_string(y + kRow) +
           "\" stroke=\"#e00\" stroke-width=\"2\"><title>now, " + escaped(grid.nowLabel) +
           "</title></line>\n";
}

}  // namespace

std::string draw_week_svg(const week_grid_t& grid, const std::string& title) {
    const int width = kLeft + week_grid_t::kSlots * kCell + 16;
    const int legendY = kTop + 7 * kRow + 14;
    const int height = legendY + 30;
    std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    out += "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + std::to_string(width) +
           "\" height=\"" + std::to_string(height) + "\" viewBox=\"0 0 " + std::to_string(width) +
           " " + std::to_string(height) + "\" font-family=\"sans-serif\" font-size=\"13\">\n";
    out += "<rect width=\"100%\" height=\"100%\" fill=\"#fff\"/>\n";
    out += "<text x=\"8\" y=\"18\" font-size=\"15\" font-weight=\"bold\">" + escaped(title) +
           "</text>\n";
    out += hours();
    for (int day = 0; day < week_grid_t::kDays; ++day) {
        out += dayRow(grid, day);
    }
    out += nowMarker(grid);
    out += legend(grid, legendY);
    return out + "</svg>\n";
}

}  // namespace scheduler
