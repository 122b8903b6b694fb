// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// What every benchmark on the virtual desk needs: to run under umockdev's preload, and percentiles of its samples.

#include <vector>

namespace BenchSupport {

// Starts this program again under umockdev-wrapper (with the same arguments) unless umockdev's preload is already
// in; exits with status 1 when it cannot. ASan is told not to mind the preload coming first.
void reexecUnderUmockdev(char** argv);

// The p-th percentile (0..100) of `values`, nearest rank; 0 for no values.
double percentile(std::vector<double> values, double p);

}  // namespace BenchSupport
