// Where a widget sits: its size, limits, margins, padding and horizontal alignment, in points.
#pragma once

#include "KOInAppV2/Models/KOModelDict.h"

/// A layout's "alignment".
enum KOInAppV2LayoutAlignment : int {
  KOInAppV2LayoutAlignmentCenter = 0,
  KOInAppV2LayoutAlignmentLeft = 1,
  KOInAppV2LayoutAlignmentRight = 2,
};

class KOInAppV2LayoutObject : public KOModelDict {
 public:
  KOInAppV2LayoutObject() = default;
  explicit KOInAppV2LayoutObject(const KOValue& layout) { initWithDictionary(layout); }

  void initWithDictionary(const KOValue& layout) override;

  double height() const { return height_; }
  void setHeight(double value) { height_ = value; }
  double width() const { return width_; }
  void setWidth(double value) { width_ = value; }
  double maxHeight() const { return maxHeight_; }
  void setMaxHeight(double value) { maxHeight_ = value; }
  double maxWidth() const { return maxWidth_; }
  void setMaxWidth(double value) { maxWidth_ = value; }
  double marginLeft() const { return marginLeft_; }
  void setMarginLeft(double value) { marginLeft_ = value; }
  double marginRight() const { return marginRight_; }
  void setMarginRight(double value) { marginRight_ = value; }
  double marginTop() const { return marginTop_; }
  void setMarginTop(double value) { marginTop_ = value; }
  double marginBottom() const { return marginBottom_; }
  void setMarginBottom(double value) { marginBottom_ = value; }
  double paddingLeft() const { return paddingLeft_; }
  void setPaddingLeft(double value) { paddingLeft_ = value; }
  double paddingRight() const { return paddingRight_; }
  void setPaddingRight(double value) { paddingRight_ = value; }
  double paddingTop() const { return paddingTop_; }
  void setPaddingTop(double value) { paddingTop_ = value; }
  double paddingBottom() const { return paddingBottom_; }
  void setPaddingBottom(double value) { paddingBottom_ = value; }
  int alignment() const { return alignment_; }
  void setAlignment(int value) { alignment_ = value; }

 private:
  double height_ = 0;
  double width_ = 0;
  double maxHeight_ = 0;
  double maxWidth_ = 0;
  double marginLeft_ = 0;
  double marginRight_ = 0;
  double marginTop_ = 0;
  double marginBottom_ = 0;
  double paddingLeft_ = 0;
  double paddingRight_ = 0;
  double paddingTop_ = 0;
  double paddingBottom_ = 0;
  int alignment_ = KOInAppV2LayoutAlignmentCenter;
};
