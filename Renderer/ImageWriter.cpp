#include "ImageWriter.h"

#include "Files.h"

#include <cairo-pdf.h>
#include <cairo-ps.h>
#include <cairo-svg.h>
#include <jpeglib.h>
#include <png.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace plexa::render {

namespace {

bool isARGB(cairo_surface_t* image) {
  return image && cairo_surface_get_type(image) == CAIRO_SURFACE_TYPE_IMAGE &&
         cairo_image_surface_get_format(image) == CAIRO_FORMAT_ARGB32 && cairo_image_surface_get_width(image) > 0 &&
         cairo_image_surface_get_height(image) > 0;
}

uint8_t unpremultiply(uint32_t channel, uint32_t alpha) {
  if (alpha == 0) return 0;
  return static_cast<uint8_t>(std::min<uint32_t>(255, (channel * 255 + alpha / 2) / alpha));
}

// One row as straight RGBA.
void rowToRGBA(const uint32_t* pixels, int width, uint8_t* out) {
  for (int x = 0; x < width; ++x) {
    uint32_t p = pixels[x], a = p >> 24;
    out[4 * x + 0] = unpremultiply((p >> 16) & 0xFF, a);
    out[4 * x + 1] = unpremultiply((p >> 8) & 0xFF, a);
    out[4 * x + 2] = unpremultiply(p & 0xFF, a);
    out[4 * x + 3] = static_cast<uint8_t>(a);
  }
}

// One row composited over opaque white: premultiplied colour plus the
// white that shows through.
void rowToRGBOverWhite(const uint32_t* pixels, int width, uint8_t* out) {
  for (int x = 0; x < width; ++x) {
    uint32_t p = pixels[x], white = 255 - (p >> 24);
    out[3 * x + 0] = static_cast<uint8_t>(std::min<uint32_t>(255, ((p >> 16) & 0xFF) + white));
    out[3 * x + 1] = static_cast<uint8_t>(std::min<uint32_t>(255, ((p >> 8) & 0xFF) + white));
    out[3 * x + 2] = static_cast<uint8_t>(std::min<uint32_t>(255, (p & 0xFF) + white));
  }
}

struct JpegErrors {
  jpeg_error_mgr manager;  // first, so the library's pointer is ours too
  std::jmp_buf jump;
};

void appendBytes(png_structp png, png_bytep data, png_size_t length) {
  auto* out = static_cast<std::string*>(png_get_io_ptr(png));
  out->append(reinterpret_cast<const char*>(data), length);
}

}  // namespace

std::optional<std::string> encodePNG(cairo_surface_t* image) {
  if (!isARGB(image)) return std::nullopt;
  cairo_surface_flush(image);
  int width = cairo_image_surface_get_width(image), height = cairo_image_surface_get_height(image);
  int stride = cairo_image_surface_get_stride(image);
  const unsigned char* data = cairo_image_surface_get_data(image);

  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  if (!png) return std::nullopt;
  png_infop info = png_create_info_struct(png);
  std::string out;
  std::vector<uint8_t> row(static_cast<size_t>(width) * 4);
  if (!info || setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, info ? &info : nullptr);
    return std::nullopt;
  }
  png_set_write_fn(png, &out, appendBytes, nullptr);
  png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  // Flat UI art compresses well at a low level; the higher levels cost most
  // of an export's time for a few percent of size.
  png_set_compression_level(png, 2);
  png_set_filter(png, PNG_FILTER_TYPE_BASE, PNG_FILTER_SUB | PNG_FILTER_UP);
  png_write_info(png, info);
  for (int y = 0; y < height; ++y) {
    rowToRGBA(reinterpret_cast<const uint32_t*>(data + static_cast<size_t>(y) * stride), width, row.data());
    png_write_row(png, row.data());
  }
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return out;
}

