#!/usr/bin/env python3
"""Turns the comparison's raw timings into docs/benchmarks.md and docs/benchmarks.png.

Input: results.tsv (one line per run and configuration: run, tool, filter, class, mode,
depth, threads, WxH, metric, seconds per frame or an n/a reason) and meta.tsv (key, value).
Run 0 is the warm-up round and is left out. Every figure is the median over the runs.
"""
import argparse
import collections
import os
import statistics
import sys

CLASSES = [
    ("nearest", "Nearest"),
    ("bilinear", "Bilinear"),
    ("cubic4", "4x4 kernel"),
    ("lanczos", "Lanczos"),
]
DEPTHS = [("8", "8-bit"), ("16", "16-bit"), ("float", "float")]

# Our filters, in the popup's order, with the class each is compared in.
OUR_FILTERS = [
    ("nearest", "Nearest", "nearest"),
    ("bilinear", "BiLinear", "bilinear"),
    ("lanczos2", "Lanczos-2", "cubic4"),
    ("mitchell", "Mitchell-Netravali", "cubic4"),
    ("lanczos3", "Lanczos-3", "lanczos"),
    ("builtin", "Built-in (host's bilinear sampler)", "bilinear"),
]

TOOL_NAMES = {
    "ours": "ours",
    "opencv": "OpenCV remap",
    "ffmpeg": "FFmpeg lenscorrection",
    "magick": "ImageMagick -distort",
    "oiio": "oiiotool --st_warp",
    "copy": "memcpy",
}
PEERS = ["opencv", "ffmpeg", "magick", "oiio"]
SHORT_TOOLS = {"opencv": "OpenCV", "ffmpeg": "FFmpeg", "magick": "IM", "oiio": "oiio"}
SHORT_LABELS = {"Nearest": "ours", "BiLinear": "ours", "Lanczos-2": "ours L2",
                "Mitchell-Netravali": "ours MN", "Lanczos-3": "ours L3"}

WHAT_IS_TIMED = {
    "ours": "in process through the substitute host: parameter and layer checkout, smart "
            "pre-render and smart render of the frame; the host lends the layer's pixels and "
            "reuses one output buffer from frame to frame, as OpenCV's figure reuses its "
            "output; no file I/O. In Remove also our samplers alone (the effect's code, "
            "linked in) fed from the frame's position map stored beforehand",
    "opencv": "in process: the position map built for the frame (float, rows in parallel), "
              "then `cv::remap` into a preallocated output, border transparent; map and remap "
              "timed apart, compared on their sum; also `cv::remap` alone on the same map "
              "converted once to OpenCV's fixed-point form (`cv::convertMaps`, CV_16SC2)",
    "ffmpeg": "`-benchmark` real time of N frames through `lenscorrection` less N frames "
              "through `null`, divided by N; raw planar RGBA input (gbrap, gbrap16le) looped "
              "from the page cache; slice threads = `-filter_threads`",
    "magick": "wall time of `convert IN.mpc -distort Barrel \"0 -0.05 0 1\" null:` less that "
              "of `convert IN.mpc null:`; Q16 build, so every depth is processed as 16-bit; "
              "threads through `-limit thread`",
    "oiio": "the `-st_warp` line of `--runstats` (0.01 s resolution); inputs first read into "
            "memory (`--mulc 1`) and kept in their own type (`--native`); ST map of the Remove "
            "lens; float input and 2 threads only, being by far the slowest",
    "copy": "`memcpy` of the frame's bytes into a second buffer (with 2 threads, each copies "
            "half)",
}

