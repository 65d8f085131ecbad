#include "KOInAppV2ViewBuilder.h"

#include <algorithm>
#include <cmath>

#include "KOInAppV2/InAppManager/KOInAppV2Manager.h"
#include "kovantis/KOConstants.h"

namespace {

const KOColor kWhite{1, 1, 1, 1};
const KOColor kBackdrop{0, 0, 0, 0.4};
const KOColor kButton{0.0, 0.48, 1.0, 1};

class Layout {
 public:
  Layout(const KOInAppV2Object& inApp, const KOUserInterface& ui, const std::map<std::int64_t, KOImageInfo>& images)
      : inApp_(inApp), ui_(ui), images_(images) {}

  // One widget at (x, y) with the width; returns its height (0 for what takes no room).
  double place(const KOInAppV2WidgetObject& widget, double x, double y, double width, KOViewDescription& card) {
    KOViewDescription view;
    view.tag = widget.widgetId();
    view.text = widget.content();
    // The campaign's own styling where it gives one.
    const KOInAppV2PropertiesObject& style = widget.propertiesObject();
    view.font = KOFont{style.fontName(),
                       style.fontSize() > 0 ? static_cast<double>(style.fontSize()) : KOInAppV2ViewBuilder::kTextSize};
    view.textColor = style.textColor();
    if (style.backgroundColor()) view.backgroundColor = style.backgroundColor();
    view.cornerRadius = std::isfinite(style.cornerRadius()) ? std::max(0.0f, style.cornerRadius()) : 0;
    view.borderWidth = std::isfinite(style.borderWeight()) ? std::max(0.0f, style.borderWeight()) : 0;
    view.borderColor = style.borderColor();
    switch (widget.type()) {
      case KOInAppV2WidgetText:
        view.kind = KOViewKind::Label;
        view.numberOfLines = 0;
        view.frame = KORect{x, y, width, ui_.heightOfText(view.text, width, view.font)};
        break;
      case KOInAppV2WidgetButton:
        view.kind = KOViewKind::Button;
        if (!style.backgroundColor()) {
          view.textColor = kWhite;
          view.backgroundColor = kButton;
        }
        if (view.cornerRadius == 0) view.cornerRadius = 6;
        view.frame = KORect{x, y, width, KOInAppV2ViewBuilder::kButtonHeight};
        break;
      case KOInAppV2WidgetImage:
        view.kind = KOViewKind::Image;
        view.text.clear();
        view.image = KOInAppV2ViewBuilder::imagePathForWidget(inApp_, widget.widgetId());
        view.frame = KORect{x, y, width, width / 2};
        if (const auto decoded = images_.find(widget.widgetId());
            decoded != images_.end() && decoded->second.width > 0 && decoded->second.height > 0) {
          view.frame.height =
              width * static_cast<double>(decoded->second.height) / static_cast<double>(decoded->second.width);
          view.imageFrameDelaysMs = decoded->second.delaysMs;
        }
        break;
      case KOInAppV2WidgetRating: {
        const KOInAppV2PropertiesObject& p = widget.propertiesObject();
        view.kind = KOViewKind::Rating;
        view.text.clear();
        view.font.pointSize = 24;
        view.maximum = std::isfinite(p.maxRating()) ? std::clamp(static_cast<double>(p.maxRating()), 0.0, 10.0) : 5;
        view.value = std::isfinite(p.defaultRating())
                         ? std::clamp(static_cast<double>(p.defaultRating()), 0.0, view.maximum)
                         : 0;
        view.frame = KORect{x, y, width, KOInAppV2ViewBuilder::kRatingHeight};
        break;
      }
      case KOInAppV2WidgetCloseButton:
      case KOInAppV2WidgetUnknown:
        if (widget.type() == KOInAppV2WidgetCloseButton) closeButtons_.push_back(widget.widgetId());
        return 0;
      default: {
        // A container or a view: its own widgets, stacked in its place.
        double height = 0;
        if (widget.widgetsArray()) height = stack(*widget.widgetsArray(), x, y, width, card);
        if (widget.buttonsArray()) height += row(*widget.buttonsArray(), x, y + height, width, card);
        return height;
      }
    }
    const double height = view.frame.height;
    card.children.push_back(std::move(view));
    return height;
  }

  double stack(const KOInAppV2WidgetList& list, double x, double y, double width, KOViewDescription& card) {
    double used = 0;
    for (const KOInAppV2WidgetEntry& entry : list) {
      const double height =
          entry.isList() ? row(entry.list, x, y + used, width, card) : place(*entry.widget, x, y + used, width, card);
      if (height > 0) used += height + KOInAppV2ViewBuilder::kSpacing;
    }
    return used > 0 ? used - KOInAppV2ViewBuilder::kSpacing : 0;
  }

