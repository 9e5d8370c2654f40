// The BSDF data record: the data dictionary from which every legacy BSDF reads its
// parameters on Init and Update. A missing value, or a value of another type, reads as
// null or 0.0 (the refractive indices as 1.0), so a renderer fills only what its model
// uses. Keys and the type each is read as:
//
// | key (net.kelvo.render.bsdfdata.)  | type    | read by                                    |
// |-----------------------------------|---------|--------------------------------------------|
// | beckmanntable, ggxtable, wardtable| table   | the distribution of that kind              |
// | roughness                         | double  | every microfacet distribution              |
// | anisotropy                        | double  | anisotropic classes (1 - anisotropy scales v) |
// | rotation                          | double  | anisotropic classes, radians from x to y   |
// | orennayarsigma                    | double  | Oren-Nayar sigma, as it stands             |
// | simplemodel                       | bool    | Oren-Nayar: the simple model               |
// | iorout, iorin                     | double  | transmission classes (outside, inside)     |
// | blurrytable                       | table   | blurry simple lobe (any distribution table)|
// | blurrydensityrow, blurrysamplingrow| int64  | its rows: 2000 x level, 1000 x level       |
// | blurryexponent                    | double  | blurry simple n / blurry specular exponent |
// | blurrysamplingexponent            | double  | blurry simple s                            |
// | curvepower, anglescale, curveexponent, curvefactor, angleslope, angleoffset,         |
// |   cosinethreshold                 | double  | blurry specular curve                      |
// | mirrormode, curvemode             | bool    | blurry specular                            |
// | clothpattern                      | string  | cloth: weave pattern name                  |
// | texturecoordinate                 | Vec2    | cloth: (s, t) of the shading point         |
// | clothrepeat                       | Vec2    | cloth: tiles across [0, 1] of s and t      |
// | warpdiffuse, warpspecular, weftdiffuse, weftspecular | double | cloth yarn weights  |
//
// The cloth model without a pattern returns the warp's diffuse weight alone; a repeat
// component that is not positive counts as 1. Patterns: denim, shantung, charmeuse, twill,
// gabardine, polyester (clothweavepattern.h).
//
// A table is the address of the first float of a distribution table
// (MicrofacetDistributionCachesInterface::GetCache), stored as an int64; 0 means none.
#pragma once

#include <cstdint>

#include "kelvo/data.h"
#include "kelvo/id.h"
#include "kelvo/legacy_renderers/microfacetdistributioncaches.h"

