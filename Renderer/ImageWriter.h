#pragma once
// Encoding rendered images: PNG (libpng, straight alpha) and JPEG
// (libjpeg-turbo, flattened onto white, quality from the compression
// setting). Cairo's premultiplied ARGB32 is converted on the way out.

#include <cairo.h>

#include <functional>
#include <optional>
#include <string>

namespace plexa::render {

// PNG bytes of an ARGB32 image surface; nullopt when encoding fails.
std::optional<std::string> encodePNG(cairo_surface_t* image);
// JPEG bytes; `quality` 0–1 (the `--compression` value).
std::optional<std::string> encodeJPEG(cairo_surface_t* image, double quality);

// The encoder for a file format name ("png", "jpg", "jpeg"); nullopt for
// formats that are not raster images we write.
std::optional<std::string> encodeImage(cairo_surface_t* image, const std::string& format, double quality);
bool isRasterFormat(const std::string& format);

// Vector documents ("svg", "pdf", "eps") of `region` (points) at `scale`,
// drawn by `draw` into a cairo_t whose user space is already the region's.
bool isVectorFormat(const std::string& format);
std::optional<std::string> renderVectorImage(const std::string& format, double x, double y, double width,
                                             double height, double scale, const std::function<void(cairo_t*)>& draw);

// Writes `bytes` to `name` inside `folder`, creating the folders the name
// holds. Refuses names that would land outside `folder` (through "..", an
// absolute name or a symbolic link). False with the reason in `error`.
bool writeInside(const std::string& folder, const std::string& name, const std::string& bytes, std::string* error);

}  // namespace plexa::render