FILTER_LABELS = {
    ("opencv", "nearest"): "INTER_NEAREST",
    ("opencv", "linear"): "INTER_LINEAR",
    ("opencv", "cubic"): "INTER_CUBIC (4x4)",
    ("opencv", "lanczos4"): "INTER_LANCZOS4 (8x8)",
    ("ffmpeg", "nearest"): "i=nearest",
    ("ffmpeg", "bilinear"): "i=bilinear",
    ("magick", "nearest"): "-filter point -interpolate nearest",
    ("magick", "bilinear"): "-filter point -interpolate bilinear",
    ("magick", "mitchell"): "-filter Mitchell (EWA)",
    ("magick", "lanczos"): "-filter Lanczos (EWA)",
    ("oiio", "triangle"): "filter=triangle",
    ("oiio", "mitchell"): "filter=mitchell",
    ("oiio", "lanczos3"): "filter=lanczos3",
    ("copy", "memcpy"): "memcpy",
}
for key, label, _ in OUR_FILTERS:
    FILTER_LABELS[("ours", key)] = label


def read_meta(path):
    meta = {}
    with open(path, encoding="utf-8") as f:
        for line in f:
            line = line.rstrip("\n")
            if "\t" in line:
                key, value = line.split("\t", 1)
                meta[key] = value
    return meta


class Results:
    def __init__(self, path):
        self.times = collections.defaultdict(list)  # key -> seconds per run
        self.reasons = collections.OrderedDict()    # key -> reason (n/a)
        with open(path, encoding="utf-8") as f:
            for line in f:
                fields = line.rstrip("\n").split("\t")
                if len(fields) != 10:
                    continue
                run, tool, filt, cls, mode, depth, threads, size, metric, value = fields
                if run == "0":
                    continue  # the warm-up round
                key = (tool, filt, cls, mode, depth, int(threads), size)
                if metric == "n/a":
                    self.reasons.setdefault(key, value)
                    continue
                try:
                    self.times[key + (metric,)].append(float(value))
                except ValueError:
                    continue

    def median(self, tool, filt, mode, depth, threads, size, metric="total"):
        for key, values in self.times.items():
            if key[0] == tool and key[1] == filt and key[3] == mode and key[4] == depth \
                    and key[5] == threads and key[6] == size and key[7] == metric:
                return statistics.median(values), len(values)
        return None, 0

    def keys(self):
        return self.times.keys()

    def sizes(self):
        found = {key[6] for key in self.times} | {key[6] for key in self.reasons}
        return sorted(found, key=lambda s: -pixels(s))


def pixels(size):
    w, h = size.split("x")
    return int(w) * int(h)


def mpix(size, seconds):
    if seconds is None or seconds <= 0:
        return None
    return pixels(size) / 1e6 / seconds


def fmt(value):
    if value is None:
        return "n/a"
    if value >= 100:
        return "%.0f" % value
    if value >= 10:
        return "%.1f" % value
    return "%.2f" % value


def ratio_text(ours, peer):
    if ours is None or peer is None:
        return "n/a"
    return "%.2fx" % (ours / peer)


def rows_for(results, size, cls, mode_filter=None):
    """Every (tool, filter, mode, threads, metric) measured in a class at a size."""
    rows = set()
    for tool, filt, kcls, mode, depth, threads, ksize, metric in results.keys():
        if ksize != size or kcls != cls or metric not in ("total", "remap", "remap_fixed"):
            continue
        if mode_filter and mode != mode_filter:
            continue
        rows.add((tool, filt, mode, threads, metric))
    order = {t: i for i, t in enumerate(["ours"] + PEERS + ["copy"])}
    our_order = {key: i for i, (key, _, _) in enumerate(OUR_FILTERS)}
    return sorted(rows, key=lambda r: (order.get(r[0], 99), our_order.get(r[1], 0), r[1],
                                       r[2] != "remove", r[4] != "total", r[4], r[3]))


OPENCV_FILTER = {"nearest": "nearest", "bilinear": "linear", "cubic4": "cubic",
                 "lanczos": "lanczos4"}


def opencv_remap_alone(results, cls, mode, depth, threads, size):
    """OpenCV's remap of a precomputed map: the faster of its float and fixed-point maps.
    Returns (Mpix/s, "float" or "fixed-point") or (None, None)."""
    best = (None, None)
    for metric, kind in (("remap", "float"), ("remap_fixed", "fixed-point")):
        value = mpix(size, results.median("opencv", OPENCV_FILTER[cls], mode, depth, threads,
                                          size, metric)[0])
        if value is not None and (best[0] is None or value > best[0]):
            best = (value, kind)
    return best


