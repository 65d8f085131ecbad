// Any campaign the JSON reader accepts, laid out as a view description and pictured: the layout
// must stay finite (no NaN, no negative sizes) whatever the widgets, styles and nesting say, and
// the picture must be a whole SVG document.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "KOFuzzDevice.h"
#include "KOInAppV2/InAppView/KOInAppV2ViewBuilder.h"
#include "KOInAppV2/Models/KOInAppV2Object.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "Sim/KOSimRenderer.h"

namespace {

void check(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  installFuzzDevice();
  KOValue campaign;
  try {
    campaign = KOJSONSerialization::parse(std::string_view(reinterpret_cast<const char*>(data), size));
  } catch (const std::exception&) {
    return 0;
  }
  const KOInAppV2Object inApp(campaign);
  const KOViewDescription root = KOInAppV2ViewBuilder::describe(inApp, KOSize{390, 844});
  std::vector<const KOViewDescription*> pending{&root};
  while (!pending.empty()) {
    const KOViewDescription* view = pending.back();
    pending.pop_back();
    const KORect& f = view->frame;
    check(std::isfinite(f.x) && std::isfinite(f.y) && std::isfinite(f.width) && std::isfinite(f.height),
          "a frame that is not finite");
    check(f.width >= 0 && f.height >= 0, "a frame of negative size");
    check(std::isfinite(view->font.pointSize) && std::isfinite(view->value), "a size that is not finite");
    for (const auto& child : view->children) pending.push_back(&child);
  }
  const std::string svg = KOSimRenderer::svg(root);
  check(svg.rfind("</svg>\n") == svg.size() - 7, "a picture cut short");
  return 0;
}
