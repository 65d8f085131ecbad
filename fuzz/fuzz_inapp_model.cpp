// Every in-app model object built from any JSON the reader accepts: as a campaign, a widget, a
// layout, a style block and an action. Parsing may stop at a bad field (and log it); it must never
// crash, leak or read past what it was given, and what it built must be whole enough to walk.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "KOFuzzDevice.h"
#include "KOInAppV2/Models/KOInAppV2CampaignPropertiesObject.h"
#include "KOInAppV2/Models/KOInAppV2Object.h"
#include "KOUtilities/KOJSONSerialization.h"

namespace {

std::size_t walk(const KOInAppV2WidgetObject& widget, int depth);

std::size_t walk(const KOInAppV2WidgetList& list, int depth) {
  std::size_t n = 0;
  for (const KOInAppV2WidgetEntry& entry : list)
    n += entry.isList() ? walk(entry.list, depth + 1) : walk(*entry.widget, depth + 1);
  return n;
}

std::size_t walk(const KOInAppV2WidgetObject& widget, int depth) {
  if (depth > 2 * KOValue::kMaxNestingDepth) {
    std::fprintf(stderr, "widget tree deeper than its JSON\n");
    std::abort();
  }
  std::size_t n = 1 + widget.content().size() + widget.propertiesObject().text().size() +
                  static_cast<std::size_t>(widget.layoutObject().alignment());
  for (const KOInAppV2ActionObject& action : widget.actionsArray()) {
    n += action.webUrl().size() + action.extrasDict().size() + (action.actionType() <= KOInAppV2ActionNone ? 0 : 1);
  }
  if (widget.widgetsArray()) n += walk(*widget.widgetsArray(), depth);
  if (widget.buttonsArray()) n += walk(*widget.buttonsArray(), depth);
  return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  installFuzzDevice();
  KOValue value;
  try {
    value = KOJSONSerialization::parse(std::string_view(reinterpret_cast<const char*>(data), size));
  } catch (const KOParseError&) {
    return 0;
  }
  // Each object's own initialiser catches what it cannot read: nothing may escape.
  try {
    const KOInAppV2CampaignPropertiesObject props(value);
    const KOInAppV2Object inApp(value, props);
    std::size_t n = inApp.campaignPropertiesObject().campaignId().size() + inApp.selfHandledcontent().size();
    if (inApp.widgetsArray()) {
      for (const auto& widget : *inApp.widgetsArray()) n += walk(*widget, 0);
    }
    const KOInAppV2WidgetObject widget(value);
    n += walk(widget, 0);
    const KOInAppV2LayoutObject layout(value);
    const KOInAppV2PropertiesObject style(value);
    const KOInAppV2ActionObject action(value);
    n += static_cast<std::size_t>(layout.alignment() + style.gravity() + action.actionType());
    if (inApp.alignmentType() < 0 || inApp.alignmentType() > KOInAppV2AlignmentSelfHandled ||
        props.inAppType() < KOInAppV2TypeSmart || props.inAppType() > KOInAppV2TypeTest) {
      std::fprintf(stderr, "enumeration out of its range\n");
      std::abort();
    }
    if (n == static_cast<std::size_t>(-1)) std::abort();  // keeps the walk from being optimised away
  } catch (const std::exception& e) {
    std::fprintf(stderr, "a model initialiser let an exception out: %s\n", e.what());
    std::abort();
  }
  return 0;
}
