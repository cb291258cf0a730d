// One fuzz input through the whole effect: the input's bytes become the nine parameter values,
// an input image and an output request; the effect then runs global setup, parameter setup,
// sequence setup, pre-render and render through its entry point and the substitute host.
//
// The same function serves the libFuzzer program (fuzz/FuzzMain.cpp) and the replay test
// (tests/fuzz/ReplayTest.cpp), so every input the fuzzer ever kept or crashed on can be run
// again under the normal compiler.
#ifndef VT_FUZZ_FUZZHARNESS_H
#define VT_FUZZ_FUZZHARNESS_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace vtfuzz {

// Runs one input. Returns an empty string when every check held, otherwise a description of
// the first check that failed. Crashes and sanitizer reports are not caught: they end the
// process, which is how the fuzzer sees them.
std::string RunOneInput(const uint8_t* data, size_t size);

// What an input decodes to, as one line of text (for naming regressions and for reports).
std::string DescribeInput(const uint8_t* data, size_t size);

}  // namespace vtfuzz

#endif
