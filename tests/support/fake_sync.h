// sync(2) of the test program: counted, and left undone, since it would hold every test up for
// whatever else the machine is writing.
#pragma once

namespace cpd::test {

/// How often sync was called.
int SyncCalls();

}  // namespace cpd::test
