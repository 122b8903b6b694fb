// SPDX-License-Identifier: GPL-3.0-or-later
#include "bench/support/BenchSupport.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace BenchSupport {

void reexecUnderUmockdev(char** argv)
{
    const char* preload = std::getenv("LD_PRELOAD");
    if (preload != nullptr && std::strstr(preload, "libumockdev-preload") != nullptr) {
        return;
    }
    std::string asan = std::getenv("ASAN_OPTIONS") != nullptr ? std::getenv("ASAN_OPTIONS") : "";
    setenv("ASAN_OPTIONS", (asan.empty() ? "" : asan + ":").append("verify_asan_link_order=0").c_str(), 1);
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0) {
        std::perror("/proc/self/exe");
        std::exit(1);
    }
    self[length] = '\0';
    std::vector<char*> args{const_cast<char*>("umockdev-wrapper"), self};
    for (char** a = argv + 1; *a != nullptr; ++a) {
        args.push_back(*a);
    }
    args.push_back(nullptr);
    execvp("umockdev-wrapper", args.data());
    std::perror("umockdev-wrapper");
    std::exit(1);
}

double percentile(std::vector<double> values, double p)
{
    if (values.empty()) {
        return 0.0;
    }
    std::sort(values.begin(), values.end());
    const auto rank = static_cast<std::size_t>(std::ceil(p / 100.0 * static_cast<double>(values.size())));
    return values[std::min(values.size() - 1, rank == 0 ? 0 : rank - 1)];
}

}  // namespace BenchSupport
