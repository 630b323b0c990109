// What orv-time watches in the kernel: whether the clock is synchronised,
// when it is set, and when the local time zone file changes.
#pragma once

#include "orv/unique_fd.h"

// The kernel's view, or the flag file that the time synchronisation daemon
// leaves once it has set the clock.
bool time_clockSynchronized();
// Arms a CLOCK_REALTIME timerfd so that it wakes up only when the clock is
// set. 0, or a negative errno.
int time_armClockWatch(int fd);
// Drains an inotify descriptor that watches /etc; true when one of its events
// concerns the local time zone file.
bool time_zoneChanged(int fd);
