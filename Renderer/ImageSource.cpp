#include "ImageSource.h"

#include "Files.h"

#include <fmt/format.h>
#include <jpeglib.h>

#include <csetjmp>
#include <cstdint>
#include <cstring>
#include <vector>

namespace plexa::render {

namespace {

// Larger images are refused rather than allocated: Cairo cannot address them
// and a hostile header must not make us reserve gigabytes.
constexpr int kMaxImageSide = 32767;
constexpr int64_t kMaxImagePixels = int64_t{1} << 28;

bool startsWith(std::string_view bytes, std::string_view magic) { return bytes.substr(0, magic.size()) == magic; }

// The name of a format we recognise but do not decode, or empty.
std::string_view undecodedFormat(std::string_view bytes) {
  if (bytes.size() < 12) return {};
  if (startsWith(bytes, "GIF8")) return "GIF";
  if (startsWith(bytes, "%PDF")) return "PDF";
  if (startsWith(bytes, "II*") || startsWith(bytes, "MM\0*")) return "TIFF";
  if (startsWith(bytes, "RIFF") && bytes.substr(8, 4) == "WEBP") return "WebP";
  if (bytes.substr(4, 4) == "ftyp") return "HEIF";
  if (startsWith(bytes, "BM")) return "BMP";
  return {};
}

// --- PNG through Cairo, reading from memory ---

struct MemoryReader {
  std::string_view bytes;
  size_t offset = 0;
};

cairo_status_t readFromMemory(void* closure, unsigned char* data, unsigned int length) {
  auto* reader = static_cast<MemoryReader*>(closure);
  if (reader->bytes.size() - reader->offset < length) return CAIRO_STATUS_READ_ERROR;
  std::memcpy(data, reader->bytes.data() + reader->offset, length);
  reader->offset += length;
  return CAIRO_STATUS_SUCCESS;
}

bool pngSizeAcceptable(std::string_view bytes) {
  // IHDR follows the 8-byte signature and the chunk's length and type.
  if (bytes.size() < 24) return false;
  auto be32 = [&](size_t at) {
    auto b = reinterpret_cast<const unsigned char*>(bytes.data() + at);
    return (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) | (uint32_t{b[2]} << 8) | b[3];
  };
  uint32_t width = be32(16), height = be32(20);
  return width > 0 && height > 0 && width <= kMaxImageSide && height <= kMaxImageSide &&
         int64_t{width} * height <= kMaxImagePixels;
}

SurfaceRef decodePNG(std::string_view bytes, std::string* why) {
  if (!pngSizeAcceptable(bytes)) {
    if (why) *why = "PNG size out of range";
    return {};
  }
  MemoryReader reader{bytes};
  cairo_surface_t* surface = cairo_image_surface_create_from_png_stream(readFromMemory, &reader);
  if (cairo_surface_status(surface) != CAIRO_STATUS_SUCCESS) {
    if (why) *why = cairo_status_to_string(cairo_surface_status(surface));
    cairo_surface_destroy(surface);
    return {};
  }
  return SurfaceRef::adopt(surface);
}

// --- JPEG through libjpeg-turbo ---

struct JpegError {
  jpeg_error_mgr manager;
  std::jmp_buf jump;
  char message[JMSG_LENGTH_MAX];
};

[[noreturn]] void jpegFail(j_common_ptr info) {
  auto* error = reinterpret_cast<JpegError*>(info->err);
  info->err->format_message(info, error->message);
  std::longjmp(error->jump, 1);
}

void jpegWarning(j_common_ptr, int) {}  // corrupt-but-decodable data still draws

// Adobe's CMYK JPEGs store inverted ink; both forms become RGB here.
void cmykRowToRGB24(const unsigned char* in, uint32_t* out, int width, bool inverted) {
  for (int x = 0; x < width; ++x, in += 4) {
    int c = in[0], m = in[1], y = in[2], k = in[3];
    if (!inverted) c = 255 - c, m = 255 - m, y = 255 - y, k = 255 - k;
    uint32_t r = c * k / 255, g = m * k / 255, b = y * k / 255;
    out[x] = 0xff000000u | (r << 16) | (g << 8) | b;
  }
}

// Runs the whole decode between setjmp and the last libjpeg call, with no
// C++ objects that need destructors in between.
cairo_surface_t* decodeJPEGInto(jpeg_decompress_struct* info, JpegError* error, std::string_view bytes,
                                unsigned char* cmykRow, size_t cmykRowSize, std::string* why) {
  cairo_surface_t* volatile surface = nullptr;
  if (setjmp(error->jump)) {
    if (surface) cairo_surface_destroy(surface);
    if (why) *why = error->message;
    return nullptr;
  }
  jpeg_mem_src(info, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
  jpeg_read_header(info, TRUE);
  bool cmyk = info->jpeg_color_space == JCS_CMYK || info->jpeg_color_space == JCS_YCCK;
  info->out_color_space = cmyk ? JCS_CMYK : JCS_EXT_BGRA;
  jpeg_calc_output_dimensions(info);
  int width = static_cast<int>(info->output_width), height = static_cast<int>(info->output_height);
  if (width <= 0 || height <= 0 || width > kMaxImageSide || height > kMaxImageSide ||
      int64_t{width} * height > kMaxImagePixels || (cmyk && size_t(width) * 4 > cmykRowSize)) {
    if (why) *why = "JPEG size out of range";
    return nullptr;
  }
  jpeg_start_decompress(info);
  surface = cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height);
  if (cairo_surface_status(surface) != CAIRO_STATUS_SUCCESS) {
    if (why) *why = "out of memory";
    cairo_surface_destroy(surface);
    return nullptr;
  }
  cairo_surface_flush(surface);
  unsigned char* pixels = cairo_image_surface_get_data(surface);
  int stride = cairo_image_surface_get_stride(surface);
  while (info->output_scanline < info->output_height) {
    unsigned char* row = pixels + size_t(info->output_scanline) * stride;
    if (cmyk) {
      jpeg_read_scanlines(info, &cmykRow, 1);
      cmykRowToRGB24(cmykRow, reinterpret_cast<uint32_t*>(row), width, info->saw_Adobe_marker);
    } else {
      jpeg_read_scanlines(info, &row, 1);
    }
  }
  jpeg_finish_decompress(info);
  cairo_surface_mark_dirty(surface);
  return surface;
}

SurfaceRef decodeJPEG(std::string_view bytes, std::string* why) {
  jpeg_decompress_struct info{};
  JpegError error{};
  info.err = jpeg_std_error(&error.manager);
  error.manager.error_exit = jpegFail;
  error.manager.emit_message = jpegWarning;
  jpeg_create_decompress(&info);
  std::vector<unsigned char> cmykRow(size_t(kMaxImageSide) * 4);
  cairo_surface_t* surface = decodeJPEGInto(&info, &error, bytes, cmykRow.data(), cmykRow.size(), why);
  jpeg_destroy_decompress(&info);
  return SurfaceRef::adopt(surface);
}

// Whatever the lookup, a document may only name files inside itself.
bool isPlainRelativePath(const std::string& reference) {
  if (reference.empty() || reference.front() == '/' || reference.find('\0') != std::string::npos) return false;
  size_t start = 0;
  while (start <= reference.size()) {
    size_t end = reference.find('/', start);
    if (end == std::string::npos) end = reference.size();
    if (reference.compare(start, end - start, "..") == 0) return false;
    start = end + 1;
  }
  return true;
}

bool hasExtension(const std::string& reference) {
  auto slash = reference.rfind('/');
  auto dot = reference.rfind('.');
  return dot != std::string::npos && (slash == std::string::npos || dot > slash);
}

}  // namespace

SurfaceRef decodeImage(std::string_view bytes, std::string* why) {
  if (startsWith(bytes, "\x89PNG\r\n\x1a\n")) return decodePNG(bytes, why);
  if (startsWith(bytes, "\xff\xd8\xff")) return decodeJPEG(bytes, why);
  if (why) {
    auto format = undecodedFormat(bytes);
    *why = format.empty() ? "unknown image format" : std::string(format) + " is not decoded";
  }
  return {};
}

ImageSource::ImageSource(std::string documentFolder)
    : lookup_([root = std::move(documentFolder)](const std::string& relative) -> std::optional<std::string> {
        auto path = PXResolveInside(root, relative);
        if (!path) return std::nullopt;
        bool isDirectory = false;
        if (!PXFileManager::fileExists(*path, &isDirectory) || isDirectory) return std::nullopt;
        return PXFileManager::readFile(*path);
      }) {}

ImageSource::ImageSource(Lookup lookup) : lookup_(std::move(lookup)) {}

SurfaceRef ImageSource::image(std::string_view reference, RenderNotes& notes) {
  std::lock_guard guard(lock_);
  if (auto found = cache_.find(reference); found != cache_.end()) return found->second;
  std::string key(reference);
  SurfaceRef loaded = load(key, notes);
  cache_.emplace(key, loaded);
  return loaded;
}

SurfaceRef ImageSource::load(const std::string& reference, RenderNotes& notes) {
  auto bytes = bytesFor(reference);
  if (!bytes) {
    notes.missingImage(reference);
    return {};
  }
  std::string why;
  SurfaceRef surface = decodeImage(*bytes, &why);
  if (!surface) {
    auto format = undecodedFormat(*bytes);
    if (!format.empty())
      notes.skipped("image", fmt::format("{} data (\"{}\")", format, reference));
    else
      notes.missingImage(fmt::format("{} ({})", reference, why));
  }
  return surface;
}

// Documents name images with or without their extension, and not always
// the one the file has.
std::optional<std::string> ImageSource::bytesFor(const std::string& reference) const {
  if (!isPlainRelativePath(reference) || !lookup_) return std::nullopt;
  if (auto bytes = lookup_(reference)) return bytes;
  std::string stem = reference;
  if (hasExtension(stem)) stem.erase(stem.rfind('.'));
  for (const char* extension : {"", ".png", ".jpg", ".jpeg", ".PNG", ".JPG", ".JPEG"}) {
    std::string candidate = stem + extension;
    if (candidate == reference) continue;
    if (auto bytes = lookup_(candidate)) return bytes;
  }
  return std::nullopt;
}

}  // namespace plexa::render
