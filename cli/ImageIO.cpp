#include "ImageIO.h"

#include <OpenImageIO/filesystem.h>
#include <sys/stat.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <vector>

#include "CliError.h"

namespace veltrisca {

using hostsim::Depth;
using hostsim::World;

uint16_t FileToHost16(uint16_t v) {
  // round(v * 32768 / 65535) in integers; v * 32768 / 65535 is never exactly half-way.
  return static_cast<uint16_t>((uint32_t{v} * 65536u + 65535u) / 131070u);
}

uint16_t HostToFile16(uint16_t h) {
  const uint32_t c = std::min<uint32_t>(h, PF_MAX_CHAN16);
  // round(h * 65535 / 32768), halves (h = 16384) up.
  return static_cast<uint16_t>((c * 65535u * 2u + 32768u) / 65536u);
}

namespace {

OIIO::TypeDesc BufferType(Depth depth) {
  switch (depth) {
    case Depth::k8: return OIIO::TypeDesc::UINT8;
    case Depth::k16: return OIIO::TypeDesc::UINT16;
    case Depth::kFloat: return OIIO::TypeDesc::FLOAT;
  }
  return OIIO::TypeDesc::FLOAT;
}

int SampleBytes(Depth depth) { return depth == Depth::k8 ? 1 : depth == Depth::k16 ? 2 : 4; }

// File channel indices of red, green, blue (all the grey channel for grey images) and alpha.
struct ChannelMap {
  int colour[3];
  int alpha;  // -1: none
};

ChannelMap MapChannels(int channels, bool grey, int alphaIndex) {
  int colours[3] = {0, 0, 0};
  int found = 0;
  for (int c = 0; c < channels && found < 3; ++c) {
    if (c != alphaIndex) colours[found++] = c;
  }
  ChannelMap m{{colours[0], colours[1], colours[2]}, alphaIndex};
  if (grey) m.colour[1] = m.colour[2] = colours[0];
  return m;
}

template <typename T>
T OpaqueValue(Depth depth) {
  return depth == Depth::k8 ? T(255) : depth == Depth::k16 ? T(PF_MAX_CHAN16) : T(1);
}

// File buffer row -> host world row (alpha, red, green, blue).
template <typename FileT, typename HostT, typename Convert>
void ToWorldRow(const FileT* in, int width, int channels, const ChannelMap& map, HostT opaque,
                Convert convert, HostT* out) {
  for (int x = 0; x < width; ++x, in += channels, out += 4) {
    out[0] = map.alpha >= 0 ? convert(in[map.alpha]) : opaque;
    out[1] = convert(in[map.colour[0]]);
    out[2] = convert(in[map.colour[1]]);
    out[3] = convert(in[map.colour[2]]);
  }
}

// Host world row -> output buffer row: colour channels (one for grey, from red), then alpha.
template <typename HostT, typename FileT, typename Convert>
void FromWorldRow(const HostT* in, int width, const OutputLayout& layout, Convert convert,
                  FileT* out) {
  const int colours = layout.grey ? 1 : 3;
  for (int x = 0; x < width; ++x, in += 4, out += layout.channels) {
    for (int c = 0; c < colours; ++c) out[c] = convert(in[1 + c]);
    if (layout.alpha) out[colours] = convert(in[0]);
  }
}

std::string ReaderError(const std::string& path, const std::string& why) {
  std::string reason = why;
  while (!reason.empty() && (reason.back() == '\n' || reason.back() == ' ')) reason.pop_back();
  const size_t newline = reason.find('\n');
  if (newline != std::string::npos) reason = reason.substr(0, newline);
  return path + ": " + (reason.empty() ? std::string("cannot read the image") : reason);
}

// Image readers wait forever on a pipe and read /dev/zero without end; only regular files (or
// links to them) are images.
void CheckRegularFile(const std::string& path) {
  struct stat st {};
  if (path.empty()) throw IoError("IN is an empty file name");
  if (stat(path.c_str(), &st) != 0) {
    const int why = errno;
    throw IoError(path + ": cannot open: " + std::strerror(why));
  }
  if (S_ISDIR(st.st_mode)) throw IoError(path + ": is a directory, not an image file");
  if (!S_ISREG(st.st_mode)) throw IoError(path + ": not a regular file, so not an image file");
}

uint32_t BigEndian32(const unsigned char* b) {
  return (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) | (uint32_t{b[2]} << 8) | b[3];
}

// A chunk type for messages: PNG types are four ASCII letters; anything else is damage.
std::string ChunkName(const unsigned char* type) {
  for (int i = 0; i < 4; ++i) {
    const unsigned char c = type[i];
    if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'))) return "a damaged chunk";
  }
  return "the " + std::string(reinterpret_cast<const char*>(type), 4) + " chunk";
}

// OpenImageIO 2.4 reads a PNG only as far as its last image row, and lets libpng print its own
// "libpng error" line on stderr before it reports damage. Walking the chunks first (lengths and
// checksums, up to IEND) refuses a cut-off or damaged PNG with one clear message, a file cut
// off after its pixels and a damaged text chunk included. Other files are left to the readers.
void CheckPngChunks(const std::string& path) {
  static const unsigned char kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  std::ifstream in(path, std::ios::binary);
  unsigned char head[8];
  if (!in.read(reinterpret_cast<char*>(head), 8) || std::memcmp(head, kSignature, 8) != 0) return;
  std::vector<unsigned char> buffer(1 << 16);
  uint64_t offset = 8;
  for (;;) {
    const std::string at = " at byte " + std::to_string(offset);
    if (!in.read(reinterpret_cast<char*>(head), 8)) {
      throw IoError(path + ": truncated PNG file (it ends" + at + " without an IEND chunk)");
    }
    const uint32_t length = BigEndian32(head);
    const std::string chunk = ChunkName(head + 4);
    if (length > 0x7FFFFFFFu) {
      throw IoError(path + ": corrupt PNG file (" + chunk + at + " has an impossible length)");
    }
    uLong crc = crc32(0L, head + 4, 4);
    for (uint32_t left = length; left > 0;) {
      const uint32_t n = std::min<uint32_t>(left, static_cast<uint32_t>(buffer.size()));
      if (!in.read(reinterpret_cast<char*>(buffer.data()), n)) {
        throw IoError(path + ": truncated PNG file (" + chunk + at + " is cut off)");
      }
      crc = crc32(crc, buffer.data(), n);
      left -= n;
    }
    unsigned char stored[4];
    if (!in.read(reinterpret_cast<char*>(stored), 4)) {
      throw IoError(path + ": truncated PNG file (" + chunk + at + " is cut off)");
    }
    if (BigEndian32(stored) != static_cast<uint32_t>(crc)) {
      throw IoError(path + ": corrupt PNG file (" + chunk + at + " fails its checksum)");
    }
    if (std::memcmp(head + 4, "IEND", 4) == 0) return;
    offset += 12 + uint64_t{length};
  }
}

}  // namespace

InputImage OpenInputImage(const std::string& path) {
  InputImage image;
  image.path = path;
  CheckRegularFile(path);
  CheckPngChunks(path);
  // Keep unassociated alpha as it is stored: values pass through unchanged.
  OIIO::ImageSpec config;
  config.attribute("oiio:UnassociatedAlpha", 1);
  image.reader = OIIO::ImageInput::open(path, &config);
  if (!image.reader) throw IoError(ReaderError(path, OIIO::geterror()));
  image.spec = image.reader->spec();
  const OIIO::ImageSpec& s = image.spec;
  if (s.width < 1 || s.height < 1 || s.depth > 1) {
    throw IoError(path + ": unsupported image geometry " + std::to_string(s.width) + "x" +
                  std::to_string(s.height) + "x" + std::to_string(s.depth));
  }
  image.channels = s.nchannels;
  if (image.channels < 1 || image.channels > 4) {
    throw IoError(path + ": " + std::to_string(image.channels) +
                  " channels; veltrisca reads 1 (grey), 2 (grey and alpha), 3 (RGB) or 4 (RGBA)");
  }
  image.grey = image.channels <= 2;
  if (image.channels == 2 || image.channels == 4) {
    const int a = s.alpha_channel;
    image.alphaIndex = (a >= 0 && a < image.channels) ? a : image.channels - 1;
  }
  switch (s.format.basetype) {
    case OIIO::TypeDesc::UINT8: image.depth = Depth::k8; break;
    case OIIO::TypeDesc::UINT16: image.depth = Depth::k16; break;
    default: image.depth = Depth::kFloat; break;  // half, float and every other type
  }
  return image;
}

uint64_t FileBufferBytes(long long pixels, int channels, Depth depth) {
  return static_cast<uint64_t>(std::max(pixels, 0LL)) * static_cast<uint64_t>(channels) *
         static_cast<uint64_t>(SampleBytes(depth));
}

uint64_t WorldBytes(long long pixels, Depth depth) {
  return static_cast<uint64_t>(std::max(pixels, 0LL)) *
         static_cast<uint64_t>(hostsim::PixelBytes(depth));
}

std::unique_ptr<World> ReadLayer(InputImage& image) {
  const int w = image.spec.width, h = image.spec.height, n = image.channels;
  const size_t rowSamples = static_cast<size_t>(w) * n;
  std::vector<uint8_t> buffer(rowSamples * h * SampleBytes(image.depth));
  // OpenImageIO 2.4's TIFF reader can record a failed strip (a cut-off or damaged file) and
  // still report success with the strip left 0, and its JPEG reader reports a cut-off file
  // only that way: an error recorded while reading is a failed read. (Whatever opening left
  // behind is dropped first.)
  image.reader->geterror();
  const bool read = image.reader->read_image(0, 0, 0, n, BufferType(image.depth), buffer.data());
  const std::string readError = image.reader->geterror();
  if (!read || !readError.empty()) throw IoError(ReaderError(image.path, readError));
  image.reader->close();
  auto layer = std::make_unique<World>(image.depth, w, h);
  const ChannelMap map = MapChannels(n, image.grey, image.alphaIndex);
  for (int y = 0; y < h; ++y) {
    switch (image.depth) {
      case Depth::k8: {
        const uint8_t* in = buffer.data() + rowSamples * y;
        ToWorldRow(in, w, n, map, OpaqueValue<uint8_t>(Depth::k8), [](uint8_t v) { return v; },
                   reinterpret_cast<uint8_t*>(layer->Row(y)));
        break;
      }
      case Depth::k16: {
        const uint16_t* in = reinterpret_cast<const uint16_t*>(buffer.data()) + rowSamples * y;
        ToWorldRow(in, w, n, map, OpaqueValue<uint16_t>(Depth::k16), FileToHost16,
                   reinterpret_cast<uint16_t*>(layer->Row(y)));
        break;
      }
      case Depth::kFloat: {
        const float* in = reinterpret_cast<const float*>(buffer.data()) + rowSamples * y;
        ToWorldRow(in, w, n, map, OpaqueValue<float>(Depth::kFloat), [](float v) { return v; },
                   reinterpret_cast<float*>(layer->Row(y)));
        break;
      }
    }
  }
  return layer;
}

OutputLayout ChooseOutputLayout(const InputImage& input, bool forceAlpha) {
  OutputLayout layout;
  layout.grey = input.grey;
  layout.alpha = forceAlpha || input.alphaIndex >= 0;
  layout.channels = (layout.grey ? 1 : 3) + (layout.alpha ? 1 : 0);
  return layout;
}

void CheckWritable(const std::string& path, const OutputLayout& layout) {
  auto out = OIIO::ImageOutput::create(path);
  if (!out) throw IoError(ReaderError(path, OIIO::geterror()));
  if (layout.alpha && !out->supports("alpha")) {
    throw IoError(path + ": " + out->format_name() +
                  " files cannot hold an alpha channel (the input has one, or --alpha was given)");
  }
}

namespace {

OIIO::ImageSpec OutputSpec(const InputImage& input, const OutputLayout& layout, int width,
                           int height, const char* formatName) {
  OIIO::ImageSpec spec = input.spec;  // sample format and metadata
  spec.x = spec.y = spec.z = 0;
  spec.width = width;
  spec.height = height;
  spec.depth = 1;
  spec.full_x = spec.full_y = spec.full_z = 0;
  spec.full_width = width;
  spec.full_height = height;
  spec.full_depth = 1;
  spec.channelformats.clear();
  // Channel names: the input's own when the layout is the same, else the usual ones.
  std::vector<std::string> names;
  if (layout.channels == input.channels) {
    for (int c = 0; c < input.channels; ++c) {
      if (c != input.alphaIndex) names.push_back(input.spec.channelnames[c]);
    }
    if (input.alphaIndex >= 0) names.push_back(input.spec.channelnames[input.alphaIndex]);
  } else if (layout.grey) {
    names = {input.spec.channelnames.empty() ? std::string("Y") : input.spec.channelnames[0]};
    if (layout.alpha) names.push_back("A");
  } else {
    names = {"R", "G", "B"};
    if (layout.alpha) names.push_back("A");
  }
  spec.nchannels = layout.channels;
  spec.channelnames = names;
  spec.alpha_channel = layout.alpha ? layout.channels - 1 : -1;
  spec.z_channel = -1;
  spec.erase_attribute("Exif:PixelXDimension");
  spec.erase_attribute("Exif:PixelYDimension");
  // Colour values are written as they are: only TIFF records how alpha relates to colour,
  // and keeps what the input said; every other writer must not un-premultiply.
  if (std::strcmp(formatName, "tiff") != 0) spec.attribute("oiio:UnassociatedAlpha", 1);
  return spec;
}

}  // namespace

void WriteRenderedImage(const std::string& path, const std::string& shownPath,
                        const InputImage& input, const OutputLayout& layout,
                        const World* rendered, const PF_LRect& window) {
  const int outW = window.right - window.left, outH = window.bottom - window.top;
  const Depth depth = input.depth;
  const size_t rowSamples = static_cast<size_t>(outW) * layout.channels;
  std::vector<uint8_t> buffer(rowSamples * outH * SampleBytes(depth), 0);

  if (rendered && rendered->width() > 0 && rendered->height() > 0) {
    // The part of the window that the effect rendered, in layer coordinates.
    const long long x0 = std::max<long long>(window.left, rendered->originX());
    const long long y0 = std::max<long long>(window.top, rendered->originY());
    const long long x1 = std::min<long long>(window.right,
                                             static_cast<long long>(rendered->originX()) +
                                                 rendered->width());
    const long long y1 = std::min<long long>(window.bottom,
                                             static_cast<long long>(rendered->originY()) +
                                                 rendered->height());
    for (long long y = y0; y < y1 && x0 < x1; ++y) {
      const int wy = static_cast<int>(y - rendered->originY());
      const int wx = static_cast<int>(x0 - rendered->originX());
      const size_t outRow = static_cast<size_t>(y - window.top);
      const size_t outCol = static_cast<size_t>(x0 - window.left) * layout.channels;
      const int n = static_cast<int>(x1 - x0);
      switch (depth) {
        case Depth::k8:
          FromWorldRow(reinterpret_cast<const uint8_t*>(rendered->Pixel8(wx, wy)), n, layout,
                       [](uint8_t v) { return v; },
                       buffer.data() + outRow * rowSamples + outCol);
          break;
        case Depth::k16:
          FromWorldRow(reinterpret_cast<const uint16_t*>(rendered->Pixel16(wx, wy)), n, layout,
                       HostToFile16,
                       reinterpret_cast<uint16_t*>(buffer.data()) + outRow * rowSamples + outCol);
          break;
        case Depth::kFloat:
          FromWorldRow(reinterpret_cast<const float*>(rendered->PixelF(wx, wy)), n, layout,
                       [](float v) { return v; },
                       reinterpret_cast<float*>(buffer.data()) + outRow * rowSamples + outCol);
          break;
      }
    }
  }

  auto out = OIIO::ImageOutput::create(path);
  if (!out) throw IoError(ReaderError(shownPath, OIIO::geterror()));
  const OIIO::ImageSpec spec = OutputSpec(input, layout, outW, outH, out->format_name());
  WriteImageFile(std::move(out), path, shownPath, spec, BufferType(depth), buffer.data());
}

namespace {

// Writes through stdio like OpenImageIO's own file proxy, but remembers the first failed write:
// several of its writers ignore what a write returns, so a full disk or a file size limit
// would otherwise leave a cut-off file that looks written.
class CheckedFileProxy final : public OIIO::Filesystem::IOFile {
 public:
  explicit CheckedFileProxy(const std::string& path) : IOFile(path, Write) {
    if (!m_file) Fail(errno);
  }
  // Not "file": some writers (JPEG) take the FILE* of a "file" proxy and write to it directly,
  // past these checks.
  const char* proxytype() const override { return "checkedfile"; }
  size_t write(const void* data, size_t size) override {
    return Note(IOFile::write(data, size), size);
  }
  size_t pwrite(const void* data, size_t size, int64_t offset) override {
    return Note(IOFile::pwrite(data, size, offset), size);
  }
  void close() override {
    if (m_file && (std::fflush(m_file) != 0 || std::ferror(m_file))) Fail(errno);
    IOFile::close();
  }
  bool failed() const { return failed_; }
  const std::string& why() const { return why_; }