namespace kelvo::bsdfdata {

inline constexpr Id kBeckmannTable("net.kelvo.render.bsdfdata.beckmanntable");
inline constexpr Id kGgxTable("net.kelvo.render.bsdfdata.ggxtable");
inline constexpr Id kWardTable("net.kelvo.render.bsdfdata.wardtable");
inline constexpr Id kRoughness("net.kelvo.render.bsdfdata.roughness");
inline constexpr Id kAnisotropy("net.kelvo.render.bsdfdata.anisotropy");
inline constexpr Id kRotation("net.kelvo.render.bsdfdata.rotation");
inline constexpr Id kOrenNayarSigma("net.kelvo.render.bsdfdata.orennayarsigma");
inline constexpr Id kSimpleModel("net.kelvo.render.bsdfdata.simplemodel");
inline constexpr Id kIorOut("net.kelvo.render.bsdfdata.iorout");
inline constexpr Id kIorIn("net.kelvo.render.bsdfdata.iorin");
inline constexpr Id kBlurryTable("net.kelvo.render.bsdfdata.blurrytable");
inline constexpr Id kBlurryDensityRow("net.kelvo.render.bsdfdata.blurrydensityrow");
inline constexpr Id kBlurrySamplingRow("net.kelvo.render.bsdfdata.blurrysamplingrow");
inline constexpr Id kBlurryExponent("net.kelvo.render.bsdfdata.blurryexponent");
inline constexpr Id kBlurrySamplingExponent("net.kelvo.render.bsdfdata.blurrysamplingexponent");
inline constexpr Id kCurvePower("net.kelvo.render.bsdfdata.curvepower");
inline constexpr Id kAngleScale("net.kelvo.render.bsdfdata.anglescale");
inline constexpr Id kCurveExponent("net.kelvo.render.bsdfdata.curveexponent");
inline constexpr Id kCurveFactor("net.kelvo.render.bsdfdata.curvefactor");
inline constexpr Id kAngleSlope("net.kelvo.render.bsdfdata.angleslope");
inline constexpr Id kAngleOffset("net.kelvo.render.bsdfdata.angleoffset");
inline constexpr Id kCosineThreshold("net.kelvo.render.bsdfdata.cosinethreshold");
inline constexpr Id kMirrorMode("net.kelvo.render.bsdfdata.mirrormode");
inline constexpr Id kCurveMode("net.kelvo.render.bsdfdata.curvemode");
inline constexpr Id kClothPattern("net.kelvo.render.bsdfdata.clothpattern");
inline constexpr Id kTextureCoordinate("net.kelvo.render.bsdfdata.texturecoordinate");
inline constexpr Id kClothRepeat("net.kelvo.render.bsdfdata.clothrepeat");
inline constexpr Id kWarpDiffuse("net.kelvo.render.bsdfdata.warpdiffuse");
inline constexpr Id kWarpSpecular("net.kelvo.render.bsdfdata.warpspecular");
inline constexpr Id kWeftDiffuse("net.kelvo.render.bsdfdata.weftdiffuse");
inline constexpr Id kWeftSpecular("net.kelvo.render.bsdfdata.weftspecular");

enum class KEYTYPE : uint8_t { TABLE, DOUBLE, INT, BOOL, STRING, VEC2 };
struct KeyInfo {
    Id key;
    KEYTYPE type;
};
// Every key with the type it is read as, for tools that fill records from text.
inline constexpr KeyInfo kKeys[] = {
    {kBeckmannTable, KEYTYPE::TABLE},
    {kGgxTable, KEYTYPE::TABLE},
    {kWardTable, KEYTYPE::TABLE},
    {kRoughness, KEYTYPE::DOUBLE},
    {kAnisotropy, KEYTYPE::DOUBLE},
    {kRotation, KEYTYPE::DOUBLE},
    {kOrenNayarSigma, KEYTYPE::DOUBLE},
    {kSimpleModel, KEYTYPE::BOOL},
    {kIorOut, KEYTYPE::DOUBLE},
    {kIorIn, KEYTYPE::DOUBLE},
    {kBlurryTable, KEYTYPE::TABLE},
    {kBlurryDensityRow, KEYTYPE::INT},
    {kBlurrySamplingRow, KEYTYPE::INT},
    {kBlurryExponent, KEYTYPE::DOUBLE},
    {kBlurrySamplingExponent, KEYTYPE::DOUBLE},
    {kCurvePower, KEYTYPE::DOUBLE},
    {kAngleScale, KEYTYPE::DOUBLE},
    {kCurveExponent, KEYTYPE::DOUBLE},
    {kCurveFactor, KEYTYPE::DOUBLE},
    {kAngleSlope, KEYTYPE::DOUBLE},
    {kAngleOffset, KEYTYPE::DOUBLE},
    {kCosineThreshold, KEYTYPE::DOUBLE},
    {kMirrorMode, KEYTYPE::BOOL},
    {kCurveMode, KEYTYPE::BOOL},
    {kClothPattern, KEYTYPE::STRING},
    {kTextureCoordinate, KEYTYPE::VEC2},
    {kClothRepeat, KEYTYPE::VEC2},
    {kWarpDiffuse, KEYTYPE::DOUBLE},
    {kWarpSpecular, KEYTYPE::DOUBLE},
    {kWeftDiffuse, KEYTYPE::DOUBLE},
    {kWeftSpecular, KEYTYPE::DOUBLE},
};

// The table stored under key, or null. The record holds the address as an integer.
inline float* GetTable(const DataDictionary& data, const Id& key) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    return reinterpret_cast<float*>(static_cast<intptr_t>(data.Get<int64_t>(key, 0)));
}
inline Result<void> SetTable(DataDictionary& data, const Id& key, const float* table) {
    return data.Set(key, static_cast<int64_t>(reinterpret_cast<intptr_t>(table)));
}
// Hands the caches' Beckmann, GGX and Ward tables to the models (null tables when
// `caches` is null or holds no block). Fails only when memory runs out.
inline Result<void> SetDistributionTables(DataDictionary& data,
                                          const MicrofacetDistributionCachesInterface* caches) {
    auto table = [&](int32_t kind) { return caches ? caches->GetCache(kind) : nullptr; };
    KELVO_TRY(SetTable(data, kBeckmannTable, table(DISTRIBUTIONKIND_BECKMANN)));
    KELVO_TRY(SetTable(data, kGgxTable, table(DISTRIBUTIONKIND_GGX)));
    return SetTable(data, kWardTable, table(DISTRIBUTIONKIND_WARD));
}

}  // namespace kelvo::bsdfdata
