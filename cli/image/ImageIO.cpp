#include "cli/image/ImageIO.h"

#include <OpenImageIO/filesystem.h>
#include <OpenImageIO/fmath.h>
#include <OpenImageIO/half.h>
#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imagebufalgo.h>
#include <OpenImageIO/strutil.h>
#include <sys/stat.h>
#include <zlib.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

#include "cli/shared/Errors.h"

namespace veltrisca {

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

// A file buffer holds one host depth's channels as a plain type: 8-bit and float values as
// the host has them, 16-bit values over the file's 0..65535 instead of the host's 0..32768.
template <int Bits>
struct FileSamples;
template <>
struct FileSamples<8> {
  using T = uint8_t;
  static constexpr OIIO::TypeDesc::BASETYPE kType = OIIO::TypeDesc::UINT8;
  static T ToHost(T v) { return v; }
  static T ToFile(T v) { return v; }
};
template <>
struct FileSamples<16> {
  using T = uint16_t;
  static constexpr OIIO::TypeDesc::BASETYPE kType = OIIO::TypeDesc::UINT16;
  static T ToHost(T v) { return FileToHost16(v); }
  static T ToFile(T v) { return HostToFile16(v); }
};
template <>
struct FileSamples<32> {
  using T = float;
  static constexpr OIIO::TypeDesc::BASETYPE kType = OIIO::TypeDesc::FLOAT;
  static T ToHost(T v) { return v; }
  static T ToFile(T v) { return v; }
};


}  // namespace

OIIO::TypeDesc BufferTypeOf(Depth depth) {
  return ForPixelDepth(depth, [](auto tag) {
    return OIIO::TypeDesc(FileSamples<decltype(tag)::kBits>::kType);
  });
}

