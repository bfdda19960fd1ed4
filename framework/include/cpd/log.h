// The host's log. The host program defines this function; a driver module only calls it.
#pragma once

/// Writes one line to the host's log. Callable from any thread.
/// @param channel  always 0 for driver modules
/// @param level    5 = debug, 7 = error
/// @param tag      always "CPD_LOG"
/// @param format   printf format; the arguments follow
extern "C" void tesselLogPrint(int channel, int level, const char* tag, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
