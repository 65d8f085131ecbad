#include "KOSimRenderer.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <string_view>

#include "KOSimTextLayout.h"
#include "kovantis/KOViewDescription.h"

namespace {

std::string number(double value) {
  if (!std::isfinite(value)) return "0";
  char text[32];
  std::snprintf(text, sizeof text, "%.2f", value);
  std::string s = text;
  while (!s.empty() && s.back() == '0') s.pop_back();
  if (!s.empty() && s.back() == '.') s.pop_back();
  return s == "-0" ? "0" : s;
}

int channel(double component) {
  return std::isfinite(component) ? static_cast<int>(std::lround(std::clamp(component, 0.0, 1.0) * 255)) : 0;
}

std::string color(const KOColor& c) {
  char text[48];
  std::snprintf(text, sizeof text, "rgb(%d,%d,%d)", channel(c.red), channel(c.green), channel(c.blue));
  std::string s = text;
  if (channel(c.alpha) != 255) s += "\" fill-opacity=\"" + number(std::clamp(c.alpha, 0.0, 1.0));
  return s;
}

void escapeInto(std::string& out, std::string_view text) {
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        // Control characters are not allowed in XML 1.0 text: drawn as nothing.
        if (static_cast<unsigned char>(c) >= 0x20 || c == '\t') out += c;
    }
  }
}

// Font family and weight from the font's name: "AvenirNext-Bold" is Avenir Next, bold.
std::string fontAttributes(const KOFont& font) {
  std::string family = font.name.substr(0, font.name.find('-'));
  if (family.empty() || family == "System") family = "system-ui";
  const bool bold = font.name.find("Bold") != std::string::npos;
  std::string out = " font-family=\"";
  escapeInto(out, family);
  out += ", Helvetica, Arial, sans-serif\" font-size=\"" + number(font.pointSize > 0 ? font.pointSize : 17) + "\"";
  if (bold) out += " font-weight=\"bold\"";
  return out;
}

