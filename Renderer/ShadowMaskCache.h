#pragma once
// Blurred shadow masks kept for the image being drawn, by everything that
// decides their pixels: lists of identical cards or buttons cast identical
// shadows, and each is blurred once. The cache lives on the drawing's target
// surface and goes with it.

#include "ImageSource.h"

#include <cairo.h>

#include <string>
#include <unordered_map>

namespace plexa::render {

class ShadowMaskCache {
 public:
  // The cache of cr's target surface, made on first use; nullptr when the
  // target cannot hold one.
  static ShadowMaskCache* of(cairo_t* cr);

  // A mask kept under `key`, or an empty handle.
  SurfaceRef find(const std::string& key) const;
  // Keeps `mask` (an image surface) while the budget allows.
  void keep(std::string key, const SurfaceRef& mask);

  // The most mask bytes one drawing keeps.
  static constexpr size_t kBudgetBytes = 64u << 20;

 private:
  std::unordered_map<std::string, SurfaceRef> masks_;
  size_t bytes_ = 0;
};

}  // namespace plexa::render
