// What the shared library exports. The SDK is compiled with hidden visibility: the public headers
// mark their own declarations default-visible (a "GCC visibility" region after their includes), and
// KOVANTIS_EXPORT marks the few internal classes the simulated device uses.
#pragma once

#define KOVANTIS_EXPORT __attribute__((visibility("default")))
