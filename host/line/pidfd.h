// Descriptors of processes: <sys/pidfd.h>, which forgets in glibc 2.36 that its functions are C.
#pragma once

extern "C" {
#include <sys/pidfd.h>
}
