// What the shared library exports. The SDK is compiled with hidden visibility: the public headers
// mark their own declarations default-visible (a "GCC visibility" region after their includes), and
// the version script (src/libkovantis.map) keeps out the standard-library instances made for them.
// No internal class is exported: the simulated device carries its own copy of the serialisers it
// uses, and the test harness reads JSON through KOValue.
#pragma once