// The image file as a data URI ("" when it cannot be read or is no PNG, GIF or JPEG we embed).
std::string dataURI(const std::string& path) {
  constexpr std::size_t kLargestEmbedded = 4u << 20;
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  if (!in) return "";
  const std::streamoff size = in.tellg();
  if (size <= 0 || static_cast<std::size_t>(size) > kLargestEmbedded) return "";
  std::string bytes(static_cast<std::size_t>(size), '\0');
  in.seekg(0);
  if (!in.read(bytes.data(), size)) return "";
  const char* type = bytes.rfind("\x89PNG", 0) == 0    ? "image/png"
                     : bytes.rfind("GIF8", 0) == 0     ? "image/gif"
                     : bytes.rfind("\xff\xd8", 0) == 0 ? "image/jpeg"
                                                       : nullptr;
  if (!type) return "";
  static const char* kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out = std::string("data:") + type + ";base64,";
  out.reserve(out.size() + (bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const auto at = [&](std::size_t k) { return k < bytes.size() ? static_cast<unsigned char>(bytes[k]) : 0u; };
    const unsigned triple = (at(i) << 16) | (at(i + 1) << 8) | at(i + 2);
    out += kDigits[(triple >> 18) & 63];
    out += kDigits[(triple >> 12) & 63];
    out += i + 1 < bytes.size() ? kDigits[(triple >> 6) & 63] : '=';
    out += i + 2 < bytes.size() ? kDigits[triple & 63] : '=';
  }
  return out;
}

class Writer {
 public:
  std::string out;

  void rect(const KORect& r, double x, double y, const KOColor& fill, double radius = 0, double border = 0,
            const KOColor& borderColor = {}) {
    out += "<rect x=\"" + number(x + r.x) + "\" y=\"" + number(y + r.y) + "\" width=\"" + number(r.width) +
           "\" height=\"" + number(r.height) + "\"";
    if (radius > 0) out += " rx=\"" + number(radius) + "\"";
    if (border > 0) {
      out += " stroke=\"" + color(borderColor) + "\" stroke-width=\"" + number(border) + "\"";
    }
    out += " fill=\"" + color(fill) + "\"/>\n";
  }

  void line(double x1, double y1, double x2, double y2, const KOColor& stroke) {
    out += "<line x1=\"" + number(x1) + "\" y1=\"" + number(y1) + "\" x2=\"" + number(x2) + "\" y2=\"" + number(y2) +
           "\" stroke=\"" + color(stroke) + "\" stroke-width=\"0.5\"/>\n";
  }

  // The text's lines from the frame's top, each baseline at four fifths of its line.
  void text(const KOViewDescription& v, double x, double y, KOTextAlignment alignment, bool centreVertically) {
    std::vector<std::string> lines = KOSimTextLayout::wrap(v.text, v.frame.width, v.font.pointSize);
    if (v.numberOfLines > 0 && lines.size() > static_cast<std::size_t>(v.numberOfLines)) {
      lines.resize(static_cast<std::size_t>(v.numberOfLines));
    }
    const double lineHeight = KOSimTextLayout::lineHeight(v.font.pointSize);
    double top = y + v.frame.y;
    if (centreVertically) top += (v.frame.height - lineHeight * static_cast<double>(lines.size())) / 2;
    double anchorX = x + v.frame.x;
    const char* anchor = "start";
    if (alignment == KOTextAlignment::Center) {
      anchorX += v.frame.width / 2;
      anchor = "middle";
    } else if (alignment == KOTextAlignment::Right) {
      anchorX += v.frame.width;
      anchor = "end";
    }
    const KOColor fill = v.textColor.value_or(KOColor{0, 0, 0, 1});
    for (std::size_t i = 0; i < lines.size(); ++i) {
      if (lines[i].empty()) continue;
      const double baseline = top + lineHeight * (static_cast<double>(i) + 0.8);
      out += "<text x=\"" + number(anchorX) + "\" y=\"" + number(baseline) + "\" text-anchor=\"" + anchor + "\"" +
             fontAttributes(v.font) + " fill=\"" + color(fill) + "\">";
      escapeInto(out, lines[i]);
      out += "</text>\n";
    }
  }

  // Draws the view at the offset of its parent's origin.
  void view(const KOViewDescription& v, double x, double y, int depth) {
    if (depth > 64) return;  // deeper than any screen we lay out
    if (v.backgroundColor || v.borderWidth > 0) {
      rect(v.frame, x, y, v.backgroundColor.value_or(KOColor{0, 0, 0, 0}), v.cornerRadius, v.borderWidth,
           v.borderColor);
    }
    switch (v.kind) {
      case KOViewKind::Label:
        text(v, x, y, v.alignment, false);
        break;
      case KOViewKind::Button:
        if (!v.backgroundColor) rect(v.frame, x, y, KOColor{0, 0.48, 1, 1}, v.cornerRadius);
        text(v, x, y, KOTextAlignment::Center, true);
        break;
      case KOViewKind::Image: {
        rect(v.frame, x, y, KOColor{0.9, 0.9, 0.9, 1});
        // The picture carries the image itself, so that it shows wherever the file is opened.
        const std::string embedded = dataURI(v.image);
        if (embedded.empty()) break;
        out += "<image x=\"" + number(x + v.frame.x) + "\" y=\"" + number(y + v.frame.y) + "\" width=\"" +
               number(v.frame.width) + "\" height=\"" + number(v.frame.height) + "\" href=\"" + embedded +
               "\" preserveAspectRatio=\"xMidYMid meet\"/>\n";
        break;
      }
      case KOViewKind::List: {
        // Rows scroll inside the list: what lies past its bottom is cut off.
        const std::string clip = "clip" + std::to_string(clips_++);
        out += "<clipPath id=\"" + clip + "\"><rect x=\"" + number(x + v.frame.x) + "\" y=\"" + number(y + v.frame.y) +
               "\" width=\"" + number(v.frame.width) + "\" height=\"" + number(v.frame.height) +
               "\"/></clipPath>\n<g clip-path=\"url(#" + clip + ")\">\n";
        for (const KOViewDescription& row : v.children) {
          view(row, x + v.frame.x, y + v.frame.y, depth + 1);
          const double bottom = y + v.frame.y + row.frame.y + row.frame.height;
          line(x + v.frame.x + 15, bottom, x + v.frame.x + v.frame.width, bottom, KOColor{0.78, 0.78, 0.8, 1});
        }
        out += "</g>\n";
        return;
      }
      case KOViewKind::Rating: {
        KOViewDescription stars = v;
        stars.text.clear();
        const int total = static_cast<int>(std::clamp(v.maximum, 0.0, 10.0));
        const int filled = static_cast<int>(std::clamp(std::round(v.value), 0.0, 10.0));
        for (int i = 0; i < total; ++i) stars.text += i < filled ? "\u2605" : "\u2606";
        if (!stars.textColor) stars.textColor = KOColor{1, 0.7, 0, 1};
        text(stars, x, y, KOTextAlignment::Center, true);
        break;
      }
      case KOViewKind::TextField:
        out += "<rect x=\"" + number(x + v.frame.x) + "\" y=\"" + number(y + v.frame.y) + "\" width=\"" +
               number(v.frame.width) + "\" height=\"" + number(v.frame.height) +
               "\" rx=\"4\" fill=\"white\" stroke=\"rgb(180,180,185)\"/>\n";
        {
          KOViewDescription inside = v;
          inside.frame.x += 8;
          inside.frame.width -= 16;
          text(inside, x, y, KOTextAlignment::Left, true);
        }
        break;
      case KOViewKind::WebView: {
        // No page is drawn: a pale sheet with the address it shows.
        rect(v.frame, x, y, KOColor{0.97, 0.97, 0.98, 1}, 0, 1, KOColor{0.85, 0.85, 0.87, 1});
        KOViewDescription address = v;
        address.frame.x += 12;
        address.frame.y += 12;
        address.frame.width -= 24;
        address.numberOfLines = 0;
        address.font.pointSize = 14;
        if (!address.textColor) address.textColor = KOColor{0.3, 0.3, 0.35, 1};
        text(address, x, y, KOTextAlignment::Left, false);
        break;
      }
      case KOViewKind::Activity:
        if (v.value == 1) {
          const double r = 14;
          out += "<circle cx=\"" + number(x + v.frame.x + v.frame.width / 2) + "\" cy=\"" +
                 number(y + v.frame.y + v.frame.height / 2) + "\" r=\"" + number(r) +
                 "\" fill=\"none\" stroke=\"rgb(140,140,145)\" stroke-width=\"4\" stroke-dasharray=\"60 30\"/>\n";
        }
        break;
      case KOViewKind::Screen:
      case KOViewKind::Container:
      case KOViewKind::Row:
        break;
    }
    for (const KOViewDescription& child : v.children) view(child, x + v.frame.x, y + v.frame.y, depth + 1);
  }

 private:
  int clips_ = 0;
};

}  // namespace