namespace {

// Interleaved buffer row -> host world row (alpha, red, green, blue).
template <typename FileT, typename HostT, typename Convert>
void ToWorldRow(const FileT* in, int width, int channels, const Pass& p, HostT opaque,
                Convert convert, HostT* out) {
  for (int x = 0; x < width; ++x, in += channels, out += 4) {
    out[0] = p.alpha >= 0 ? convert(in[p.alpha]) : opaque;
    for (int s = 0; s < 3; ++s) out[1 + s] = p.colour[s] >= 0 ? convert(in[p.colour[s]]) : HostT(0);
  }
}

// Host world row -> output buffer row: the pass's colour channels, and alpha at alphaOut.
template <typename HostT, typename FileT, typename Convert>
void FromWorldRow(const HostT* in, int width, int channels, const Pass& p,
                  int alphaOut, Convert convert, FileT* out) {
  for (int x = 0; x < width; ++x, in += 4, out += channels) {
    for (int s = 0; s < 3; ++s) {
      if (p.colour[s] >= 0) out[p.colour[s]] = convert(in[1 + s]);
    }
    if (alphaOut >= 0) out[alphaOut] = convert(in[0]);
  }
}

std::string FileErrorText(const std::string& path, const std::string& why) {
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
// Returns false for a file that is not a PNG.
bool CheckPngChunks(const std::string& path) {
  static const unsigned char kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  std::ifstream in(path, std::ios::binary);
  unsigned char head[8];
  if (!in.read(reinterpret_cast<char*>(head), 8) || std::memcmp(head, kSignature, 8) != 0) {
    return false;
  }
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
    if (std::memcmp(head + 4, "IEND", 4) == 0) return true;
    offset += 12 + uint64_t{length};
  }
}

uint64_t FileSize(std::ifstream& in) {
  in.seekg(0, std::ios::end);
  const std::streamoff size = in.tellg();
  in.seekg(0);
  return size > 0 ? static_cast<uint64_t>(size) : 0;
}

// Reads an unsigned integer of `bytes` bytes at `offset`, in the file's byte order.
bool ReadUint(std::ifstream& in, uint64_t offset, int bytes, bool bigEndian, uint64_t* value) {
  unsigned char b[8];
  in.clear();
  in.seekg(static_cast<std::streamoff>(offset));
  if (!in.read(reinterpret_cast<char*>(b), bytes)) return false;
  *value = 0;
  for (int i = 0; i < bytes; ++i) {
    *value |= uint64_t{b[bigEndian ? i : bytes - 1 - i]} << (8 * (bytes - 1 - i));
  }
  return true;
}

// The DPX and TIFF readers of OpenImageIO 2.4 do not always notice pixel data cut short (the
// missing rows come back 0). The headers say how long the file must be: a DPX records its
// total size; a TIFF the offset and length of every strip or tile of its first image. Returns
// false when the file is neither, or its header is not one checked here.
bool CheckDeclaredLength(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  unsigned char magic[4];
  if (!in.read(reinterpret_cast<char*>(magic), 4)) return false;
  const uint64_t size = FileSize(in);
  auto refuse = [&](uint64_t declared) {
    throw IoError(path + ": truncated file (" + std::to_string(size) + " bytes; its header " +
                  "declares " + std::to_string(declared) + ")");
  };
  if (std::memcmp(magic, "SDPX", 4) == 0 || std::memcmp(magic, "XPDS", 4) == 0) {
    uint64_t declared = 0;
    if (!ReadUint(in, 16, 4, magic[0] == 'S', &declared)) return false;
    if (declared > size) refuse(declared);
    return true;
  }
  const bool big = std::memcmp(magic, "MM\0*", 4) == 0;
  if (!big && std::memcmp(magic, "II*\0", 4) != 0) return false;  // not TIFF (or BigTIFF)
  uint64_t ifd = 0, entries = 0;
  if (!ReadUint(in, 4, 4, big, &ifd) || !ReadUint(in, ifd, 2, big, &entries)) return false;
  std::vector<uint64_t> offsets, counts;
  for (uint64_t e = 0; e < entries; ++e) {
    const uint64_t at = ifd + 2 + 12 * e;
    uint64_t tag = 0, type = 0, count = 0;
    if (!ReadUint(in, at, 2, big, &tag) || !ReadUint(in, at + 2, 2, big, &type) ||
        !ReadUint(in, at + 4, 4, big, &count)) {
      return false;
    }
    if (tag != 273 && tag != 279 && tag != 324 && tag != 325) continue;
    const int width = type == 3 ? 2 : type == 4 ? 4 : 0;  // SHORT or LONG
    if (width == 0 || count == 0 || count > (1u << 24)) return false;
    uint64_t values = at + 8;
    if (count * width > 4 && !ReadUint(in, at + 8, 4, big, &values)) return false;
    std::vector<uint64_t>& list = (tag == 273 || tag == 324) ? offsets : counts;
    for (uint64_t i = 0; i < count; ++i) {
      uint64_t v = 0;
      if (!ReadUint(in, values + i * width, width, big, &v)) return false;
      list.push_back(v);
    }
  }
  if (offsets.empty() || offsets.size() != counts.size()) return false;
  uint64_t end = 0;
  for (size_t i = 0; i < offsets.size(); ++i) end = std::max(end, offsets[i] + counts[i]);
  if (end > size) refuse(end);
  return true;
}

// Scanlines in one chunk of an OpenEXR file, by compression: none, rle, zips, zip, piz,
// pxr24, b44, b44a, dwaa, dwab.
constexpr int kExrLinesPerChunk[] = {1, 1, 1, 16, 32, 16, 32, 32, 32, 256};

// The levels of a tiled OpenEXR side of n pixels (each level halves the last, rounding as the
// file says), and their sizes.
std::vector<uint64_t> ExrLevelSizes(uint64_t n, bool roundUp) {
  std::vector<uint64_t> sizes{n};
  while (sizes.back() > 1) sizes.push_back(roundUp ? (sizes.back() + 1) / 2 : sizes.back() / 2);
  return sizes;
}

// An OpenEXR file that is cut short, or was never finished, can still open: its header is whole
// and OpenImageIO reads the chunks only when asked for pixels. The chunk table after the header
// places every chunk; each must lie in the file, the last one ending within it. Returns false
// for a file that is not OpenEXR or a kind not checked here (deep, multi-part).
bool CheckExrChunks(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  unsigned char head[8];
  static const unsigned char kMagic[4] = {0x76, 0x2f, 0x31, 0x01};
  if (!in.read(reinterpret_cast<char*>(head), 8) || std::memcmp(head, kMagic, 4) != 0) {
    return false;
  }
  const uint64_t size = FileSize(in);
  const auto damaged = [&](const std::string& how, const std::string& why) {
    throw IoError(path + ": " + how + " OpenEXR file (" + std::to_string(size) + " bytes; " +
                  why + ")");
  };
  const bool tiled = (head[5] & 0x02) != 0;
  if ((head[5] & 0x18) != 0) return false;  // deep or multi-part
  // The header: attributes (name, type, byte count, value) up to an empty name.
  uint64_t at = 8;
  const auto text = [&](std::string* value) {
    in.clear();
    in.seekg(static_cast<std::streamoff>(at));
    if (!std::getline(in, *value, '\0')) damaged("truncated", "its header is cut off");
    at += value->size() + 1;
    return value->size() <= 255;
  };
  int64_t window[4] = {0, 0, -1, -1};
  uint64_t compression = ~0ull, tileX = 0, tileY = 0, tileMode = 0, chunkCount = 0;
  for (;;) {
    std::string name, type;
    if (!text(&name)) return false;
    if (name.empty()) break;
    uint64_t bytes = 0;
    if (!text(&type)) return false;
    if (!ReadUint(in, at, 4, false, &bytes)) damaged("truncated", "its header is cut off");
    at += 4;
    if (at + bytes > size) damaged("truncated", "its header is cut off");
    uint64_t v[4] = {0, 0, 0, 0};
    if (name == "dataWindow" && type == "box2i" && bytes == 16) {
      for (int i = 0; i < 4; ++i) {
        ReadUint(in, at + 4 * i, 4, false, &v[i]);
        window[i] = static_cast<int32_t>(static_cast<uint32_t>(v[i]));
      }
    } else if (name == "compression" && bytes == 1) {
      ReadUint(in, at, 1, false, &compression);
    } else if (name == "tiles" && type == "tiledesc" && bytes == 9) {
      ReadUint(in, at, 4, false, &tileX);
      ReadUint(in, at + 4, 4, false, &tileY);
      ReadUint(in, at + 8, 1, false, &tileMode);
    } else if (name == "chunkCount" && type == "int" && bytes == 4) {
      ReadUint(in, at, 4, false, &chunkCount);
    }
    at += bytes;
  }
  if (window[2] < window[0] || window[3] < window[1]) return false;
  const uint64_t width = static_cast<uint64_t>(window[2] - window[0]) + 1;
  const uint64_t height = static_cast<uint64_t>(window[3] - window[1]) + 1;
  uint64_t chunks = chunkCount;
  if (chunks == 0 && !tiled) {
    if (compression >= std::size(kExrLinesPerChunk)) return false;
    const uint64_t lines = static_cast<uint64_t>(kExrLinesPerChunk[compression]);
    chunks = (height + lines - 1) / lines;
  } else if (chunks == 0) {
    if (tileX == 0 || tileY == 0 || (tileMode & 15) > 2) return false;
    const bool roundUp = ((tileMode >> 4) & 15) == 1;
    const std::vector<uint64_t> xs = ExrLevelSizes(width, roundUp);
    const std::vector<uint64_t> ys = ExrLevelSizes(height, roundUp);
    const auto tiles = [&](uint64_t w, uint64_t h) {
      return ((w + tileX - 1) / tileX) * ((h + tileY - 1) / tileY);
    };
    switch (tileMode & 15) {
      case 0:  // one level
        chunks = tiles(width, height);
        break;
      case 1:  // mipmaps
        for (size_t l = 0; l < std::max(xs.size(), ys.size()); ++l) {
          chunks += tiles(xs[std::min(l, xs.size() - 1)], ys[std::min(l, ys.size() - 1)]);
        }
        break;
      default:  // ripmaps
        for (const uint64_t w : xs) {
          for (const uint64_t h : ys) chunks += tiles(w, h);
        }
    }
  }
  // The chunk table, then the chunks: each begins with its position (a line, or a tile's four
  // coordinates) and its byte count.
  const uint64_t tableEnd = at + 8 * chunks;
  const std::string of = " of " + std::to_string(chunks);
  if (chunks > size / 8 || tableEnd > size) {
    damaged("truncated", "its table of " + std::to_string(chunks) + " chunks is cut off");
  }
  const uint64_t chunkHead = tiled ? 20 : 8;
  uint64_t last = 0;
  for (uint64_t i = 0; i < chunks; ++i) {
    uint64_t offset = 0;
    ReadUint(in, at + 8 * i, 8, false, &offset);
    if (offset == 0) {
      damaged("incomplete", "chunk " + std::to_string(i) + of + " was never written");
    }
    if (offset < tableEnd || offset > size || size - offset < chunkHead) {
      damaged("truncated", "chunk " + std::to_string(i) + of + " lies at byte " +
                               std::to_string(offset));
    }
    last = std::max(last, offset);
  }
  uint64_t bytes = 0;
  if (chunks > 0 && (!ReadUint(in, last + chunkHead - 4, 4, false, &bytes) ||
                     last + chunkHead + bytes > size)) {
    damaged("truncated", "its last chunk ends at byte " + std::to_string(last + chunkHead + bytes));
  }
  return true;
}

}  // namespace

