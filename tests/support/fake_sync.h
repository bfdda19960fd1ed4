// sync(2) of the test program only counts its calls: the real one would make each test wait for
// whatever else the machine is writing.
#pragma once

namespace cpd::test {

/// How often sync was called.
int SyncCalls();

}  // namespace cpd::test
