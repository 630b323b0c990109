// Runs a block of a test in a named time zone and returns to UTC, the zone
// every test starts in.
#pragma once

#include <cstdlib>
#include <ctime>

class scoped_time_zone_t {
  public:
    explicit scoped_time_zone_t(const char* zone) { set(zone); }
    ~scoped_time_zone_t() { set("UTC"); }
    scoped_time_zone_t(const scoped_time_zone_t&) = delete;
    scoped_time_zone_t& operator=(const scoped_time_zone_t&) = delete;

  private:
    static void set(const char* zone) {
        setenv("TZ", zone, 1);
        tzset();
    }
};