  double row(const KOInAppV2WidgetList& list, double x, double y, double width, KOViewDescription& card) {
    if (list.empty()) return 0;
    const double gaps = KOInAppV2ViewBuilder::kSpacing * static_cast<double>(list.size() - 1);
    const double each = std::max(1.0, (width - gaps) / static_cast<double>(list.size()));
    double tallest = 0;
    for (std::size_t i = 0; i < list.size(); ++i) {
      const double left = x + static_cast<double>(i) * (each + KOInAppV2ViewBuilder::kSpacing);
      const KOInAppV2WidgetEntry& entry = list[i];
      const double height =
          entry.isList() ? row(entry.list, left, y, each, card) : place(*entry.widget, left, y, each, card);
      tallest = std::max(tallest, height);
    }
    return tallest;
  }

  const std::vector<std::int64_t>& closeButtons() const { return closeButtons_; }

 private:
  const KOInAppV2Object& inApp_;
  const KOUserInterface& ui_;
  const std::map<std::int64_t, KOImageInfo>& images_;
  std::vector<std::int64_t> closeButtons_;
};

}  // namespace

std::string KOInAppV2ViewBuilder::imagePathForWidget(const KOInAppV2Object& inApp, std::int64_t widgetId) {
  const std::string& cid = inApp.campaignPropertiesObject().campaignId();
  const auto directory = KOInAppV2Manager::imageDirectoryForCampaign(cid);
  return directory ? *directory + "/" + cid + "_" + std::to_string(widgetId) + ".png" : std::string();
}

std::string KOInAppV2ViewBuilder::animationName(int animation) {
  switch (animation) {
    case KOInAppV2AnimationSlideUp:
      return KO_ANIMATION_SLIDE_UP;
    case KOInAppV2AnimationSlideDown:
      return KO_ANIMATION_SLIDE_DOWN;
    case KOInAppV2AnimationSlideLeft:
      return KO_ANIMATION_SLIDE_LEFT;
    case KOInAppV2AnimationSlideRight:
      return KO_ANIMATION_SLIDE_RIGHT;
    case KOInAppV2AnimationFadeIn:
      return KO_ANIMATION_FADE_IN;
    case KOInAppV2AnimationFadeOut:
      return KO_ANIMATION_FADE_OUT;
    default:
      return "";
  }
}

KOViewDescription KOInAppV2ViewBuilder::describe(const KOInAppV2Object& inApp, const KOSize& screen,
                                                 const std::map<std::int64_t, KOImageInfo>& images) {
  const int align = inApp.alignmentType();
  const bool full = align == KOInAppV2AlignmentFull;
  KOViewDescription root;
  root.kind = KOViewKind::Container;
  root.frame = KORect{0, 0, screen.width, screen.height};
  if (align == KOInAppV2AlignmentCenter || full) root.backgroundColor = kBackdrop;

  KOViewDescription card;
  card.kind = KOViewKind::Container;
  card.backgroundColor = kWhite;
  card.cornerRadius = full ? 0 : 12;
  card.entryAnimation = animationName(inApp.entryAnimation());
  card.exitAnimation = animationName(inApp.exitAnimation());
  const double cardWidth = full ? screen.width : std::max(1.0, screen.width - 2 * kCardInset);
  Layout layout(inApp, *KOPlatform::current().userInterface, images);
  double content = 0;
  if (inApp.widgetsArray()) {
    KOInAppV2WidgetList list;
    for (const auto& widget : *inApp.widgetsArray()) list.push_back(KOInAppV2WidgetEntry{widget, {}});
    content = layout.stack(list, kCardInset, kCardInset, cardWidth - 2 * kCardInset, card);
  }
  const double cardHeight = full ? screen.height : content + 2 * kCardInset;
  double y = (screen.height - cardHeight) / 2;
  if (align == KOInAppV2AlignmentTop) y = 20;
  if (align == KOInAppV2AlignmentBottom) y = screen.height - cardHeight - 20;
  if (full) y = 0;
  card.frame = KORect{full ? 0 : kCardInset, y, cardWidth, cardHeight};
  for (std::int64_t id : layout.closeButtons()) {
    KOViewDescription close;
    close.kind = KOViewKind::Button;
    close.tag = id;
    close.text = "\u00d7";
    close.font = KOFont{"", 20};
    close.textColor = KOColor{0.3, 0.3, 0.3, 1};
    close.backgroundColor = KOColor{0.92, 0.92, 0.92, 1};
    close.frame = KORect{cardWidth - kCloseSize - 6, 6, kCloseSize, kCloseSize};
    card.children.push_back(std::move(close));
  }
  root.children.push_back(std::move(card));
  return root;
}