def best_peer(results, cls, depth, threads, size):
    """The fastest peer in a class at a depth (whole frame: OpenCV map + remap)."""
    best = None
    for tool, filt, kcls, mode, kdepth, kthreads, ksize, metric in results.keys():
        if tool not in PEERS or kcls != cls or mode != "remove" or metric != "total":
            continue
        if ksize != size or kthreads != threads:
            continue
        # ImageMagick's Q16 build does every depth in 16 bits; it stands for 8-bit too.
        if kdepth != depth and not (tool == "magick" and depth == "8"):
            continue
        value = mpix(size, results.median(tool, filt, mode, kdepth, threads, size)[0])
        if value is not None and (best is None or value > best[0]):
            best = (value, tool, filt)
    return best


# Why a class can stay behind its best peer, and what would close the gap.
BEHIND_WHY = {
    ("bilinear", "8"): (
        "OpenCV's INTER_LINEAR on 8-bit images blends in 16-bit fixed point, eight values per "
        "128-bit register, with weights rounded to 1/32 of a pixel. Our BiLinear must give the "
        "bits of its single-precision arithmetic: every neighbour converted to float, three "
        "blends of four channels (two pixels per register where the processor has AVX2, one "
        "otherwise), the mask, the rounding; our figure also maps every pixel through the "
        "lens, which OpenCV's remap leaves to its precomputed map. A fixed-point "
        "path would be faster, but it would change the output bits, which the effect fixes."),
    ("nearest", "float"): (
        "Nearest on float frames moves 16 bytes per pixel each way and is bound by memory: a "
        "plain copy of the frame (the last table) takes a large share of its time, and memory "
        "does not get faster with a second thread."),
}


def write_behind(w, results, sizes):
    """Every class and depth where ours is behind its best peer, with the reason."""
    behind = []
    compared = 0
    for size in sizes:
        for key, label, cls in OUR_FILTERS:
            if key == "builtin":
                continue
            for depth, depth_label in DEPTHS:
                for threads in (1, 2):
                    ours = mpix(size, results.median("ours", key, "remove", depth, threads,
                                                     size)[0])
                    best = best_peer(results, cls, depth, threads, size)
                    if ours is None or not best:
                        continue
                    compared += 1
                    if ours >= best[0]:
                        continue
                    behind.append((size, label, cls, depth, depth_label, threads, ours, best))
    w("## Where we are behind, and why")
    w("")
    if not compared:
        w("No comparison could be made: there are no figures of ours and a peer in the same "
          "class.")
        w("")
        return
    if not behind:
        w("Nowhere: in Remove, at every size, depth and thread count, each of our filters is "
          "ahead of the fastest peer of its class.")
        w("")
        return
    w("| size | our filter | depth | threads | ours / best peer | best peer |")
    w("|---|---|---|---|---|---|")
    for size, label, cls, depth, depth_label, threads, ours, best in behind:
        w("| %s | %s | %s | %d | %s | %s %s |" % (
            size, label, depth_label, threads, ratio_text(ours, best[0]), TOOL_NAMES[best[1]],
            FILTER_LABELS.get((best[1], best[2]), best[2])))
    w("")
    seen = set()
    for size, label, cls, depth, depth_label, threads, ours, best in behind:
        if (cls, depth) in seen:
            continue
        seen.add((cls, depth))
        why = BEHIND_WHY.get((cls, depth), "Not analysed yet.")
        worst = min(o / b[0] for (_, _, c, d, _, _, o, b) in behind if (c, d) == (cls, depth))
        w("- **%s, %s** (at worst %.0f %% behind): %s" % (label, depth_label,
                                                       (1 - worst) * 100, why))
    w("")


