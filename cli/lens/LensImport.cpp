#include "cli/lens/LensImport.h"

#include <CLI/CLI.hpp>
#include <lensfun.h>
#include <OpenImageIO/strutil.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <tuple>

#include "cli/shared/AtomicFile.h"
#include "cli/shared/Errors.h"
#include "cli/lens/LensFile.h"
#include "cli/shared/Memory.h"
#include "cli/session/EffectSession.h"
#include "cli/session/Positions.h"

namespace veltrisca {

void AddImportOptions(CLI::App* lens, LensCommand* c) {
  lens->add_option("--from", c->from, "import a lens: opencv, ffmpeg or lensfun")
      ->type_name("SOURCE");
  lens->add_option("--size", c->size, "with --from: the frame the lens is for")
      ->type_name("WxH")
      ->capture_default_str();
  lens->add_option("--k1", c->k1, "opencv, ffmpeg: radial coefficient k1")->type_name("X");
  lens->add_option("--k2", c->k2, "opencv, ffmpeg: radial coefficient k2")->type_name("X");
  lens->add_option("--k3", c->k3, "opencv: radial coefficient k3")->type_name("X");
  lens->add_option("--p1", c->p1, "opencv: tangential coefficient p1")->type_name("X");
  lens->add_option("--p2", c->p2, "opencv: tangential coefficient p2")->type_name("X");
  lens->add_option("--fx", c->fx, "opencv: focal length in pixels, x")->type_name("PX");
  lens->add_option("--fy", c->fy, "opencv: focal length in pixels, y")->type_name("PX");
  lens->add_option("--cx", c->cx, "opencv: principal point x, pixel index")->type_name("PX");
  lens->add_option("--cy", c->cy, "opencv: principal point y, pixel index")->type_name("PX");
  lens->add_option("--maker", c->maker, "lensfun: lens maker")->type_name("M");
  lens->add_option("--model", c->model, "lensfun: lens model")->type_name("LENS");
  lens->add_option("--focal", c->focal, "lensfun: focal length in mm")->type_name("F");
  lens->add_option("--crop", c->crop, "lensfun: the camera's crop factor (default: the lens's)")
      ->type_name("C");
}

namespace {

double ParseReal(const std::string& option, const std::string& text) {
  double v = 0;
  if (!ReadReal(text, &v) || !std::isfinite(v)) {
    throw UsageError(option + ": expected a finite number, got " + Quoted(text));
  }
  return v;
}

std::string Num(double v, int digits = 6) {
  char text[48];
  std::snprintf(text, sizeof text, "%.*g", digits, v);
  return text;
}

// Solves the n x n system a·x = b (n <= 4) by Gaussian elimination with partial pivoting.
void Solve(int n, double a[4][4], double b[4], double x[4]) {
  for (int col = 0; col < n; ++col) {
    int pivot = col;
    for (int r = col + 1; r < n; ++r) {
      if (std::fabs(a[r][col]) > std::fabs(a[pivot][col])) pivot = r;
    }
    std::swap(a[col], a[pivot]);
    std::swap(b[col], b[pivot]);
    if (a[col][col] == 0) throw IoError("the least-squares fit is singular");
    for (int r = col + 1; r < n; ++r) {
      const double f = a[r][col] / a[col][col];
      for (int k = col; k < n; ++k) a[r][k] -= f * a[col][k];
      b[r] -= f * b[col];
    }
  }
  for (int r = n - 1; r >= 0; --r) {
    double s = b[r];
    for (int k = r + 1; k < n; ++k) s -= a[r][k] * x[k];
    x[r] = s / a[r][r];
  }
}

}  // namespace

PolynomialFit FitPolynomial(const SourceMapping& source, ImageSize frame, bool fitZoom) {
  const double cx = frame.width / 2.0, cy = frame.height / 2.0, h = frame.height / 2.0;
  // Basis functions of the radial factor: a1 (only with fitZoom), a3·ρ², a4·ρ³, a5·ρ⁴.
  const int n = fitZoom ? 4 : 3;
  double ata[4][4] = {}, atb[4] = {};
  const int stepsX = std::min(frame.width, 256), stepsY = std::min(frame.height, 256);
  for (int j = 0; j < stepsY; ++j) {
    for (int i = 0; i < stepsX; ++i) {
      // Whole pixels, so that a source known only at pixels can be sampled.
      const double x = stepsX > 1 ? std::round((frame.width - 1.0) * i / (stepsX - 1)) : 0.0;
      const double y = stepsY > 1 ? std::round((frame.height - 1.0) * j / (stepsY - 1)) : 0.0;
      double xd = 0, yd = 0;
      source(x, y, &xd, &yd);
      const double dx = (x - cx) / h, dy = (y - cy) / h;
      const double rho = std::sqrt(dx * dx + dy * dy);
      const double powers[4] = {1.0, rho * rho, rho * rho * rho, rho * rho * rho * rho};
      // Two equations per point (x and y); the unknowns multiply h·d·power.
      const double* basis = fitZoom ? powers : powers + 1;
      const double targetX = xd - cx - (fitZoom ? 0.0 : h * dx);
      const double targetY = yd - cy - (fitZoom ? 0.0 : h * dy);
      for (int r = 0; r < n; ++r) {
        const double gx = h * dx * basis[r], gy = h * dy * basis[r];
        atb[r] += gx * targetX + gy * targetY;
        for (int k = 0; k < n; ++k) ata[r][k] += gx * h * dx * basis[k] + gy * h * dy * basis[k];
      }
    }
  }
  double a[4] = {};
  Solve(n, ata, atb, a);
  PolynomialFit fit;
  const double a1 = fitZoom ? a[0] : 1.0;
  const double* rest = fitZoom ? a + 1 : a;
  if (!(a1 > 0)) throw IoError("the fitted lens has no positive scale; it cannot be held");
  fit.zoom = 1.0 / a1;
  fit.k2 = rest[0] * std::pow(fit.zoom, 3);
  fit.k3 = rest[1] * std::pow(fit.zoom, 4);
  fit.k4 = rest[2] * std::pow(fit.zoom, 5);
  return fit;
}

namespace {

struct Imported {
  PolynomialFit fit;
  bool exact = false;
  std::string how;                 // how the coefficients were found
  std::vector<std::string> cannot;  // what the effect's model cannot hold
  std::vector<std::string> warnings;  // doubts about the source's own data
  SourceMapping source;
  SourceMapping centred;  // the source with its centre moved to the effect's lens centre
};

Imported FromOpenCv(const LensCommand& c, ImageSize frame) {
  if (c.fx.empty() || c.fy.empty() || c.cx.empty() || c.cy.empty()) {
    throw UsageError("--from opencv needs --fx, --fy, --cx and --cy (pixels of --size)");
  }
  const double k1 = ParseReal("--k1", c.k1), k2 = ParseReal("--k2", c.k2),
               k3 = ParseReal("--k3", c.k3), p1 = ParseReal("--p1", c.p1),
               p2 = ParseReal("--p2", c.p2), fx = ParseReal("--fx", c.fx),
               fy = ParseReal("--fy", c.fy), cx = ParseReal("--cx", c.cx),
               cy = ParseReal("--cy", c.cy);
  if (!(fx > 0) || !(fy > 0)) throw UsageError("--fx, --fy: focal lengths must be positive");
  // Pixel centres run from 0 to W-1; a principal point off the frame is a calibration of
  // another image size (or a typing error).
  for (const auto& [option, value, extent] :
       {std::make_tuple("--cx", cx, frame.width), std::make_tuple("--cy", cy, frame.height)}) {
    if (!(value >= -0.5 && value <= extent - 0.5)) {
      throw UsageError(std::string(option) + " " + Num(value) + ": the principal point lies " +
                       "outside the " + std::to_string(frame.width) + "x" +
                       std::to_string(frame.height) + " frame (-0.5.." + Num(extent - 0.5) +
                       "); is --size the calibration's image size?");
    }
  }
  auto mapping = [=](double ccx, double ccy) -> SourceMapping {
    return [=](double x, double y, double* xd, double* yd) {
      const double xn = (x - ccx) / fx, yn = (y - ccy) / fy;
      const double r2 = xn * xn + yn * yn;
      const double radial = 1 + r2 * (k1 + r2 * (k2 + r2 * k3));
      *xd = fx * (xn * radial + 2 * p1 * xn * yn + p2 * (r2 + 2 * xn * xn)) + ccx;
      *yd = fy * (yn * radial + p1 * (r2 + 2 * yn * yn) + 2 * p2 * xn * yn) + ccy;
    };
  };
  Imported im;
  im.source = mapping(cx, cy);
  im.centred = mapping(frame.width / 2.0, frame.height / 2.0);
  if (k3 != 0) im.cannot.push_back("k3 (the r^6 term) has no counterpart; fitted");
  if (p1 != 0 || p2 != 0) {
    im.cannot.push_back("tangential distortion p1, p2: the effect's lens is radial only");
  }
  if (fx != fy) {
    im.cannot.push_back("fx != fy (ratio " + Num(fy / fx, 8) +
                        "): the lens is round in square pixels here (the pixel aspect would "
                        "also narrow the output frame); fitted");
  }
  if (k3 == 0 && p1 == 0 && p2 == 0 && fx == fy) {
    // OpenCV's radius is in focal lengths, ours in half heights: rho_cv = rho · h / f.
    const double s = (frame.height / 2.0) / fx;
    im.fit.k2 = k1 * s * s;
    im.fit.k4 = k2 * s * s * s * s;
    im.exact = true;
    im.how = "exact: k1, k2 rescaled from focal lengths to half the frame height";
  } else {
    im.fit = FitPolynomial(im.source, frame, false);
    im.how = "least-squares fit of the three coefficients over the frame";
  }
  return im;
}

Imported FromFfmpeg(const LensCommand& c, ImageSize frame) {
  const double k1 = ParseReal("--k1", c.k1), k2 = ParseReal("--k2", c.k2);
  // lenscorrection: r_src = r_tgt·(1 + k1·(r_tgt/r0)² + k2·(r_tgt/r0)⁴), r0 half the diagonal,
  // the focal point at the frame centre, output (target) to input (source) like Remove.
  const double w = frame.width, h = frame.height;
  const double r0 = std::sqrt(w * w + h * h) / 2;
  Imported im;
  im.source = [=](double x, double y, double* xd, double* yd) {
    const double dx = x - w / 2, dy = y - h / 2;
    const double t2 = (dx * dx + dy * dy) / (r0 * r0);
    const double f = 1 + t2 * (k1 + t2 * k2);
    *xd = w / 2 + dx * f;
    *yd = h / 2 + dy * f;
  };
  const double s = (h / 2) / r0;
  im.fit.k2 = k1 * s * s;
  im.fit.k4 = k2 * s * s * s * s;
  im.exact = true;
  im.how = "exact: k1, k2 rescaled from half the diagonal to half the frame height "
           "(focal point taken at pixel index (W/2, H/2), as the effect's lens centre)";
  return im;
}

// "Canon EF28mm f/2.8": the model, after its maker unless the model already starts with it.
std::string LensName(const lfLens* lens) {
  const std::string maker = lens->Maker ? lf_mlstr_get(lens->Maker) : "";
  const std::string model = lens->Model ? lf_mlstr_get(lens->Model) : "";
  return OIIO::Strutil::istarts_with(model, maker) ? model : maker + " " + model;
}

// A lens name as compared: lower case, without spaces and without the maker in front
// ("Canon EF 28mm f/2.8" and "EF28mm f/2.8" by Canon are the same name).
std::string NameKey(const std::string& name, const lfLens* lens) {
  auto squeeze = [](std::string text) {
    OIIO::Strutil::to_lower(text);
    text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
    return text;
  };
  std::string key = squeeze(name);
  const std::string maker = squeeze(lens->Maker ? lf_mlstr_get(lens->Maker) : "");
  if (!maker.empty() && key.rfind(maker, 0) == 0) key.erase(0, maker.size());
  return key;
}

// The focal lengths of the lens's distortion calibrations: the shortest and the longest.
std::pair<double, double> CalibratedFocals(const lfLens* lens) {
  double lo = HUGE_VAL, hi = -HUGE_VAL;
  for (lfLensCalibDistortion** calib = lens->CalibDistortion; calib && *calib; ++calib) {
    lo = std::min<double>(lo, (*calib)->Focal);
    hi = std::max<double>(hi, (*calib)->Focal);
  }
  return {lo, hi};
}

// The one lens of the database that --maker and --model name. lensfun's search is fuzzy
// ("EF" finds 140 lenses): a model named exactly (case and spaces aside, with or without its
// maker) is taken; otherwise the search must find one lens. Entries without a distortion
// calibration do not count. The same lens calibrated at several crop factors is told apart by
// --crop (the calibration nearest it), or refused.
const lfLens* FindLensfunLens(const lfDatabase& db, const LensCommand& c, double crop) {
  const lfLens** found = db.FindLenses(nullptr, c.maker.empty() ? nullptr : c.maker.c_str(),
                                       c.model.c_str());
  std::vector<const lfLens*> all, exact;
  for (size_t i = 0; found && found[i]; ++i) {
    const lfLens* lens = found[i];
    if (CalibratedFocals(lens).first > CalibratedFocals(lens).second) continue;
    all.push_back(lens);
    if (NameKey(lens->Model ? lf_mlstr_get(lens->Model) : "", lens) == NameKey(c.model, lens)) {
      exact.push_back(lens);
    }
  }
  lf_free(found);
  const std::string asked = "'" + c.model + "'" + (c.maker.empty() ? "" : " by '" + c.maker + "'");
  if (all.empty()) {
    throw IoError("lensfun: no lens " + asked + " with a distortion calibration in the database");
  }
  std::vector<const lfLens*>& candidates = exact.empty() ? all : exact;
  std::vector<std::string> names, keys;
  for (const lfLens* lens : candidates) {
    const std::string key = NameKey(LensName(lens), lens);
    if (std::find(keys.begin(), keys.end(), key) == keys.end()) {
      keys.push_back(key);
      names.push_back(LensName(lens));
    }
  }
  if (names.size() > 1) {
    std::string list;
    for (size_t i = 0; i < names.size() && i < 8; ++i) list += (i ? "; " : "") + names[i];
    if (names.size() > 8) list += "; and " + std::to_string(names.size() - 8) + " more";
    throw UsageError("lensfun: " + std::to_string(names.size()) + " lenses match " + asked +
                     ": " + list + "; give --model the full name");
  }
  if (candidates.size() == 1) return candidates.front();
  std::string crops;
  for (const lfLens* lens : candidates) crops += (crops.empty() ? "" : ", ") + Num(lens->CropFactor);
  if (!(crop > 0)) {
    throw UsageError("lensfun: '" + names.front() + "' is calibrated at crop factors " + crops +
                     "; give --crop to choose");
  }
  return *std::min_element(candidates.begin(), candidates.end(),
                           [crop](const lfLens* a, const lfLens* b) {
                             return std::fabs(std::log(a->CropFactor / crop)) <
                                    std::fabs(std::log(b->CropFactor / crop));
                           });
}

Imported FromLensfun(const LensCommand& c, ImageSize frame) {
  if (c.model.empty() || c.focal.empty()) {
    throw UsageError("--from lensfun needs --model LENS and --focal F (and usually --maker M)");
  }
  const double focal = ParseReal("--focal", c.focal);
  if (!(focal > 0)) throw UsageError("--focal: " + c.focal + " mm is not a focal length");
  const double givenCrop = c.crop.empty() ? 0.0 : ParseReal("--crop", c.crop);
  if (!c.crop.empty() && !(givenCrop > 0)) {
    throw UsageError("--crop: the crop factor must be positive");
  }
  auto db = std::make_unique<lfDatabase>();
  if (db->Load() != LF_NO_ERROR) throw IoError("cannot load the lensfun database");
  const lfLens* lens = FindLensfunLens(*db, c, givenCrop);
  const std::string name = LensName(lens);
  // The lens's own range, else (unknown) the focal lengths it was calibrated at.
  const auto [calibLo, calibHi] = CalibratedFocals(lens);
  const double lo = lens->MinFocal > 0 ? lens->MinFocal : calibLo;
  const double hi = lens->MaxFocal > 0 ? std::max<double>(lens->MaxFocal, lo) : calibHi;
  if (focal < lo * (1 - 1e-6) || focal > hi * (1 + 1e-6)) {
    throw UsageError("--focal " + c.focal + ": '" + name + "' is a " +
                     (lo == hi ? Num(lo) : Num(lo) + "-" + Num(hi)) + " mm lens");
  }
  Imported im;
  // Between two calibrations liblensfun interpolates; beyond them it takes the nearest one as
  // it is.
  if (focal < calibLo || focal > calibHi) {
    im.warnings.push_back("lensfun calibrated '" + name + "' at " +
                          (calibLo == calibHi ? Num(calibLo) : Num(calibLo) + "-" + Num(calibHi)) +
                          " mm only; at " + c.focal + " mm it uses the " +
                          Num(focal < calibLo ? calibLo : calibHi) + " mm calibration unchanged");
  }
  lfLensCalibDistortion calib{};
  if (!lens->InterpolateDistortion(static_cast<float>(focal), calib) ||
      calib.Model == LF_DIST_MODEL_NONE) {
    throw IoError("lensfun: '" + name + "' has no distortion calibration at " + c.focal + " mm");
  }
  const double crop = c.crop.empty() ? lens->CropFactor : givenCrop;
  auto mod = std::make_unique<lfModifier>(lens, static_cast<float>(crop), frame.width,
                                          frame.height);
  mod->Initialize(lens, LF_PF_F32, static_cast<float>(focal), 8.0f, 1000.0f, 1.0f, lens->Type,
                  LF_MODIFY_DISTORTION, false);
  // liblensfun's own correction: for each corrected (undistorted) pixel, its distorted
  // position, computed a row at a time as an application of lensfun does. A second table
  // holds the same lens moved half a pixel: liblensfun centres its lens on the frame's
  // geometric centre ((W-1)/2, (H-1)/2 in pixel indices), the effect at (W/2, H/2).
  const size_t rowFloats = static_cast<size_t>(frame.width) * 2;
  auto table = std::make_shared<std::vector<float>>(rowFloats * frame.height);
  auto shifted = std::make_shared<std::vector<float>>(rowFloats * frame.height);
  for (int y = 0; y < frame.height; ++y) {
    float* row = table->data() + rowFloats * y;
    float* moved = shifted->data() + rowFloats * y;
    if (!mod->ApplyGeometryDistortion(0.0f, static_cast<float>(y), frame.width, 1, row) ||
        !mod->ApplyGeometryDistortion(-0.5f, y - 0.5f, frame.width, 1, moved)) {
      throw IoError("lensfun: '" + name + "' has no distortion to correct at " + c.focal + " mm");
    }
    for (size_t i = 0; i < rowFloats; ++i) moved[i] += 0.5f;
  }
  auto lookup = [frame](std::shared_ptr<std::vector<float>> t) -> SourceMapping {
    return [t, frame](double x, double y, double* xd, double* yd) {
      const size_t i = (static_cast<size_t>(std::lround(y)) * frame.width +
                        static_cast<size_t>(std::lround(x))) * 2;
      *xd = (*t)[i];
      *yd = (*t)[i + 1];
    };
  };
  im.source = lookup(table);
  im.centred = lookup(shifted);
  const char* model = calib.Model == LF_DIST_MODEL_POLY3   ? "poly3"
                      : calib.Model == LF_DIST_MODEL_POLY5 ? "poly5"
                                                           : "ptlens";
  const bool holds = calib.Model != LF_DIST_MODEL_PTLENS || calib.Terms[2] == 0;
  im.exact = holds;
  // Where the polynomial holds the model, the fit to the centred lens recovers its
  // coefficients; otherwise the fit is to what liblensfun does, centre included.
  im.fit = FitPolynomial(holds ? im.centred : im.source, frame, true);
  if (lens->CenterX != 0 || lens->CenterY != 0) {
    im.cannot.push_back("the lens's own centre shift (" + Num(lens->CenterX) + ", " +
                        Num(lens->CenterY) + ")");
  }
  im.how = std::string("lensfun '") + name + "' at " + c.focal + " mm, " + model + " (" +
           Num(calib.Terms[0]) + ", " + Num(calib.Terms[1]) + ", " + Num(calib.Terms[2]) +
           "), crop " + Num(crop) + ": " +
           (holds ? "the effect's polynomial with zoom holds this model; coefficients recovered "
                    "by least squares from liblensfun's own mapping, centred"
                  : "least-squares fit against liblensfun's own mapping");
  if (!holds) im.cannot.push_back("ptlens c (the r^2 term of the factor) has no counterpart");
  return im;
}

struct Errors {
  double max = 0, rms = 0;
};

// Rows of the effect's mapping computed at a time when measuring an import.
constexpr int kBandRows = 64;

// Distances between two mappings over every pixel of the frame: the effect's run mapping of
// `lens` (a band of rows at a time) when `lens` is given, else `other`. A position that is not
// finite makes both figures NaN.
Errors Compare(const SourceMapping& source, const VtAFXLensData* lens, const SourceMapping& other,
               ImageSize frame) {
  Errors e;
  double sum = 0;
  std::vector<float> effect;
  for (int y = 0; y < frame.height; ++y) {
    if (lens && y % kBandRows == 0) {
      effect = MapWindow(*lens, PF_LRect{0, y, frame.width, std::min(y + kBandRows, frame.height)});
    }
    const float* row = lens ? &effect[static_cast<size_t>(y % kBandRows) * frame.width * 2] : nullptr;
    for (int x = 0; x < frame.width; ++x) {
      double sx, sy, ox, oy;
      source(x, y, &sx, &sy);
      if (row) {
        ox = row[2 * x];
        oy = row[2 * x + 1];
      } else {
        other(x, y, &ox, &oy);
      }
      const double d2 = (sx - ox) * (sx - ox) + (sy - oy) * (sy - oy);
      sum += d2;
      e.max = std::isnan(d2) ? d2 : std::max(e.max, std::sqrt(d2));
    }
  }
  e.rms = std::sqrt(sum / (static_cast<double>(frame.width) * frame.height));
  if (!std::isfinite(e.rms)) e.max = e.rms;
  return e;
}

// Bytes an import holds at once besides the effect: liblensfun's two position tables, and the
// effect's positions for one band of rows.
uint64_t ImportBytes(const std::string& from, ImageSize frame) {
  const uint64_t pixels = static_cast<uint64_t>(frame.width) * static_cast<uint64_t>(frame.height);
  const uint64_t band = FloatBytes(static_cast<uint64_t>(frame.width) * kBandRows * 2);
  return (from == "lensfun" ? 2 * FloatBytes(pixels * 2) : 0) + band;
}

double SliderValue(int index, double k) {
  const double v = k * 1000.0;
  const SliderRange& range = Param(index).range;
  if (!(v >= range.minimum && v <= range.maximum)) {
    throw IoError(std::string("the imported lens needs ") + Param(index).option + " " + Num(v) +
                  ", outside the slider range " + RangeText(range));
  }
  return v;
}

void WriteText(const std::string& text, const std::string& output, std::ostream& out) {
  if (output.empty()) {
    out << text;
    return;
  }
  TempOutputFile temp(output);
  {
    std::ofstream file(temp.path(), std::ios::binary | std::ios::trunc);
    file << text;
    file.flush();
    if (!file) throw IoError(output + ": cannot write the lens file");
  }
  temp.Commit();
}

}  // namespace

int RunLens(const LensCommand& command, const std::string& plugin, std::ostream& out,
            std::ostream& err) {
  LensSettings settings = ParseLensOptions(command.lens);
  if (command.from.empty()) {
    WriteText(LensFileText(settings, ""), command.output, out);
    return kExitOk;
  }
  const ImageSize frame = ParseSize("--size", command.size);
  if (command.from != "opencv" && command.from != "ffmpeg" && command.from != "lensfun") {
    throw UsageError("--from: expected opencv, ffmpeg or lensfun, got \"" + command.from + "\"");
  }
  CheckMemory(ImportBytes(command.from, frame), "importing a lens for a " +
                                                    std::to_string(frame.width) + "x" +
                                                    std::to_string(frame.height) + " frame");
  Imported im;
  if (command.from == "opencv") {
    im = FromOpenCv(command, frame);
  } else if (command.from == "ffmpeg") {
    im = FromFfmpeg(command, frame);
  } else {
    im = FromLensfun(command, frame);
  }
  const std::string noPosition = "the source lens maps some pixels of the " +
                                 std::to_string(frame.width) + "x" +
                                 std::to_string(frame.height) + " frame to no finite position";
  if (!std::isfinite(im.fit.k2) || !std::isfinite(im.fit.k3) || !std::isfinite(im.fit.k4) ||
      !std::isfinite(im.fit.zoom)) {
    throw IoError("the imported lens cannot be fitted: " + noPosition);
  }
  settings.mode = kModeRemove;
  settings.distortion = SliderValue(kParamDistortion, im.fit.k2);
  settings.cubic = SliderValue(kParamCubic, im.fit.k3);
  settings.quartic = SliderValue(kParamQuartic, im.fit.k4);
  const SliderRange& zoom = Param(kParamZoom).range;
  if (!(im.fit.zoom > zoom.minimum && im.fit.zoom <= zoom.maximum)) {
    throw IoError("the imported lens needs " + std::string(Param(kParamZoom).option) + " " +
                  Num(im.fit.zoom) + ", outside the slider range " + RangeText(zoom));
  }
  settings.zoom = im.fit.zoom;
  settings.pixelAspect = 1;
  settings.distortedSize = frame;
  settings.undistortedSize = frame;

  // The effect's own mapping of the imported lens, as stmap writes it.
  const auto module = LoadEffect(ResolvePluginPath(plugin));
  EffectSession session(*module, ToParamValues(settings, LensSizes{frame, frame}), 1);
  session.OverrideSuppliedRect(PF_LRect{0, 0, 0, 0});
  const PreRenderReadBack back = session.PreRender(PF_LRect{0, 0, frame.width, frame.height});
  session.Finish();
  const Errors error = Compare(im.source, &back.lens, SourceMapping(), frame);
  if (!std::isfinite(error.max)) {
    throw IoError("the imported lens cannot be measured: " + noPosition);
  }

  std::ostringstream report;
  report << "veltrisca: lens from " << command.from << ": " << im.how << "\n";
  report << "veltrisca: distortion " << Num(settings.distortion, 9) << ", cubic "
         << Num(settings.cubic, 9) << ", quartic " << Num(settings.quartic, 9) << ", zoom "
         << Num(settings.zoom, 9) << " for " << frame.width << "x" << frame.height << "\n";
  report << "veltrisca: position error over the frame: max " << Num(error.max, 4) << " px, RMS "
         << Num(error.rms, 4) << " px\n";
  for (const std::string& w : im.warnings) report << "veltrisca: warning: " << w << "\n";
  for (const std::string& c : im.cannot) report << "veltrisca: cannot hold: " << c << "\n";
  if (im.centred) {
    const Errors centre = Compare(im.source, nullptr, im.centred, frame);
    if (!(centre.max == 0)) {
      report << "veltrisca: cannot hold: a principal point off the lens centre (pixel index "
             << Num(frame.width / 2.0) << ", " << Num(frame.height / 2.0) << "; a calibration's "
             << "geometric centre (W-1)/2, (H-1)/2 is half a pixel off); it costs max "
             << Num(centre.max, 4) << " px, RMS " << Num(centre.rms, 4)
             << " px, included above\n";
    }
  }
  const std::string summary = "from " + command.from + (im.exact ? " (exact)" : " (fitted)") +
                              ": max error " + Num(error.max, 4) + " px, RMS " +
                              Num(error.rms, 4) + " px over " + std::to_string(frame.width) +
                              "x" + std::to_string(frame.height);
  WriteText(LensFileText(settings, summary), command.output, out);
  if (!command.quiet) (command.output.empty() ? err : out) << report.str();
  return kExitOk;
}

CommandEntry AddLensCommand(CLI::App& app) {
  auto command = std::make_shared<LensCommand>();
  LensCommand& lens = *command;
  CLI::App* lensApp = app.add_subcommand(
      "lens", "Write a lens file from the lens options, or import a lens from elsewhere");
  AddLensOptions(lensApp, &lens.lens);
  lensApp->add_option("-o,--output", lens.output, "lens file to write (default: standard output)")
      ->type_name("FILE.json");
  AddImportOptions(lensApp, &lens);
  AddVerbosity(lensApp, &lens.verbose, &lens.quiet,
               "with -o: print what was written and the time (an import always reports)");

  return CommandEntry{lensApp, [command, lensApp](const CommandContext& context) {
                        ApplyLensFile(lensApp, &command->lens);
                        const int code = RunLens(*command, context.plugin, context.out, context.err);
                        if (command->verbose && !command->quiet && !command->output.empty()) {
                          context.out << "wrote " << command->output << ", "
                                      << ElapsedText(context.started) << "\n";
                        }
                        return code;
                      }};
}

}  // namespace veltrisca
