// Kept for the tests of other components that still include it: the shared log capture.
#ifndef NUV_WORKER_WORKER_TEST_SUPPORT_H
#define NUV_WORKER_WORKER_TEST_SUPPORT_H

#include "testutil/testutil.h"

namespace workertest {
using nuvtest::CaptureMessages;
}  // namespace workertest

#endif
