#pragma once
// The document's images (`images/<hash>.png`, `.jpg`, or no extension at
// all), decoded once into Cairo image surfaces and shared by image fills and
// bitmap layers. A reference that is missing, corrupt or in a format we do
// not decode is noted once and gives an empty handle: it draws as nothing.

#include "RenderTypes.h"

#include <cairo.h>

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace plexa::render {

// A counted reference to a Cairo surface: copying adds a reference, the
// destructor drops one. Empty means "nothing to draw".
class SurfaceRef {
 public:
  SurfaceRef() = default;
  // Takes over the caller's reference (as returned by cairo_*_create).
  static SurfaceRef adopt(cairo_surface_t* surface) { return SurfaceRef(surface); }
  SurfaceRef(const SurfaceRef& other) : surface_(other.surface_ ? cairo_surface_reference(other.surface_) : nullptr) {}
  SurfaceRef(SurfaceRef&& other) noexcept : surface_(other.surface_) { other.surface_ = nullptr; }
  SurfaceRef& operator=(SurfaceRef other) noexcept { std::swap(surface_, other.surface_); return *this; }
  ~SurfaceRef() { if (surface_) cairo_surface_destroy(surface_); }

  cairo_surface_t* get() const { return surface_; }
  explicit operator bool() const { return surface_ != nullptr; }
  // Pixel size of an image surface; 0 when empty.
  int width() const { return surface_ ? cairo_image_surface_get_width(surface_) : 0; }
  int height() const { return surface_ ? cairo_image_surface_get_height(surface_) : 0; }

 private:
  explicit SurfaceRef(cairo_surface_t* surface) : surface_(surface) {}
  cairo_surface_t* surface_ = nullptr;
};

// Decodes encoded image bytes (PNG or JPEG, sniffed from the content, not the
// name). On failure the result is empty and `why` says what was wrong.
SurfaceRef decodeImage(std::string_view bytes, std::string* why = nullptr);

class ImageSource {
 public:
  // Gives the bytes of a document-relative path ("images/ab12.png"), or
  // nullopt when there is no such entry.
  using Lookup = std::function<std::optional<std::string>(const std::string& relativePath)>;

  // Reads from an unzipped document folder; references never reach outside
  // it (no "..", no absolute paths, no symbolic links on the way).
  explicit ImageSource(std::string documentFolder);
  // Reads through `lookup` (e.g. straight from the archive); references with
  // ".." components or a leading "/" never reach it.
  explicit ImageSource(Lookup lookup);

  // The decoded image for a document reference such as "images/ab12" or
  // "images/ab12.png". Decoded on first use and cached (failures too); safe
  // to call from several threads. Empty when it cannot be drawn, noted once
  // in `notes`.
  SurfaceRef image(std::string_view reference, RenderNotes& notes);

 private:
  SurfaceRef load(const std::string& reference, RenderNotes& notes);
  std::optional<std::string> bytesFor(const std::string& reference) const;

  Lookup lookup_;
  std::mutex lock_;
  std::map<std::string, SurfaceRef, std::less<>> cache_;
};

}  // namespace plexa::render