std::string FileError(const std::string& path, const std::string& why) {
  return FileErrorText(path, why);
}

namespace {

// The alpha channel: --alpha NAME, "none", or the file's own (OpenImageIO's alpha_channel,
// else a channel named A or alpha, in any case).
int FindAlpha(const OIIO::ImageSpec& s, const std::string& path, const std::string& option) {
  if (OIIO::Strutil::iequals(option, "none")) return -1;
  if (!option.empty()) {
    for (int c = 0; c < s.nchannels; ++c) {
      if (s.channel_name(c) == option) return c;
    }
    std::string names;
    for (int c = 0; c < s.nchannels; ++c) {
      names += (c ? ", " : "") + std::string(s.channel_name(c));
    }
    throw IoError(path + ": --alpha " + option + " names no channel (the channels are " + names +
                  ")");
  }
  if (s.alpha_channel >= 0 && s.alpha_channel < s.nchannels) return s.alpha_channel;
  for (int c = 0; c < s.nchannels; ++c) {
    const std::string n = s.channel_name(c);
    if (OIIO::Strutil::iequals(n, "a") || OIIO::Strutil::iequals(n, "alpha")) return c;
  }
  return -1;
}

// A file of several parts (subimages) would lose all but the first: refused, naming them.
void RefuseSeveralParts(OIIO::ImageInput& reader, const std::string& path) {
  std::vector<std::string> parts;
  for (int i = 0; reader.seek_subimage(i, 0); ++i) {
    const OIIO::ImageSpec& s = reader.spec();
    std::string name = s.get_string_attribute("name");
    if (name.empty()) name = "#" + std::to_string(i);
    parts.push_back(name + " (" + std::to_string(s.nchannels) + " channels)");
  }
  reader.geterror();
  if (parts.size() <= 1) {
    reader.seek_subimage(0, 0);
    return;
  }
  std::string list;
  for (size_t i = 0; i < parts.size(); ++i) list += (i ? ", " : "") + parts[i];
  throw IoError(path + ": " + std::to_string(parts.size()) + " parts (" + list +
                "); veltrisca renders one-part images: extract a part first, e.g. oiiotool " +
                path + " --subimage NAME -o part.exr");
}

}  // namespace