std::optional<std::string> encodeJPEG(cairo_surface_t* image, double quality) {
  if (!isARGB(image)) return std::nullopt;
  cairo_surface_flush(image);
  int width = cairo_image_surface_get_width(image), height = cairo_image_surface_get_height(image);
  int stride = cairo_image_surface_get_stride(image);
  const unsigned char* data = cairo_image_surface_get_data(image);

  jpeg_compress_struct cinfo;
  JpegErrors errors;
  cinfo.err = jpeg_std_error(&errors.manager);
  // The default error handler exits the process; a bad encode must not.
  errors.manager.error_exit = [](j_common_ptr info) { std::longjmp(reinterpret_cast<JpegErrors*>(info->err)->jump, 1); };
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  std::vector<uint8_t> row(static_cast<size_t>(width) * 3);
  std::optional<std::string> result;
  if (setjmp(errors.jump) == 0) {
    jpeg_create_compress(&cinfo);
    jpeg_mem_dest(&cinfo, &buffer, &size);
    cinfo.image_width = static_cast<JDIMENSION>(width);
    cinfo.image_height = static_cast<JDIMENSION>(height);
    cinfo.input_components = 3;
    cinfo.in_color_space = JCS_RGB;
    jpeg_set_defaults(&cinfo);
    int q = static_cast<int>(std::lround(std::clamp(std::isfinite(quality) ? quality : 0.9, 0.0, 1.0) * 100));
    jpeg_set_quality(&cinfo, std::max(q, 1), TRUE);
    jpeg_start_compress(&cinfo, TRUE);
    while (cinfo.next_scanline < cinfo.image_height) {
      rowToRGBOverWhite(reinterpret_cast<const uint32_t*>(data + static_cast<size_t>(cinfo.next_scanline) * stride),
                        width, row.data());
      JSAMPROW rows[1] = {row.data()};
      jpeg_write_scanlines(&cinfo, rows, 1);
    }
    jpeg_finish_compress(&cinfo);
    result = std::string(reinterpret_cast<const char*>(buffer), size);
  }
  jpeg_destroy_compress(&cinfo);
  std::free(buffer);
  return result;
}

bool isRasterFormat(const std::string& format) { return format == "png" || format == "jpg" || format == "jpeg"; }

std::optional<std::string> encodeImage(cairo_surface_t* image, const std::string& format, double quality) {
  if (format == "png") return encodePNG(image);
  if (format == "jpg" || format == "jpeg") return encodeJPEG(image, quality);
  return std::nullopt;
}

bool isVectorFormat(const std::string& format) { return format == "svg" || format == "pdf" || format == "eps"; }

std::optional<std::string> renderVectorImage(const std::string& format, double x, double y, double width,
                                             double height, double scale, const std::function<void(cairo_t*)>& draw) {
  std::string out;
  cairo_write_func_t append = [](void* closure, const unsigned char* data, unsigned int length) {
    static_cast<std::string*>(closure)->append(reinterpret_cast<const char*>(data), length);
    return CAIRO_STATUS_SUCCESS;
  };
  double w = width * scale, h = height * scale;
  cairo_surface_t* surface = nullptr;
  if (format == "svg") {
    surface = cairo_svg_surface_create_for_stream(append, &out, w, h);
  } else if (format == "pdf") {
    surface = cairo_pdf_surface_create_for_stream(append, &out, w, h);
  } else if (format == "eps") {
    surface = cairo_ps_surface_create_for_stream(append, &out, w, h);
    cairo_ps_surface_set_eps(surface, true);
  } else {
    return std::nullopt;
  }
  cairo_t* cr = cairo_create(surface);
  cairo_scale(cr, scale, scale);
  cairo_translate(cr, -x, -y);
  draw(cr);
  cairo_destroy(cr);
  cairo_surface_finish(surface);
  bool ok = cairo_surface_status(surface) == CAIRO_STATUS_SUCCESS;
  cairo_surface_destroy(surface);
  if (!ok || out.empty()) return std::nullopt;
  return out;
}

bool writeInside(const std::string& folder, const std::string& name, const std::string& bytes, std::string* error) {
  auto fail = [&](std::string why) {
    if (error) *error = std::move(why);
    return false;
  };
  std::filesystem::path relative(name);
  if (name.empty() || relative.is_absolute()) return fail("the name is empty or absolute");
  for (const auto& part : relative)
    if (part == "..") return fail("the name leaves the output folder");
  auto target = PXResolveInside(folder, relative.string());
  if (!target) return fail("the name leaves the output folder");
  std::string parent = std::filesystem::path(*target).parent_path().string();
  if (!PXFileManager::createDirectory(parent, true)) return fail("cannot create the folder " + parent);
  // The folders may have been made just now: check again before writing.
  if (!PXResolveInside(folder, *target)) return fail("the name leaves the output folder");
  int fd = ::open(target->c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) return fail("cannot open " + *target + " for writing");
  size_t written = 0;
  while (written < bytes.size()) {
    ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
    if (n <= 0) break;
    written += static_cast<size_t>(n);
  }
  bool ok = ::close(fd) == 0 && written == bytes.size();
  return ok ? true : fail("cannot write " + *target);
}

}  // namespace plexa::render
