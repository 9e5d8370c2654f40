// Helpers shared by the IES suites: parse text or a file into a fresh profile.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "kelvo/ies.h"
#include "kelvo/memorystream.h"
#include "kelvo/registry.h"

namespace kelvo::testing_ies {

inline StrongRef<IesInterface> NewProfile() {
    auto made = CreateComponent<IesInterface>();
    EXPECT_TRUE(made.Ok()) << made.GetError().Message();
    return made.Ok() ? *made : nullptr;
}

// Parses text; the result of Init and the profile (kept after a failure, as callers see it).
struct Parsed {
    Result<void> result;
    StrongRef<IesInterface> ies;
};
inline Parsed ParseText(std::string text, size_t maxRead = 0) {
    StrongRef<IesInterface> ies = NewProfile();
    auto stream = MemoryInputStream::Make(std::move(text), maxRead);
    return {ies->Init(*stream), ies};
}

inline std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// The direction at vertical angle θ (from the nadir, -z) and horizontal angle φ (from +y
// towards +x), both in degrees.
inline Vec3 Direction(double thetaDeg, double phiDeg) {
    double t = thetaDeg * M_PI / 180.0, p = phiDeg * M_PI / 180.0;
    return {std::sin(t) * std::sin(p), std::sin(t) * std::cos(p), -std::cos(t)};
}

}  // namespace kelvo::testing_ies