InputImage OpenInputImage(const std::string& path, const std::string& alpha) {
  InputImage image;
  image.path = path;
  CheckRegularFile(path);
  CheckPngChunks(path);
  CheckDeclaredLength(path);
  // Keep unassociated alpha as it is stored: values pass through unchanged.
  OIIO::ImageSpec config;
  config.attribute("oiio:UnassociatedAlpha", 1);
  image.reader = OIIO::ImageInput::open(path, &config);
  if (!image.reader) throw IoError(FileErrorText(path, OIIO::geterror()));
  RefuseSeveralParts(*image.reader, path);
  image.format = image.reader->format_name();
  image.spec = image.reader->spec();
  const OIIO::ImageSpec& s = image.spec;
  if (s.width < 1 || s.height < 1 || s.depth > 1 || s.nchannels < 1) {
    throw IoError(path + ": unsupported image geometry " + std::to_string(s.width) + "x" +
                  std::to_string(s.height) + "x" + std::to_string(s.depth) + " with " +
                  std::to_string(s.nchannels) + " channels");
  }
  image.channels = s.nchannels;
  image.alphaIndex = FindAlpha(s, path, alpha);
  for (int c = 0; c < image.channels; ++c) {
    if (c != image.alphaIndex) image.colour.push_back(c);
  }
  image.dataWindow = RecordsWindows(image.format)
                         ? PF_LRect{s.x, s.y, s.x + s.width, s.y + s.height}
                         : PF_LRect{0, 0, s.width, s.height};
  image.displayWindow = (RecordsWindows(image.format) && s.full_width > 0 && s.full_height > 0)
                            ? PF_LRect{s.full_x, s.full_y, s.full_x + s.full_width,
                                       s.full_y + s.full_height}
                            : image.dataWindow;
  // Channels of different types travel as float, the type that holds them all.
  bool mixed = false;
  for (const OIIO::TypeDesc& t : s.channelformats) mixed |= (t != s.channelformats.front());
  // 8- and 16-bit files go to the host at their own depth; half, float and every other type
  // as float.
  image.depth = Depth::kFloat;
  for (const Depth d : {Depth::k8, Depth::k16}) {
    if (!mixed && BufferTypeOf(d).basetype == s.format.basetype) image.depth = d;
  }
  return image;
}

