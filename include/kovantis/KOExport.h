// What the shared library exports. The SDK is compiled with hidden visibility: the public headers
// mark their own declarations default-visible (a "GCC visibility" region after their includes), and
// KOVANTIS_EXPORT marks the few internal classes (or members) the simulated device and the test harness use.
#pragma once

#define KOVANTIS_EXPORT __attribute__((visibility("default")))
