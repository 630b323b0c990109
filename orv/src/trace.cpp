// Trace lines in the gateway's format, filtered by level and zone.
#include "orv/trace.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>

namespace {

constexpr int kDefaultLevel = TRACE_LEVEL_NOTICE;

struct trace_state_t {
    std::mutex mutex;
    int level = kDefaultLevel;
    std::map<std::string, int, std::less<>> zones;
    tolv_trace_sink_t sink;
};

trace_state_t& state() {
    static trace_state_t* s = new trace_state_t;  // never destroyed: traces may run at exit
    return *s;
}

const char* tagFor(int level) {
    if (level < TRACE_LEVEL_WARNING) {
        return "X";
    }
    if (level < TRACE_LEVEL_NOTICE) {
        return "x";
    }
    if (level < TRACE_LEVEL_APP_INFO) {
        return "!";
    }
    if (level < TRACE_LEVEL_INFO) {
        return "n";
    }
    if (level < TRACE_LEVEL_CALLSTACK) {
        return "i";
    }
    return "";
}

const char* baseName(const char* file) {
    if (!file) {
        return "";
    }
    const char* slash = std::strrchr(file, '/');
    return slash ? slash + 1 : file;
}

const char* orEmpty(const char* text) {
    return text ? text : "";
}

void appendV(std::string* out, const char* format, va_list args)
    __attribute__((format(printf, 2, 0)));
void appendV(std::string* out, const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    char small[256];
    const int needed = std::vsnprintf(small, sizeof small, format, copy);
    va_end(copy);
    if (needed < 0) {
        return;
    }
    if (static_cast<std::size_t>(needed) < sizeof small) {
        out->append(small, static_cast<std::size_t>(needed));
        return;
    }
    const std::size_t old = out->size();
    out->resize(old + static_cast<std::size_t>(needed) + 1);
    std::vsnprintf(out->data() + old, static_cast<std::size_t>(needed) + 1, format, args);
    out->resize(old + static_cast<std::size_t>(needed));
}

void append(std::string* out, const char* format, ...) __attribute__((format(printf, 2, 3)));
void append(std::string* out, const char* format, ...) {
    va_list args;
    va_start(args, format);
    appendV(out, format, args);
    va_end(args);
}

bool zonePasses(const char* zone, int level) {
    if (!zone) {
        return false;
    }
    trace_state_t& s = state();
    std::lock_guard lock(s.mutex);
    auto it = s.zones.find(std::string_view(zone));
    return it != s.zones.end() && level <= it->second;
}

void emit(int level, const std::string& line) {
    tolv_trace_sink_t sink;
    {
        trace_state_t& s = state();
        std::lock_guard lock(s.mutex);
        sink = s.sink;
    }
    if (sink) {
        sink(level, line);
        return;
    }
    std::string withNewline = line;
    withNewline.push_back('\n');
    std::fwrite(withNewline.data(), 1, withNewline.size(), stderr);
    std::fflush(stderr);
}

void messageLine(int level, const char* zoneText, const char* function, const char* file, int line,
                 const char* format, va_list args) __attribute__((format(printf, 6, 0)));
void messageLine(int level, const char* zoneText, const char* function, const char* file, int line,
                 const char* format, va_list args) {
    std::string text;
    append(&text, "%s%-7.7s%s - %s[%s]%s%s", "", orEmpty(zoneText), "", "", tagFor(level), "", "");
    if (format) {
        appendV(&text, format, args);
    }
    append(&text, "%s - %s(%s@%s:%d)%s", "", "", orEmpty(function), baseName(file), line, "");
    emit(level, text);
}

}  // namespace

void tolvTraceAddZone(int level, const char* zone) {
    if (!zone) {
        return;
    }
    trace_state_t& s = state();
    std::lock_guard lock(s.mutex);
    s.zones[zone] = level;
}

std::optional<int> tolvTraceZoneLevel(std::string_view zone) {
    trace_state_t& s = state();
    std::lock_guard lock(s.mutex);
    auto it = s.zones.find(zone);
    if (it == s.zones.end()) {
        return std::nullopt;
    }
    return it->second;
}

void tolvTraceSetLevel(int level) {
    trace_state_t& s = state();
    std::lock_guard lock(s.mutex);
    s.level = level;
}

int tolvTraceLevel() {
    trace_state_t& s = state();
    std::lock_guard lock(s.mutex);
    return s.level;
}

void tolvTraceReset() {
    trace_state_t& s = state();
    std::lock_guard lock(s.mutex);
    s.zones.clear();
    s.level = kDefaultLevel;
}

void tolvTraceSetSink(tolv_trace_sink_t sink) {
    trace_state_t& s = state();
    std::lock_guard lock(s.mutex);
    s.sink = std::move(sink);
}

void tolvTrace_message(int level, const char* module, const char* function, const char* file,
                       int line, const char* format, ...) {
    if (level > tolvTraceLevel()) {
        return;
    }
    const char* zoneText = level == TRACE_LEVEL_ERROR ? "" : orEmpty(module);
    va_list args;
    va_start(args, format);
    messageLine(level, zoneText, function, file, line, format, args);
    va_end(args);
}

void tolvTrace_zoneMessage(int level, const char* zone, const char* function, const char* file,
                           int line, const char* format, ...) {
    if (!zonePasses(zone, level)) {
        return;
    }
    va_list args;
    va_start(args, format);
    messageLine(level, zone, function, file, line, format, args);
    va_end(args);
}

void tolvTrace_marker(bool enter, const char* zone, const char* function, const char* file,
                      int line) {
    if (!zonePasses(zone, TRACE_LEVEL_CALLSTACK)) {
        return;
    }
    std::string text;
    if (enter) {
        append(&text, "%s%-7.7s%s - >>>>>>>>>>%s - %s(%s@%s:%d)%s", "", zone, "", "", "",
               orEmpty(function), baseName(file), line, "");
    } else {
        append(&text, "%s%-7.7s%s - <<<<<<<<<<%s - %s(%s@%s:%d)%s", "", zone, "", "", "",
               orEmpty(function), baseName(file), line, "");
    }
    emit(TRACE_LEVEL_CALLSTACK, text);
}