OIIO::ImageSpec CheckWholeImage(const std::string& path) {
  CheckRegularFile(path);
  const bool lengthChecked =
      CheckPngChunks(path) || CheckDeclaredLength(path) || CheckExrChunks(path);
  auto in = OIIO::ImageInput::open(path);
  if (!in) throw IoError(FileErrorText(path, OIIO::geterror()));
  const OIIO::ImageSpec spec = in->spec();
  if (spec.width < 1 || spec.height < 1 || spec.nchannels < 1) {
    throw IoError(path + ": holds no pixels");
  }
  if (!lengthChecked) {
    // No table to check: every pixel is read, and an error recorded while reading (a reader
    // that fills what is cut off) counts as a failed read.
    std::vector<uint8_t> pixels(spec.image_bytes(true));
    in->geterror();
    const bool read = in->read_image(0, 0, 0, spec.nchannels, OIIO::TypeUnknown, pixels.data());
    const std::string error = in->geterror();
    if (!read || !error.empty()) throw IoError(FileErrorText(path, error));
  }
  in->close();
  return spec;
}

OIIO::TypeDesc SampleTypeOf(const PixelBuffer& px) {
  return px.half ? OIIO::TypeDesc(OIIO::TypeDesc::HALF) : BufferTypeOf(px.depth);
}

bool AllChannelsAre(OIIO::TypeDesc format, const std::vector<OIIO::TypeDesc>& channelFormats,
                    OIIO::TypeDesc type) {
  return format == type && std::all_of(channelFormats.begin(), channelFormats.end(),
                                        [&](OIIO::TypeDesc t) { return t == type; });
}

bool StoredAsHalf(const InputImage& image) {
  return image.depth == Depth::kFloat &&
         AllChannelsAre(image.spec.format, image.spec.channelformats, OIIO::TypeDesc::HALF);
}

namespace {

// Bytes of the buffer's samples, interleaved and packed.
size_t SampleBytes(const PixelBuffer& px) {
  return static_cast<size_t>(px.width) * static_cast<size_t>(px.height) *
         static_cast<size_t>(px.channels) * SampleTypeOf(px).size();
}

}  // namespace

PixelBuffer ReadPixels(InputImage& image, std::vector<uint8_t> storage, bool keepHalf) {
  PixelBuffer px;
  px.bytes = std::move(storage);
  px.width = image.spec.width;
  px.height = image.spec.height;
  px.channels = image.channels;
  px.depth = image.depth;
  px.half = keepHalf && StoredAsHalf(image);
  px.bytes.resize(SampleBytes(px));
  // OpenImageIO 2.4's TIFF reader can record a failed strip (a cut-off or damaged file) and
  // still report success with the strip left 0, and its JPEG reader reports a cut-off file
  // only that way: an error recorded while reading is a failed read. (Whatever opening left
  // behind is dropped first.)
  image.reader->geterror();
  // A scanline OpenEXR file's samples, where the buffer holds them as stored, straight into the
  // buffer (read_image would decode them into a fresh buffer of its own and copy them over).
  const OIIO::ImageSpec& s = image.spec;
  const bool native = image.format == "openexr" && s.tile_width == 0 &&
                      AllChannelsAre(s.format, s.channelformats, SampleTypeOf(px));
  const bool read =
      native ? image.reader->read_native_scanlines(0, 0, s.y, s.y + s.height, s.z, 0, px.channels,
                                                   px.bytes.data())
             : image.reader->read_image(0, 0, 0, px.channels, SampleTypeOf(px), px.bytes.data());
  const std::string readError = image.reader->geterror();
  if (!read || !readError.empty()) throw IoError(FileErrorText(image.path, readError));
  image.reader->close();
  return px;
}

