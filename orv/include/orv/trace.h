// Trace lines in the gateway's format.
//
// A message line reads
//   <zone, 7 columns> - [<tag>]<message> - (<function>@<file>:<line>)
// and the enter and leave markers
//   <zone, 7 columns> - >>>>>>>>>> - (<function>@<file>:<line>)
// Messages without a zone (tolvTrace) print the module name of the code that
// traces, except at level 0, which prints an empty zone. They pass when their
// level is at most the global level. Zone messages (tolvTraceZ) pass only
// when the zone was registered, at most at its level.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#ifndef TOLV_TRACE_MODULE
#define TOLV_TRACE_MODULE ""
#endif

enum : int {
    TRACE_LEVEL_ERROR = 0,
    TRACE_LEVEL_WARNING = 100,
    TRACE_LEVEL_NOTICE = 200,
    TRACE_LEVEL_APP_INFO = 300,
    TRACE_LEVEL_INFO = 400,
    TRACE_LEVEL_CALLSTACK = 500,
};

void tolvTraceAddZone(int level, const char* zone);
std::optional<int> tolvTraceZoneLevel(std::string_view zone);
void tolvTraceSetLevel(int level);
int tolvTraceLevel();
// Forgets every zone and restores the default level (200).
void tolvTraceReset();
// Applies trace levels written one per line as "NAME LEVEL": the name
// "default" sets the level outside zones, any other name a zone's level.
// Blank lines and lines that start with '#' are skipped. On an error nothing
// is applied and the result is "line N: " and the reason.
std::optional<std::string> tolvTraceApplyLevels(std::string_view text);

// Where lines go: stderr (with a newline) by default. A sink receives each
// line without its newline, with its level; an empty function restores
// stderr.
using tolv_trace_sink_t = std::function<void(int level, std::string_view line)>;
void tolvTraceSetSink(tolv_trace_sink_t sink);

void tolvTrace_message(int level, const char* module, const char* function, const char* file,
                       int line, const char* format, ...) __attribute__((format(printf, 6, 7)));
void tolvTrace_zoneMessage(int level, const char* zone, const char* function, const char* file,
                           int line, const char* format, ...) __attribute__((format(printf, 6, 7)));
// enter: true for ">>>>>>>>>>", false for "<<<<<<<<<<". Level 500.
void tolvTrace_marker(bool enter, const char* zone, const char* function, const char* file,
                      int line);

#define tolvTrace(level, ...) \
    tolvTrace_message((level), TOLV_TRACE_MODULE, __func__, __FILE__, __LINE__, __VA_ARGS__)
#define tolvTraceZ(level, zone, ...) \
    tolvTrace_zoneMessage((level), (zone), __func__, __FILE__, __LINE__, __VA_ARGS__)
#define tolvTraceIn(zone) tolvTrace_marker(true, (zone), __func__, __FILE__, __LINE__)
#define tolvTraceOut(zone) tolvTrace_marker(false, (zone), __func__, __FILE__, __LINE__)
