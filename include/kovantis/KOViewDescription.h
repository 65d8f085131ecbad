// What the SDK shows, described rather than drawn. The core lays a screen out as a tree of plain
// values and hands it to the platform's user interface, which turns it into real views (a phone
// bridge) or records and pictures it (the simulated device). Taps and swipes come back by tag.
//
// Layout rules that hold for every description:
// - A frame is in its parent's coordinates, in points; the root's is the whole screen.
// - The rows of a list stack from the list's top: a row's y is its offset in the list's content,
//   which may run past the list's own height (the list scrolls).
// - A label draws its text from its frame's top-left, wrapped at the frame's width; numberOfLines 0
//   means as many lines as the text needs.
// - A tag of 0 names nothing; any other tag is unique within one description.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "kovantis/KOPlatform.h"

// Exported from the shared library (see KOExport.h).
#pragma GCC visibility push(default)

enum class KOViewKind {
  Screen,     // the root: text is the title shown in the bar above the content
  Container,  // groups children, draws only its background
  Label,      // text
  Image,      // the picture at `image`
  Button,     // text on a tappable background
  List,       // a scrolling list; its children are rows
  Row,        // one row of a list
  Rating,     // stars the user sets: `value` of `maximum`
  TextField,  // text the user types; `text` is what it holds
  WebView,    // a web page: `text` is the URL it loads
  Activity,   // an activity indicator, spinning while `value` is 1
};

enum class KOTextAlignment { Left, Center, Right };

/// What the user did to a tagged view.
enum class KOViewEvent {
  Tap,
  SwipeDelete,  // the row's delete swipe, offered only on rows marked deletable
  SwipeAway,    // the whole presented screen swiped off (tag 0)
  // A web view's page (the web view's tag): it started loading, finished, or failed; after a
  // failure, viewWithTag(tag) of the screen's handle holds the error's text.
  LoadStarted,
  LoadFinished,
  LoadFailed,
};

struct KOViewDescription {
  KOViewKind kind = KOViewKind::Container;
  std::int64_t tag = 0;
  KORect frame;
  std::string text;
  KOFont font;
  int numberOfLines = 1;
  KOTextAlignment alignment = KOTextAlignment::Left;
  /// Unset colours are the platform's defaults (black text, clear background).
  std::optional<KOColor> textColor;
  std::optional<KOColor> backgroundColor;
  double cornerRadius = 0;
  double borderWidth = 0;
  KOColor borderColor;
  /// A file path for an image view, and for an animated one its frames' delays in milliseconds
  /// (empty for a still image).
  std::string image;
  std::vector<int> imageFrameDelaysMs;
  /// How the view comes and goes: "slide_up", "slide_down", "slide_left", "slide_right",
  /// "fade_in", "fade_out", or "" for none.
  std::string entryAnimation;
  std::string exitAnimation;
  /// A row the user may delete with a swipe.
  bool deletable = false;
  /// A rating's stars.
  double value = 0;
  double maximum = 0;
  std::vector<KOViewDescription> children;

  /// The view with the tag in this tree, depth first; nullptr when none has it.
  const KOViewDescription* findTag(std::int64_t tag) const;
  KOViewDescription* findTag(std::int64_t tag);
  /// The description as a dictionary (kind names as text, frames as {"x","y","width","height"}),
  /// the form screen records and pictures read.
  KOValue toValue() const;
  static const char* kindName(KOViewKind kind);
};

/// A screen the platform shows on the SDK's behalf. The SDK replaces the description when its
/// content changes and removes the screen when it is done.
class KOPresentedScreen {
 public:
  virtual ~KOPresentedScreen() = default;
  virtual void update(KOViewDescription screen) = 0;
  virtual void remove() = 0;
  /// What the user made of an input view (a rating set, text typed), and for a web view the error
  /// of its last failed load as text; nothing for another view.
  virtual std::optional<KOView> viewWithTag(std::int64_t tag) const = 0;
};

#pragma GCC visibility pop
