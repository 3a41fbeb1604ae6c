#include "ShadowMaskCache.h"

namespace plexa::render {

namespace {

// Identifies our user data on a surface; only its address matters.
const cairo_user_data_key_t kCacheKey{};

}  // namespace

ShadowMaskCache* ShadowMaskCache::of(cairo_t* cr) {
  cairo_surface_t* target = cairo_get_target(cr);
  if (!target || cairo_surface_status(target) != CAIRO_STATUS_SUCCESS) return nullptr;
  if (auto* cache = static_cast<ShadowMaskCache*>(cairo_surface_get_user_data(target, &kCacheKey))) return cache;
  auto* cache = new ShadowMaskCache();
  auto destroy = [](void* data) { delete static_cast<ShadowMaskCache*>(data); };
  if (cairo_surface_set_user_data(target, &kCacheKey, cache, destroy) != CAIRO_STATUS_SUCCESS) {
    delete cache;
    return nullptr;
  }
  return cache;
}

SurfaceRef ShadowMaskCache::find(const std::string& key) const {
  auto it = masks_.find(key);
  return it == masks_.end() ? SurfaceRef() : it->second;
}

void ShadowMaskCache::keep(std::string key, const SurfaceRef& mask) {
  if (!mask) return;
  size_t bytes = static_cast<size_t>(cairo_image_surface_get_stride(mask.get())) * mask.height();
  if (bytes_ + bytes > kBudgetBytes) return;
  if (masks_.try_emplace(std::move(key), mask).second) bytes_ += bytes;
}

}  // namespace plexa::render
