#include "cli/info/InfoReport.h"

#include <cstdio>

#include "cli/shared/Json.h"

namespace veltrisca {

void WriteInfoJson(std::ostream& out, const InfoResult& info, bool withTable) {
  const VtAFXLensData& l = info.back.lens;
  const hostsim::PreRenderReport& r = info.back.report;
  JsonObjectWriter j(out);
  j.String("about", info.about);
  j.IntPair("layerSize", info.layer.width, info.layer.height);
  j.Rect("request", info.back.request);
  j.Int("distortMode", l.distortMode);
  j.Int("filterType", l.filterType);
  j.Double("quadratic", l.quadratic);
  j.Double("cubic", l.cubic);
  j.Double("quartic", l.quartic);
  j.Double("zoom", l.zoom);
  j.Int("distortedWidth", l.distortedWidth);
  j.Int("distortedHeight", l.distortedHeight);
  j.Int("undistortedWidth", l.undistortedWidth);
  j.Int("undistortedHeight", l.undistortedHeight);
  j.Double("pixelAspect", l.pixelAspect);
  j.Float("normScaleX", l.normScaleX);
  j.Float("normScaleY", l.normScaleY);
  j.Float("normOffsetX", l.normOffsetX);
  j.Float("normOffsetY", l.normOffsetY);
  j.Float("pixScaleX", l.pixScaleX);
  j.Float("pixScaleY", l.pixScaleY);
  j.Float("pixOffsetX", l.pixOffsetX);
  j.Float("pixOffsetY", l.pixOffsetY);
  j.Float("frameAspect", l.frameAspect);
  j.Float("quadraticF", l.quadraticF);
  j.Float("cubicF", l.cubicF);
  j.Float("quarticF", l.quarticF);
  j.Float("limitUndistorted", l.limitUndistorted);
  j.Float("limitDistorted", l.limitDistorted);
  j.Float("invZoom", l.invZoom);
  j.Float("limitUndistortedSq", l.limitUndistortedSq);
  j.Rect("maxResultRect", l.maxResultRect);
  j.Float("lutScale", l.lutScale);
  if (withTable) {
    j.FloatArray("inverseTable", l.inverseTable, sizeof l.inverseTable / sizeof l.inverseTable[0]);
  }
  j.Int("tableValid", l.tableValid);
  j.Rect("inputRequest", r.inputRequest.rect);
  j.Int("inputRequestField", r.inputRequest.field);
  j.Rect("hostSupplied", r.supplied.result_rect);
  j.Rect("resultRect", r.output.result_rect);
  j.Rect("maxResultRectReported", r.output.max_result_rect);
  if (!info.image.empty()) {
    j.String("image", info.image);
    j.Parsed("recordedLens", info.recorded ? info.recorded->LensFile() : "null");
  }
  j.String("pixelAspectHandling", info.aspect);
  j.IntPair("fitUndistortedSize", info.fitSize.width, info.fitSize.height);
  j.Double("beyondInvertible", info.beyondInvertible);
  j.End();
}

namespace {

std::string Num(double v, int digits) {
  char text[48];
  std::snprintf(text, sizeof text, "%.*g", digits, v);
  return text;
}
std::string F(float v) { return Num(v, 9); }
std::string D(double v) { return Num(v, 17); }
// " + 5" or " - 5" for the offset of a linear term.
std::string Plus(float v) { return v < 0 ? " - " + F(-v) : " + " + F(v); }

std::string RectLine(const PF_LRect& r) {
  const long long w = static_cast<long long>(r.right) - r.left;
  const long long h = static_cast<long long>(r.bottom) - r.top;
  std::string s = "(" + std::to_string(r.left) + ", " + std::to_string(r.top) + ", " +
                  std::to_string(r.right) + ", " + std::to_string(r.bottom) + ")";
  if (w > 0 && h > 0) return s + "  " + std::to_string(w) + " x " + std::to_string(h);
  return s + "  empty";
}

// The about text separates name and description with carriage returns.
std::string AboutLines(const std::string& about) {
  std::string s;
  bool pendingBreak = false;
  for (const char c : about) {
    if (c == '\r' || c == '\n') {
      pendingBreak = true;
      continue;
    }
    if (pendingBreak && !s.empty()) s += "\n";
    pendingBreak = false;
    s += c;
  }
  return s;
}

}  // namespace

void WriteInfoText(std::ostream& out, const InfoResult& info) {
  const VtAFXLensData& l = info.back.lens;
  const hostsim::PreRenderReport& r = info.back.report;
  out << AboutLines(info.about) << "\n\n";
  out << "Input layer          " << info.layer.width << " x " << info.layer.height << "\n";
  out << "Output request       " << RectLine(info.back.request) << "\n\n";
  out << "Lens record (read back from the sequence data)\n";
  out << "  distortMode        " << l.distortMode << " (" << ModeName(l.distortMode) << ")\n";
  out << "  filterType         " << l.filterType << " (" << FilterName(l.filterType) << ")\n";
  out << "  quadratic          " << D(l.quadratic) << "\n";
  out << "  cubic              " << D(l.cubic) << "\n";
  out << "  quartic            " << D(l.quartic) << "\n";
  out << "  zoom               " << D(l.zoom) << "   (invZoom " << F(l.invZoom) << ")\n";
  out << "  distorted size     " << l.distortedWidth << " x " << l.distortedHeight << "\n";
  out << "  undistorted size   " << l.undistortedWidth << " x " << l.undistortedHeight << "\n";
  out << "  pixelAspect        " << D(l.pixelAspect) << "\n";
  out << "  frameAspect        " << F(l.frameAspect) << "\n";
  out << "  layer to lens      xn = x * " << F(l.normScaleX) << Plus(l.normOffsetX)
      << ",  yn = y * " << F(l.normScaleY) << Plus(l.normOffsetY) << "\n";
  out << "  lens to layer      x = xn * " << F(l.pixScaleX) << Plus(l.pixOffsetX)
      << ",  y = yn * " << F(l.pixScaleY) << Plus(l.pixOffsetY) << "\n";
  out << "  coefficients       " << F(l.quadraticF) << ", " << F(l.cubicF) << ", "
      << F(l.quarticF) << " (single precision)\n";
  out << "  monotonic limit    undistorted " << F(l.limitUndistorted) << " (squared "
      << F(l.limitUndistortedSq) << "), distorted " << F(l.limitDistorted) << "\n";
  out << "  inverse table      " << (l.tableValid ? "valid" : "not used (solver instead)")
      << ", lutScale " << F(l.lutScale) << "\n";
  out << "  maxResultRect      " << RectLine(l.maxResultRect) << "\n\n";
  out << "Smart pre-render\n";
  out << "  input request      " << RectLine(r.inputRequest.rect) << "   field "
      << r.inputRequest.field << "\n";
  out << "  host supplied      " << RectLine(r.supplied.result_rect) << "\n";
  out << "  result_rect        " << RectLine(r.output.result_rect) << "\n";
  out << "  max_result_rect    " << RectLine(r.output.max_result_rect) << "\n\n";
  if (!info.image.empty()) {
    out << "Image                " << info.image << "\n";
    out << "Recorded lens        " << (info.recorded ? info.recorded->Text() : "none") << "\n";
    for (const std::string& n : info.lensNotes) out << "                     " << n << "\n";
  }
  out << "Pixel aspect         " << info.aspect << "\n";
  out << "Overscan (--fit)     undistorted size " << info.fitSize.width << " x "
      << info.fitSize.height
      << (info.beyondInvertible > 0 ? " holds every part of the distorted frame the lens undoes\n"
                                    : " holds the whole distorted frame\n");
  out << "Beyond the inverse   " << Num(100.0 * info.beyondInvertible, 4)
      << "% of the distorted frame lies beyond the radius the lens inverts\n";
}

}  // namespace veltrisca
