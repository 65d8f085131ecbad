#include "kovantis/KOViewDescription.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace {

int channel(double component) {
  if (!std::isfinite(component)) return 0;
  return static_cast<int>(std::lround(std::clamp(component, 0.0, 1.0) * 255));
}

// "#rrggbb", with "aa" appended when the colour is not opaque.
std::string hexColor(const KOColor& c) {
  char text[10];
  if (channel(c.alpha) == 255) {
    std::snprintf(text, sizeof text, "#%02x%02x%02x", channel(c.red), channel(c.green), channel(c.blue));
  } else {
    std::snprintf(text, sizeof text, "#%02x%02x%02x%02x", channel(c.red), channel(c.green), channel(c.blue),
                  channel(c.alpha));
  }
  return text;
}

const char* alignmentName(KOTextAlignment alignment) {
  switch (alignment) {
    case KOTextAlignment::Center:
      return "center";
    case KOTextAlignment::Right:
      return "right";
    case KOTextAlignment::Left:
      break;
  }
  return "left";
}

}  // namespace

const char* KOViewDescription::kindName(KOViewKind kind) {
  switch (kind) {
    case KOViewKind::Screen:
      return "screen";
    case KOViewKind::Label:
      return "label";
    case KOViewKind::Image:
      return "image";
    case KOViewKind::Button:
      return "button";
    case KOViewKind::List:
      return "list";
    case KOViewKind::Row:
      return "row";
    case KOViewKind::Rating:
      return "rating";
    case KOViewKind::TextField:
      return "textField";
    case KOViewKind::WebView:
      return "webView";
    case KOViewKind::Activity:
      return "activity";
    case KOViewKind::Container:
      break;
  }
  return "container";
}

namespace {
// Depth first with an explicit stack: a description is data from the core, but depth costs
// nothing to bound.
template <typename View>
View* findIn(View* root, std::int64_t wanted) {
  if (wanted == 0) return nullptr;
  std::vector<View*> pending{root};
  while (!pending.empty()) {
    View* view = pending.back();
    pending.pop_back();
    if (view->tag == wanted) return view;
    for (auto it = view->children.rbegin(); it != view->children.rend(); ++it) pending.push_back(&*it);
  }
  return nullptr;
}
}  // namespace

const KOViewDescription* KOViewDescription::findTag(std::int64_t wanted) const { return findIn(this, wanted); }

KOViewDescription* KOViewDescription::findTag(std::int64_t wanted) { return findIn(this, wanted); }

KOValue KOViewDescription::toValue() const {
  KODictionary d;
  d.set("kind", kindName(kind));
  if (tag != 0) d.set("tag", tag);
  d.set("frame", KODictionary{{"x", frame.x}, {"y", frame.y}, {"width", frame.width}, {"height", frame.height}});
  if (!text.empty()) d.set("text", text);
  if (kind == KOViewKind::Label || kind == KOViewKind::Button || kind == KOViewKind::Screen ||
      kind == KOViewKind::TextField) {
    d.set("font", KODictionary{{"name", font.name}, {"size", font.pointSize}});
    d.set("lines", static_cast<std::int64_t>(numberOfLines));
    d.set("alignment", alignmentName(alignment));
  }
  if (textColor) d.set("textColor", hexColor(*textColor));
  if (backgroundColor) d.set("backgroundColor", hexColor(*backgroundColor));
  if (cornerRadius > 0) d.set("cornerRadius", cornerRadius);
  if (borderWidth > 0) {
    d.set("borderWidth", borderWidth);
    d.set("borderColor", hexColor(borderColor));
  }
  if (!image.empty()) d.set("image", image);
  if (!imageFrameDelaysMs.empty()) {
    KOArray delays;
    for (int ms : imageFrameDelaysMs) delays.push_back(static_cast<std::int64_t>(ms));
    d.set("frameDelaysMs", std::move(delays));
  }
  if (!entryAnimation.empty()) d.set("entryAnimation", entryAnimation);
  if (!exitAnimation.empty()) d.set("exitAnimation", exitAnimation);
  if (deletable) d.set("deletable", true);
  if (kind == KOViewKind::Rating) {
    d.set("value", value);
    d.set("maximum", maximum);
  }
  if (!children.empty()) {
    KOArray list;
    list.reserve(children.size());
    for (const KOViewDescription& child : children) list.push_back(child.toValue());
    d.set("children", std::move(list));
  }
  return KOValue(std::move(d));
}