# Why a class can stay behind OpenCV's remap of a precomputed map.
BEHIND_REMAP_WHY = {
    ("nearest", "8"): (
        "OpenCV's nearest remap on a fixed-point map reads two 16-bit integers of the map and "
        "copies four bytes per pixel. Ours maps every pixel through the lens as it renders and "
        "forms each source position in single precision (round, range masks, clip, 32-bit "
        "offsets), the steps that fix the effect's nearest sampler, eight pixels at a time "
        "where the processor has AVX2. Profiles of our frame put the lens mapping at a few per "
        "cent and more than half of the sampler's time on waiting for the source pixels' "
        "loads, one per pixel as in OpenCV; what keeps OpenCV's loop ahead there is not "
        "found yet. Keeping the map for the next frames does not help: our samplers fed from a "
        "stored map (the last column) are no faster than mapping as they go."),
    ("nearest", "16"): (
        "As Nearest 8-bit: the lens mapping is a few per cent of our frame, the sampler waits "
        "on its loads of the source pixels (8 bytes each), and a stored map does not help."),
    ("bilinear", "8"): BEHIND_WHY[("bilinear", "8")],
    ("nearest", "float"): BEHIND_WHY[("nearest", "float")],
}


def write_against_remap(w, results, sizes):
    """Per class: ours against OpenCV's map + remap and against its remap alone."""
    w("## Against OpenCV's remap, class by class (Remove)")
    w("")
    w("OpenCV builds its position map and then remaps; a user who reuses one map for a whole "
      "shot pays only the remap. Each class: ours (whole frame: pre-render, mapping every "
      "pixel, sampling) over OpenCV's map + remap, and over its remap alone (the faster of "
      "its float and fixed-point maps, named). The last column is our samplers alone fed "
      "from a map stored beforehand, the most that keeping a frame's mapping for the next "
      "frames could give, over the same remap alone. Above 1 means ours is faster.")
    w("")
    behind = []
    for size in sizes:
        w("### %s" % size)
        w("")
        w("| our filter | depth | threads | ours / OpenCV map + remap | ours / OpenCV remap alone "
          "| faster OpenCV map | ours from a stored map / OpenCV remap alone |")
        w("|---|---|---|---|---|---|---|")
        for key, label, cls in OUR_FILTERS:
            if key == "builtin":
                continue
            for depth, depth_label in DEPTHS:
                for threads in (1, 2):
                    ours = mpix(size, results.median("ours", key, "remove", depth, threads,
                                                     size)[0])
                    stored = mpix(size, results.median("ours", key, "remove", depth, threads,
                                                       size, "remap")[0])
                    total = mpix(size, results.median("opencv", OPENCV_FILTER[cls], "remove",
                                                      depth, threads, size)[0])
                    alone, kind = opencv_remap_alone(results, cls, "remove", depth, threads,
                                                     size)
                    if ours is None and alone is None:
                        continue
                    w("| %s | %s | %d | %s | %s | %s | %s |" % (
                        label, depth_label, threads, ratio_text(ours, total),
                        ratio_text(ours, alone), kind or "n/a", ratio_text(stored, alone)))
                    if ours is not None and alone is not None and ours < alone:
                        behind.append((size, label, cls, depth, depth_label, threads,
                                       ours / alone))
        w("")
    # Whether keeping a frame's mapping for the next frames would pay: our samplers fed from
    # a stored map against our whole frame, which maps as it renders.
    pairs = []
    for size in sizes:
        for key, _, _ in OUR_FILTERS:
            for depth, _ in DEPTHS:
                for threads in (1, 2):
                    ours = results.median("ours", key, "remove", depth, threads, size)[0]
                    stored = results.median("ours", key, "remove", depth, threads, size,
                                            "remap")[0]
                    if ours is not None and stored is not None:
                        pairs.append(stored / ours)
    if pairs:
        slower = sum(1 for r in pairs if r >= 1.0)
        text = ("Keeping the mapping: in %d of %d configurations our samplers fed from a "
                "stored map took at least as long as our whole frame (pre-render, mapping every "
                "pixel, sampling); the stored map's time is %.2f to %.2f times the whole "
                "frame's. " % (slower, len(pairs), min(pairs), max(pairs)))
        if slower * 2 >= len(pairs):
            text += ("Reading 8 bytes of stored position per pixel costs more than computing "
                     "it, so the effect keeps no map between frames (its sequence data, the "
                     "lens record, has a fixed size and is never flattened, so a map would "
                     "also have to live outside it, in memory of its own per instance).")
        else:
            text += ("Here a kept map would pay in most configurations; the effect keeps none "
                     "yet (its sequence data, the lens record, has a fixed size and is never "
                     "flattened, so a map would have to live outside it).")
        w(text)
        w("")
    w("### Behind OpenCV's remap alone")
    w("")
    if not behind:
        w("Nowhere: in every class, depth and thread count measured, ours (mapping included) "
          "is at least as fast as OpenCV's remap of a precomputed map.")
        w("")
        return
    w("| size | our filter | depth | threads | ours / OpenCV remap alone |")
    w("|---|---|---|---|---|")
    for size, label, cls, depth, depth_label, threads, ratio in behind:
        w("| %s | %s | %s | %d | %.2fx |" % (size, label, depth_label, threads, ratio))
    w("")
    seen = set()
    for size, label, cls, depth, depth_label, threads, ratio in behind:
        if (cls, depth) in seen:
            continue
        seen.add((cls, depth))
        w("- **%s, %s**: %s" % (label, depth_label,
                                BEHIND_REMAP_WHY.get((cls, depth), "Not analysed yet.")))
    w("")


