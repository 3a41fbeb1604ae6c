#include "ImageWriter.h"

#include "Files.h"

#include <cairo-pdf.h>
#include <cairo-ps.h>
#include <cairo-svg.h>
#include <jpeglib.h>
#include <libdeflate.h>
#include <png.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <cmath>
#include <cstdint>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
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

// One row as straight RGBA. Opaque and clear pixels (nearly all) only swap
// bytes, in a loop the compiler vectorises; the others are divided after.
void rowToRGBA(const uint32_t* pixels, int width, uint8_t* out) {
  if constexpr (std::endian::native == std::endian::little) {
    for (int x = 0; x < width; ++x) {
      uint32_t p = pixels[x];
      uint32_t swapped = (p & 0xFF00FF00u) | ((p >> 16) & 0xFFu) | ((p & 0xFFu) << 16);
      std::memcpy(out + 4 * x, &swapped, 4);
    }
  }
  for (int x = 0; x < width; ++x) {
    uint32_t p = pixels[x], a = p >> 24;
    if (std::endian::native == std::endian::little && (a == 255 || a == 0)) continue;
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

// Straight from the pixels to a PNG: rows filtered with the better of
// "sub" and "up", deflated in one call by libdeflate, which is several times
// faster than zlib's stream at the same size. Images beyond this many pixels
// go through libpng's stream instead, to keep the whole-image buffer small.
namespace {

constexpr size_t kWholeImagePixels = 32'000'000;

void appendBigEndian(std::string& out, uint32_t value) {
  const char bytes[4] = {char(value >> 24), char(value >> 16), char(value >> 8), char(value)};
  out.append(bytes, 4);
}

void appendChunk(std::string& out, const char* type, const uint8_t* data, size_t size) {
  appendBigEndian(out, static_cast<uint32_t>(size));
  size_t start = out.size();
  out.append(type, 4);
  out.append(reinterpret_cast<const char*>(data), size);
  appendBigEndian(out, libdeflate_crc32(0, out.data() + start, size + 4));
}

// Writes the filter byte and the filtered row at `out`: "sub" or "up",
// whichever has the smaller sum of bytes read as signed values (the usual
// guess at which compresses better). One pass computes both.
void filterRow(const uint8_t* __restrict row, const uint8_t* __restrict above, size_t size, uint8_t* __restrict out,
               uint8_t* __restrict scratch) {
  uint8_t* __restrict sub = out + 1;
  if (!above) {
    out[0] = 1;
    for (size_t i = 0; i < size; ++i) sub[i] = static_cast<uint8_t>(row[i] - (i >= 4 ? row[i - 4] : 0));
    return;
  }
  uint32_t subCost = 0, upCost = 0;
  for (size_t i = 0; i < 4 && i < size; ++i) {
    sub[i] = row[i];
    scratch[i] = static_cast<uint8_t>(row[i] - above[i]);
    subCost += std::min<uint8_t>(sub[i], static_cast<uint8_t>(-sub[i]));
    upCost += std::min<uint8_t>(scratch[i], static_cast<uint8_t>(-scratch[i]));
  }
  for (size_t i = 4; i < size; ++i) {
    uint8_t s = static_cast<uint8_t>(row[i] - row[i - 4]), u = static_cast<uint8_t>(row[i] - above[i]);
    sub[i] = s;
    scratch[i] = u;
    subCost += std::min<uint8_t>(s, static_cast<uint8_t>(-s));
    upCost += std::min<uint8_t>(u, static_cast<uint8_t>(-u));
  }
  out[0] = upCost < subCost ? 2 : 1;
  if (upCost < subCost) std::memcpy(sub, scratch, size);
}

std::optional<std::string> encodePNGStreaming(cairo_surface_t* image) {
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

}  // namespace

std::optional<std::string> encodePNG(cairo_surface_t* image) {
  if (!isARGB(image)) return std::nullopt;
  cairo_surface_flush(image);
  const size_t width = cairo_image_surface_get_width(image), height = cairo_image_surface_get_height(image);
  if (width * height > kWholeImagePixels) return encodePNGStreaming(image);
  const size_t stride = cairo_image_surface_get_stride(image), rowSize = width * 4;
  const unsigned char* data = cairo_image_surface_get_data(image);

  // Left uninitialised: every byte is written before it is read.
  const size_t filteredSize = height * (rowSize + 1);
  std::unique_ptr<uint8_t[]> filtered(new uint8_t[filteredSize]), rows(new uint8_t[3 * rowSize]);
  uint8_t* scratch = rows.get() + 2 * rowSize;
  for (size_t y = 0; y < height; ++y) {
    uint8_t* row = rows.get() + (y % 2) * rowSize;
    rowToRGBA(reinterpret_cast<const uint32_t*>(data + y * stride), static_cast<int>(width), row);
    const uint8_t* above = y ? rows.get() + ((y + 1) % 2) * rowSize : nullptr;
    filterRow(row, above, rowSize, filtered.get() + y * (rowSize + 1), scratch);
  }
  std::unique_ptr<libdeflate_compressor, void (*)(libdeflate_compressor*)> deflater(libdeflate_alloc_compressor(1),
                                                                                     &libdeflate_free_compressor);
  if (!deflater) return std::nullopt;
  const size_t bound = libdeflate_zlib_compress_bound(deflater.get(), filteredSize);
  std::unique_ptr<uint8_t[]> packed(new uint8_t[bound]);
  size_t packedSize = libdeflate_zlib_compress(deflater.get(), filtered.get(), filteredSize, packed.get(), bound);
  if (packedSize == 0) return std::nullopt;

  std::string out("\x89PNG\r\n\x1a\n", 8);
  uint8_t header[13] = {};
  for (int i = 0; i < 4; ++i) {
    header[i] = static_cast<uint8_t>(width >> (24 - 8 * i));
    header[4 + i] = static_cast<uint8_t>(height >> (24 - 8 * i));
  }
  header[8] = 8;  // bits per channel
  header[9] = 6;  // RGBA
  appendChunk(out, "IHDR", header, sizeof header);
  appendChunk(out, "IDAT", packed.get(), packedSize);
  appendChunk(out, "IEND", nullptr, 0);
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
  bool written = PXFileManager::writeAll(fd, bytes);
  bool ok = ::close(fd) == 0 && written;
  return ok ? true : fail("cannot write " + *target);
}

}  // namespace plexa::render
