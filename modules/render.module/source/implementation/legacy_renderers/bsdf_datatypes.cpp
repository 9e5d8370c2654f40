// The value type a renderer keeps to reuse one SampleF result.
#include "kelvo/datatype.h"
#include "kelvo/entry.h"
#include "kelvo/legacy_renderers/bsdf_legacy.h"

namespace kelvo::legacy {
namespace {

const DataType s_cachedSampleType{Id("net.kelvo.render.bsdfcachedsample"), DATATYPEFLAGS_POD,
                                  MakeDataTypeOps<BsdfCachedSample>()};
KELVO_ENTRY(s_cachedSample, ENTRYKIND::DATATYPE, "net.kelvo.render.bsdfcachedsample",
            Id("net.kelvo.registry.datatypes"), Id(), &s_cachedSampleType, nullptr);

}  // namespace
}  // namespace kelvo::legacy
