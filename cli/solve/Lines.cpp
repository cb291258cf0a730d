#include "Lines.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include "cli/shared/Errors.h"
#include "cli/lens/LensOptions.h"
#include "common/EffectParams.h"

namespace veltrisca::solve {

namespace {

using Json = nlohmann::json;

double Finite(const Json& v, const std::string& where) {
  if (!v.is_number()) throw IoError(where + ": expected a number");
  const double d = v.get<double>();
  if (!std::isfinite(d)) throw IoError(where + ": expected a finite number");
  return d;
}

LinesFile FromJson(const Json& doc, const std::string& path, int source) {
  LinesFile file;
  const Json* lines = &doc;
  if (doc.is_object()) {
    for (const auto& [key, value] : doc.items()) {
      if (key != "frame" && key != "pixelAspect" && key != "lines" && key != "comment") {
        throw IoError(path + ": unknown key '" + MessageLine(key) +
                      "' (expected frame, pixelAspect, lines, comment)");
      }
    }
    if (!doc.contains("lines")) throw IoError(path + ": no \"lines\" array");
    lines = &doc["lines"];
    if (doc.contains("frame")) {
      const Json& f = doc["frame"];
      SolveFrame frame;
      if (f.is_array() && f.size() == 2 && f[0].is_number_integer() && f[1].is_number_integer()) {
        frame.width = f[0].get<int>();
        frame.height = f[1].get<int>();
      } else if (f.is_string()) {
        const ImageSize s = ParseSize("frame", f.get<std::string>());
        frame.width = s.width;
        frame.height = s.height;
      }
      if (frame.width <= 0 || frame.height <= 0 || frame.width > kMaxImageSide ||
          frame.height > kMaxImageSide) {
        throw IoError(path + ": \"frame\" must be [W, H] or \"WxH\", whole and positive");
      }
      if (doc.contains("pixelAspect")) {
        frame.pixelAspect = Finite(doc["pixelAspect"], path + ": pixelAspect");
        if (frame.pixelAspect < kPixelAspectRange.minimum ||
            frame.pixelAspect > kPixelAspectRange.maximum) {
          throw IoError(path + ": pixelAspect must lie in 0.1..10");
        }
      }
      file.frame = frame;
    } else if (doc.contains("pixelAspect")) {
      throw IoError(path + ": pixelAspect needs a frame");
    }
  }
  if (!lines->is_array()) throw IoError(path + ": \"lines\" must be an array of lines");
  for (size_t i = 0; i < lines->size(); ++i) {
    const Json& line = (*lines)[i];
    const std::string where = path + ": line " + std::to_string(i + 1);
    if (!line.is_array()) throw IoError(where + ": expected an array of [x, y] points");
    WorldLine wl{source, {}};
    for (const Json& p : line) {
      if (!p.is_array() || p.size() != 2) throw IoError(where + ": expected [x, y] points");
      wl.points.push_back({Finite(p[0], where), Finite(p[1], where)});
    }
    file.lines.push_back(wl);
  }
  return file;
}

LinesFile FromCsv(std::istream& in, const std::string& path, int source) {
  LinesFile file;
  std::map<std::string, size_t> index;
  std::string row;
  for (int number = 1; std::getline(in, row); ++number) {
    if (const size_t hash = row.find('#'); hash != std::string::npos) row.resize(hash);
    if (row.find_first_not_of(" \t\r") == std::string::npos) continue;
    std::vector<std::string> cells;
    std::stringstream split(row);
    for (std::string cell; std::getline(split, cell, ',');) {
      const size_t a = cell.find_first_not_of(" \t\r"), b = cell.find_last_not_of(" \t\r");
      cells.push_back(a == std::string::npos ? "" : cell.substr(a, b - a + 1));
    }
    const std::string where = path + ":" + std::to_string(number);
    if (cells.size() != 3) throw IoError(where + ": expected LINE,X,Y");
    double xy[2];
    bool numbers = true;
    for (int k = 0; k < 2; ++k) {
      char* end = nullptr;
      errno = 0;
      xy[k] = std::strtod(cells[1 + k].c_str(), &end);
      numbers = numbers && !cells[1 + k].empty() && *end == '\0' && std::isfinite(xy[k]);
    }
    if (!numbers) {
      if (index.empty() && file.lines.empty()) continue;  // a header
      throw IoError(where + ": X and Y must be finite numbers");
    }
    auto [it, added] = index.emplace(cells[0], file.lines.size());
    if (added) file.lines.push_back(WorldLine{source, {}});
    file.lines[it->second].points.push_back({xy[0], xy[1]});
  }
  return file;
}

}  // namespace

LinesFile ReadLines(const std::string& path, int source) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    throw IoError(path + ": cannot read the lines file: " + std::string(std::strerror(errno)));
  }
  std::stringstream text;
  text << in.rdbuf();
  const std::string s = text.str();
  const size_t first = s.find_first_not_of(" \t\r\n");
  if (first != std::string::npos && (s[first] == '{' || s[first] == '[')) {
    Json doc;
    try {
      doc = Json::parse(s);
    } catch (const Json::exception& e) {
      throw IoError(path + ": not JSON: " + std::string(e.what()));
    }
    return FromJson(doc, path, source);
  }
  std::istringstream csv(s);
  return FromCsv(csv, path, source);
}

}  // namespace veltrisca::solve