bool RecordsWindows(const std::string& format) { return format == "openexr"; }

std::unique_ptr<World> PassLayer(const PixelBuffer& px, const Pass& p, int originX, int originY,
                                 const PF_LRect& rect, std::unique_ptr<World> reuse) {
  const int w = px.width, h = px.height, n = px.channels;
  const int lw = rect.right - rect.left, lh = rect.bottom - rect.top;
  std::unique_ptr<World> layer = std::move(reuse);
  // A world with a black margin is made afresh (zero-filled): the last frame's pixels may have
  // lain elsewhere in it.
  if (!layer || lw != w || lh != h || layer->depth() != px.depth || layer->width() != lw ||
      layer->height() != lh ||
      layer->originX() != rect.left || layer->originY() != rect.top ||
      layer->paddingBytes() != 0) {
    layer = std::make_unique<World>(px.depth, lw, lh, rect.left, rect.top);
  }
  const size_t skip = static_cast<size_t>(originX - rect.left) * hostsim::PixelBytes(px.depth);
  const size_t rowSamples = static_cast<size_t>(w) * n;
  if (px.half) {
    for (int y = 0; y < h; ++y) {
      ToWorldRow(reinterpret_cast<const half*>(px.bytes.data()) + rowSamples * y, w, n, p,
                 static_cast<float>(kPixelDepthFloat.alphaMax),
                 [](half v) { return static_cast<float>(v); },
                 reinterpret_cast<float*>(layer->Row(y + originY - rect.top) + skip));
    }
    return layer;
  }
  ForPixelDepth(px.depth, [&](auto tag) {
    using Samples = FileSamples<decltype(tag)::kBits>;
    using T = typename Samples::T;
    const T opaque = static_cast<T>(decltype(tag)::kInfo.alphaMax);
    for (int y = 0; y < h; ++y) {
      ToWorldRow(reinterpret_cast<const T*>(px.bytes.data()) + rowSamples * y, w, n, p, opaque,
                 Samples::ToHost,
                 reinterpret_cast<T*>(layer->Row(y + originY - rect.top) + skip));
    }
  });
  return layer;
}

PixelBuffer StretchWidth(const PixelBuffer& px, int width) {
  const OIIO::TypeDesc type = BufferTypeOf(px.depth);
  const OIIO::ImageSpec from(px.width, px.height, px.channels, type);
  const OIIO::ImageBuf source(from, const_cast<uint8_t*>(px.bytes.data()));
  OIIO::ImageBuf stretched(OIIO::ImageSpec(width, px.height, px.channels, type));
  if (!OIIO::ImageBufAlgo::resize(stretched, source)) {
    throw IoError("cannot desqueeze the result: " + stretched.geterror());
  }
  PixelBuffer out;
  out.width = width;
  out.height = px.height;
  out.channels = px.channels;
  out.depth = px.depth;
  out.bytes.resize(static_cast<size_t>(width) * px.height * px.channels * type.size());
  stretched.get_pixels(OIIO::ROI::All(), type, out.bytes.data());
  return out;
}

OutputLayout ChooseOutputLayout(const InputImage& input, bool addAlpha) {
  OutputLayout layout;
  for (int c = 0; c < input.channels; ++c) {
    layout.names.emplace_back(input.spec.channel_name(c));
  }
  layout.alphaIndex = input.alphaIndex;
  if (addAlpha && input.alphaIndex < 0) {
    layout.addedAlpha = true;
    layout.alphaIndex = input.channels;
    layout.names.push_back("A");
  }
  layout.channels = static_cast<int>(layout.names.size());
  return layout;
}

std::vector<Pass> PlanPasses(const InputImage& input, const OutputLayout& layout,
                             const std::vector<int>& filters) {
  std::vector<Pass> passes;
  std::vector<bool> placed(input.colour.size(), false);
  for (size_t first = 0; first < input.colour.size(); ++first) {
    if (placed[first]) continue;
    const int filter = filters[static_cast<size_t>(input.colour[first])];
    int slot = 3;
    for (size_t i = first; i < input.colour.size(); ++i) {
      if (placed[i] || filters[static_cast<size_t>(input.colour[i])] != filter) continue;
      if (slot == 3) {
        passes.push_back(Pass{filter, input.alphaIndex, {-1, -1, -1}, false});
        slot = 0;
      }
      passes.back().colour[slot++] = input.colour[i];
      placed[i] = true;
    }
  }
  if (layout.alphaIndex >= 0) {
    const int filter = filters[static_cast<size_t>(layout.alphaIndex)];
    auto own = std::find_if(passes.begin(), passes.end(),
                            [&](const Pass& p) { return p.filter == filter; });
    if (own == passes.end()) {
      own = passes.insert(passes.end(), Pass{filter, input.alphaIndex, {-1, -1, -1}, false});
    }
    own->storesAlpha = true;
  }
  return passes;
}