def write_markdown(results, meta, path, chart_name, chart_written):
    out = []
    w = out.append
    runs = meta.get("settings.runs", "?")
    w("# Speed compared with other tools")
    w("")
    w("Generated by `bench/compare/run` (%s) on %s; it took %s. Every figure is the median of "
      "%s runs after a warm-up round, the tools taking turns within each run. Figures are "
      "megapixels of the frame per second (frame width x height / time per frame), higher is "
      "better." % (meta.get("settings.command", "bench/compare/run"), meta.get("started", "?"),
                   meta.get("duration", "?"), runs))
    w("")
    busy = busy_note(meta)
    if busy:
        w(busy)
        w("")
    w("## Machine")
    w("")
    w("| | |")
    w("|---|---|")
    w("| CPU | %s |" % meta.get("machine.cpu", "?"))
    w("| cores | %s |" % meta.get("machine.cores", "?"))
    w("| memory | %s |" % meta.get("machine.memory", "?"))
    w("| system | %s, kernel %s |" % (meta.get("machine.os", "?"), meta.get("machine.kernel", "?")))
    w("| compiler | %s, %s build |" % (meta.get("version.compiler", "?"), meta.get("build.type", "?")))
    w("| load average (1, 5, 15 min) | before %s, after %s |"
      % (meta.get("load.before", "?"), meta.get("load.after", "?")))
    if "other.share" in meta:
        w("| processor time taken by other work while the tools ran | %.1f %% |"
          % (float(meta["other.share"]) * 100))
    w("")
    w("## Tools")
    w("")
    w("| tool | version | status | what is timed |")
    w("|---|---|---|---|")
    versions = {
        "ours": "this tree (%s build)" % meta.get("build.type", "?"),
        "opencv": meta.get("version.opencv", "?"),
        "ffmpeg": meta.get("version.ffmpeg", "?"),
        "magick": meta.get("version.magick", "?"),
        "oiio": meta.get("version.oiio", "?"),
        "copy": "glibc",
    }
    for tool in ["ours"] + PEERS + ["copy"]:
        w("| %s | %s | %s | %s |" % (TOOL_NAMES[tool], versions[tool],
                                     meta.get("status." + tool, "?"), WHAT_IS_TIMED[tool]))
    w("")
    w("## The work")
    w("")
    w("- One lens for every tool: r = u (1 + k2 u^2), k2 = -0.05 (DistortionX1000 -50, the "
      "other coefficients 0, zoom 1), u in units of half the image height, centred on the "
      "frame; input and output the same size, RGBA, square pixels. Remove (output pixel at "
      "undistorted radius u reads the input at r) for all; Apply (the inverse) for ours and "
      "OpenCV only, the other tools having no such mode.")
    w("- FFmpeg's radius unit is half the diagonal, so its k1 is -0.05 (W^2 + H^2) / H^2. "
      "ImageMagick's Barrel normalises by half the smaller side, so \"0 -0.05 0 1\" is the same "
      "lens. OpenCV's map and the ST map are built by a lens map written for this comparison "
      "(bench/compare/LensMap.cpp), not by the effect's code.")
    w("- Comparison classes: our Nearest against the peers' nearest, BiLinear against their "
      "bilinear (oiiotool's triangle filter counted there), Lanczos-2 and Mitchell-Netravali "
      "against 4x4 kernels (OpenCV INTER_CUBIC, ImageMagick's and oiiotool's Mitchell), "
      "Lanczos-3 against Lanczos (OpenCV's 8x8 INTER_LANCZOS4, ImageMagick's and oiiotool's "
      "Lanczos). ImageMagick's Mitchell and Lanczos are elliptical (EWA) filters, and "
      "oiiotool's filters widen with the map's local scale: both do more work per pixel than "
      "a fixed separable kernel.")
    w("- FFmpeg computes its map once when the filter starts and reuses it for every frame; "
      "ours maps every pixel every frame, and so does the OpenCV figure (map + remap).")
    w("- In Apply our effect renders only the rectangle the distorted picture covers "
      "(the host shows the rest as transparent); figures still count the whole frame.")
    w("")

    sizes = results.sizes()
    for size in sizes:
        w("## Where we stand at %s (Remove)" % size)
        w("")
        w("Ours against the fastest peer of the class at the same depth and thread count "
          "(whole frame; for OpenCV the map and the remap). Above 1 means ours is faster. The "
          "last column compares with OpenCV's remap alone (the faster of its float and "
          "fixed-point maps), as if its map came for free.")
        w("")
        w("| our filter | depth | threads | ours Mpix/s | best peer | peer Mpix/s | ours / peer "
          "| ours / OpenCV remap alone |")
        w("|---|---|---|---|---|---|---|---|")
        for key, label, cls in OUR_FILTERS:
            if key == "builtin":
                continue
            for depth, depth_label in DEPTHS:
                for threads in (1, 2):
                    ours = mpix(size, results.median("ours", key, "remove", depth, threads, size)[0])
                    best = best_peer(results, cls, depth, threads, size)
                    remap = opencv_remap_alone(results, cls, "remove", depth, threads, size)[0]
                    if best:
                        peer_name = "%s %s" % (TOOL_NAMES[best[1]],
                                               FILTER_LABELS.get((best[1], best[2]), best[2]))
                        peer_value = best[0]
                    else:
                        peer_name, peer_value = "n/a", None
                    w("| %s | %s | %d | %s | %s | %s | %s | %s |"
                      % (label, depth_label, threads, fmt(ours), peer_name, fmt(peer_value),
                         ratio_text(ours, peer_value), ratio_text(ours, remap)))
        w("")

    write_behind(w, results, sizes)
    write_against_remap(w, results, sizes)

    for size in sizes:
        w("## Apply at %s, against OpenCV" % size)
        w("")
        w("OpenCV is the only peer with the inverse mapping (its map inverts the polynomial "
          "through a table every frame). Each cell: ours / OpenCV (map + remap), and ours in "
          "Mpix/s.")
        w("")
        w("| our filter | threads | 8-bit | 16-bit | float |")
        w("|---|---|---|---|---|")
        for key, label, cls in OUR_FILTERS:
            if key == "builtin":
                continue
            opencv_filter = {"nearest": "nearest", "bilinear": "linear",
                             "cubic4": "cubic", "lanczos": "lanczos4"}[cls]
            for threads in (1, 2):
                cells = []
                for depth, _ in DEPTHS:
                    ours = mpix(size, results.median("ours", key, "apply", depth, threads, size)[0])
                    peer = mpix(size, results.median("opencv", opencv_filter, "apply", depth,
                                                     threads, size)[0])
                    cells.append("%s (%s)" % (ratio_text(ours, peer), fmt(ours)))
                w("| %s | %d | %s |" % (label, threads, " | ".join(cells)))
        w("")

    for size in sizes:
        w("## All figures at %s (Mpix/s)" % size)
        w("")
        for cls, cls_label in CLASSES + [("copy", "Memory-bandwidth floor")]:
            rows = rows_for(results, size, cls)
            if not rows:
                continue
            w("### %s" % cls_label)
            w("")
            if cls != "copy":
                w("(Q16): ImageMagick's build processes every depth as 16-bit. -: not measured "
                  "(FFmpeg's lenscorrection has no float format; oiiotool runs on float only).")
                w("")
            w("| tool | filter | mode | threads | 8-bit | 16-bit | float |")
            w("|---|---|---|---|---|---|---|")
            for tool, filt, mode, threads, metric in rows:
                cells = []
                for depth, _ in DEPTHS:
                    value = mpix(size, results.median(tool, filt, mode, depth, threads, size,
                                                      metric)[0])
                    if value is None and tool == "magick" and depth != "16":
                        cells.append("(Q16)")
                    elif value is None and ((tool == "ffmpeg" and depth == "float") or
                                            (tool == "oiio" and depth != "float")):
                        cells.append("-")
                    else:
                        cells.append(fmt(value))
                name = TOOL_NAMES[tool]
                if tool == "opencv":
                    name += {"total": " (map + remap)", "remap": " (remap alone, float map)",
                             "remap_fixed": " (remap alone, fixed-point map)"}[metric]
                elif tool == "ours" and metric == "remap":
                    name += " (samplers alone, map stored beforehand)"
                w("| %s | %s | %s | %d | %s |" % (name, FILTER_LABELS.get((tool, filt), filt),
                                                  mode, threads, " | ".join(cells)))
            w("")
        # The share of the frame Apply renders.
        coverage = results.median("ours", "nearest", "apply", "8", 1, size, "coverage")[0]
        if coverage is not None:
            w("In Apply our output rectangle covers %.0f %% of the frame." % (coverage * 100))
            w("")

    if results.reasons:
        w("## Not measured")
        w("")
        w("| tool | filter | mode | depth | threads | size | reason |")
        w("|---|---|---|---|---|---|---|")
        for (tool, filt, cls, mode, depth, threads, size), reason in results.reasons.items():
            w("| %s | %s | %s | %s | %s | %s | %s |" % (TOOL_NAMES.get(tool, tool), filt, mode,
                                                     depth, threads or "-", size, reason))
        w("")
    for tool in ["ours"] + PEERS + ["copy"]:
        status = meta.get("status." + tool, "")
        if status.startswith("n/a"):
            w("- %s: %s" % (TOOL_NAMES[tool], status))
    w("")
    if chart_written:
        w("## Chart")
        w("")
        w("![Mpix/s per class, depth and thread count](%s)" % chart_name)
        w("")
    else:
        w("No chart: %s" % chart_written.reason)
        w("")
    with open(path, "w", encoding="utf-8") as f:
        f.write("\n".join(out).rstrip() + "\n")