std::string KOSimRenderer::svg(const KOViewDescription& root) {
  const bool titled = root.kind == KOViewKind::Screen;
  const double top = titled ? kTitleBarHeight : 0;
  const double width = std::max(1.0, root.frame.width);
  const double height = std::max(1.0, root.frame.height) + top;
  Writer w;
  w.out = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + number(width) + "\" height=\"" + number(height) +
          "\" viewBox=\"0 0 " + number(width) + " " + number(height) + "\">\n";
  // Behind a screen of its own, white; behind a message shown over the app, the app's grey.
  w.rect(KORect{0, 0, width, height}, 0, 0, titled ? KOColor{1, 1, 1, 1} : KOColor{0.93, 0.93, 0.95, 1});
  if (titled) {
    w.rect(KORect{0, 0, width, top}, 0, 0, KOColor{0.97, 0.97, 0.97, 1});
    w.line(0, top, width, top, KOColor{0.7, 0.7, 0.7, 1});
    KOViewDescription title;
    title.kind = KOViewKind::Label;
    title.text = root.text;
    title.frame = KORect{0, 0, width, top};
    title.font = KOFont{"System-Bold", 17};
    w.text(title, 0, 0, KOTextAlignment::Center, true);
  }
  // The root's own origin is the picture's; its children sit below the title bar.
  KOViewDescription content = root;
  content.frame.x = 0;
  content.frame.y = 0;
  w.view(content, 0, top, 0);
  w.out += "</svg>\n";
  return w.out;
}