PixelBuffer NewOutputBuffer(const InputImage& input, const OutputLayout& layout,
                            const PF_LRect& window, std::vector<uint8_t> storage, bool half) {
  PixelBuffer out;
  out.bytes = std::move(storage);
  out.width = window.right - window.left;
  out.height = window.bottom - window.top;
  out.channels = layout.channels;
  out.depth = input.depth;
  out.half = half && input.depth == Depth::kFloat;
  out.bytes.assign(SampleBytes(out), 0);
  return out;
}

void StorePass(const InputImage& /*input*/, const OutputLayout& layout, const Pass& p,
               const World* rendered, const PF_LRect& window, PixelBuffer* out) {
  if (!rendered || rendered->width() <= 0 || rendered->height() <= 0) return;
  const int alphaOut = p.storesAlpha ? layout.alphaIndex : -1;
  // The part of the window that the effect rendered, in layer coordinates.
  const long long x0 = std::max<long long>(window.left, rendered->originX());
  const long long y0 = std::max<long long>(window.top, rendered->originY());
  const long long x1 = std::min<long long>(
      window.right, static_cast<long long>(rendered->originX()) + rendered->width());
  const long long y1 = std::min<long long>(
      window.bottom, static_cast<long long>(rendered->originY()) + rendered->height());
  const int n = out->channels;
  const size_t rowSamples = static_cast<size_t>(out->width) * n;
  std::vector<float> wide;  // one channel of a row, then as half
  std::vector<half> narrow;
  for (long long y = y0; y < y1 && x0 < x1; ++y) {
    const int wy = static_cast<int>(y - rendered->originY());
    const int wx = static_cast<int>(x0 - rendered->originX());
    const size_t at = static_cast<size_t>(y - window.top) * rowSamples +
                      static_cast<size_t>(x0 - window.left) * n;
    const int count = static_cast<int>(x1 - x0);
    if (out->half) {
      // Each channel of the row through OpenImageIO's own float-to-half conversion, the one its
      // writer applies to a float buffer: the same bits as writing the floats.
      const float* row =
          reinterpret_cast<const float*>(rendered->Row(wy)) + 4 * static_cast<size_t>(wx);
      half* to = reinterpret_cast<half*>(out->bytes.data()) + at;
      wide.resize(static_cast<size_t>(count));
      narrow.resize(static_cast<size_t>(count));
      float* w = wide.data();
      half* h = narrow.data();
      const int slots[4] = {p.colour[0], p.colour[1], p.colour[2], alphaOut};
      for (int s = 0; s < 4; ++s) {
        if (slots[s] < 0) continue;
        const int slot = s == 3 ? 0 : 1 + s;
        for (int x = 0; x < count; ++x) w[x] = row[4 * x + slot];
        OIIO::convert_type<float, half>(w, h, static_cast<size_t>(count));
        for (int x = 0; x < count; ++x) {
          to[static_cast<size_t>(x) * n + static_cast<size_t>(slots[s])] = h[x];
        }
      }
      continue;
    }
    ForPixelDepth(out->depth, [&](auto tag) {
      using Samples = FileSamples<decltype(tag)::kBits>;
      using T = typename Samples::T;
      FromWorldRow(reinterpret_cast<const T*>(rendered->Row(wy)) + 4 * static_cast<size_t>(wx),
                   count, n, p, alphaOut, Samples::ToFile,
                   reinterpret_cast<T*>(out->bytes.data()) + at);
    });
  }
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
                    OIIO::TypeDesc type, const void* pixels, OIIO::TypeDesc* writtenType) {
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
  const bool opened = out->open(path, spec);
  if (opened && writtenType) *writtenType = out->spec().format;
  const bool written = opened && out->write_image(type, pixels) && out->close();
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
  if (!written) throw IoError(FileErrorText(shownPath, writerError));
}

}  // namespace veltrisca