def busy_note(meta):
    """A warning when other work shared the machine while the tools ran."""
    try:
        cores = int(meta.get("machine.cores", "0").split()[0])
        share = float(meta.get("other.share", "0"))
    except (ValueError, IndexError):
        return ""
    if cores <= 0 or share < 0.10:
        return ""
    return ("**The machine was not quiet during this run**: other work (other processes, or "
            "the hypervisor taking its processors) used %.0f %% of the processor time of its "
            "%d logical processors while the tools ran, so the absolute figures are low and a "
            "second thread helps less. The tools took turns within every run, so the ratios "
            "between them are the more reliable part.\n" % (share * 100, cores))


class ChartResult:
    def __init__(self, ok, reason=""):
        self.ok = ok
        self.reason = reason

    def __bool__(self):
        return self.ok


def write_chart(results, path):
    try:
        import matplotlib
        matplotlib.use("Agg")
        import matplotlib.pyplot as plt
    except ImportError as e:
        return ChartResult(False, "matplotlib is not available (%s)" % e)
    sizes = results.sizes()
    if not sizes:
        return ChartResult(False, "no results")
    size = sizes[0]
    colours = {"ours": "#d62728", "opencv": "#1f77b4", "ffmpeg": "#2ca02c",
               "magick": "#9467bd", "oiio": "#ff7f0e"}
    fig, axes = plt.subplots(2, 3, figsize=(15, 8.5), sharey=True)
    for row, threads in enumerate((1, 2)):
        for col, (depth, depth_label) in enumerate(DEPTHS):
            ax = axes[row][col]
            x = 0.0
            ticks, tick_labels = [], []
            for cls, cls_label in CLASSES:
                bars = []
                for key, label, our_cls in OUR_FILTERS:
                    if our_cls == cls and key != "builtin":
                        bars.append(("ours", label, results.median("ours", key, "remove", depth,
                                                                    threads, size)[0]))
                for tool in PEERS:
                    filters = sorted({k[1] for k in results.keys()
                                      if k[0] == tool and k[2] == cls})
                    for filt in filters:
                        kdepth = "16" if tool == "magick" else depth
                        seconds = results.median(tool, filt, "remove", kdepth, threads, size)[0]
                        bars.append((tool, FILTER_LABELS.get((tool, filt), filt), seconds))
                start = x
                bars = [b for b in bars if b[0] == "ours" or b[2] is not None]
                for tool, label, seconds in bars:
                    value = mpix(size, seconds)
                    if value is not None:
                        ax.bar(x, value, width=0.8, color=colours[tool])
                        ax.text(x, value, fmt(value), ha="center", va="bottom", fontsize=6,
                                rotation=90)
                    ticks.append(x)
                    tick_labels.append(SHORT_LABELS.get(label, label) if tool == "ours"
                                       else SHORT_TOOLS[tool])
                    x += 1
                if bars:
                    ax.text((start + x - 1) / 2, -0.2, cls_label, ha="center", va="top",
                            fontsize=8, transform=ax.get_xaxis_transform())
                x += 1
            floor = mpix(size, results.median("copy", "memcpy", "-", depth, threads, size)[0])
            if floor is not None:
                ax.axhline(floor, color="grey", linestyle="--", linewidth=1)
                ax.text(0, floor, " memcpy %s" % fmt(floor), fontsize=7, va="bottom",
                        color="grey")
            ax.set_yscale("log")
            ax.set_xticks(ticks)
            ax.set_xticklabels(tick_labels, fontsize=6, rotation=90)
            ax.set_title("%s, %d thread%s" % (depth_label, threads, "s" if threads > 1 else ""),
                         fontsize=10)
            if col == 0:
                ax.set_ylabel("Mpix/s (log scale)")
            ax.grid(axis="y", which="both", alpha=0.3)
    handles = [plt.Rectangle((0, 0), 1, 1, color=colours[t]) for t in ["ours"] + PEERS]
    fig.suptitle("Remove, %s: median Mpix/s per filter, log scale (OpenCV: map + remap; "
                 "ImageMagick: Q16 at every depth; dashed: memcpy of the frame)" % size,
                 y=0.99, fontsize=11)
    fig.legend(handles, [TOOL_NAMES[t] for t in ["ours"] + PEERS], loc="upper center", ncol=5,
               fontsize=9, bbox_to_anchor=(0.5, 0.96))
    fig.tight_layout(rect=(0, 0.02, 1, 0.92), h_pad=3.0)
    fig.savefig(path, dpi=110)
    plt.close(fig)
    return ChartResult(True)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--results", required=True)
    parser.add_argument("--meta", required=True)
    parser.add_argument("--markdown", required=True)
    parser.add_argument("--chart", required=True)
    args = parser.parse_args()
    results = Results(args.results)
    meta = read_meta(args.meta)
    os.makedirs(os.path.dirname(os.path.abspath(args.markdown)), exist_ok=True)
    chart = write_chart(results, args.chart)
    write_markdown(results, meta, args.markdown, os.path.basename(args.chart), chart)
    print("report: wrote %s%s" % (args.markdown, " and " + args.chart if chart else ""))
    return 0


if __name__ == "__main__":
    sys.exit(main())