 private:
  size_t Note(size_t done, size_t wanted) {
    if (done != wanted) Fail(errno);
    return done;
  }
  void Fail(int err) {
    if (failed_) return;
    failed_ = true;
    why_ = err != 0 ? std::strerror(err) : "write failed";
  }

  bool failed_ = false;
  std::string why_;
};

}  // namespace

void WriteImageFile(std::unique_ptr<OIIO::ImageOutput> writer, const std::string& path,
                    const std::string& shownPath, const OIIO::ImageSpec& spec,
                    OIIO::TypeDesc type, const void* pixels) {
  std::unique_ptr<CheckedFileProxy> proxy;
  // Declared after the proxy, so destroyed before it: a writer that failed may still write
  // through the proxy when it is destroyed (the TIFF writer does).
  const std::unique_ptr<OIIO::ImageOutput> out = std::move(writer);
  // OpenImageIO 2.4's TIFF writer cannot read through a proxy, and it reads its own main
  // directory back after writing an Exif sub-directory (which it writes for every sRGB image):
  // through a proxy that directory came back empty and the file was left without its size
  // fields. TIFF files are written by libtiff itself; it checks its own writes.
  const bool useProxy = out->supports("ioproxy") && std::strcmp(out->format_name(), "tiff") != 0;
  if (useProxy) {
    proxy = std::make_unique<CheckedFileProxy>(path);
    if (proxy->failed()) throw IoError(shownPath + ": cannot write: " + proxy->why());
    out->set_ioproxy(proxy.get());
  }
  errno = 0;
  const bool written = out->open(path, spec) && out->write_image(type, pixels) && out->close();
  const int systemError = errno;
  const std::string writerError = written ? std::string() : out->geterror();
  if (proxy) proxy->close();
  // The proxy knows the system's reason (no space, file too large); the writer's own message
  // is often only a consequence of it.
  if (proxy && proxy->failed()) throw IoError(shownPath + ": cannot write: " + proxy->why());
  if (!written && !proxy && (systemError == EFBIG || systemError == ENOSPC ||
                            systemError == EDQUOT || systemError == EIO)) {
    throw IoError(shownPath + ": cannot write: " + std::strerror(systemError));
  }
  if (!written) throw IoError(ReaderError(shownPath, writerError));
}

}  // namespace veltrisca
