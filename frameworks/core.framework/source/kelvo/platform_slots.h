// Binding slots of the text lexer, the pseudo-random generator and the processor
// feature query. Declared here once; binding.h appends the list to the record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace kelvo {
class InputStream;
class LexerInterface;
struct RandomState;
}  // namespace kelvo

#define KELVO_PLATFORM_SLOTS(X)                                                      \
    X(::kelvo::Result<std::shared_ptr<::kelvo::LexerInterface>>, CreateLexer,        \
      (const std::shared_ptr<::kelvo::InputStream>& stream))                         \
    X(void, RandomSeed, (::kelvo::RandomState & state, uint64_t seed))               \
    X(uint64_t, RandomNext, (::kelvo::RandomState & state))                          \
    X(void, RandomFill01, (::kelvo::RandomState & state, double* out, size_t count)) \
    X(uint32_t, CpuFeatures, ())
