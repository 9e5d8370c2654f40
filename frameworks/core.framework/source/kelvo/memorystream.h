// An input stream over bytes held in memory: text a program made itself, a file read
// ahead, or test input. Header-only; it needs no host service.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>

#include "kelvo/allocator.h"
#include "kelvo/io.h"

namespace kelvo {

class MemoryInputStream final : public Implements<InputStream> {
public:
    // Copies `bytes`. A `maxRead` above 0 limits the bytes one Read returns, so that
    // readers can be tested on streams that deliver their data in small pieces.
    explicit MemoryInputStream(std::string bytes, size_t maxRead = 0)
        : _bytes(std::move(bytes)), _maxRead(maxRead) {}

    Result<size_t> Read(void* buffer, size_t size) override {
        size_t n = std::min(size, _bytes.size() - _pos);
        if (_maxRead > 0) n = std::min(n, _maxRead);
        if (n > 0) std::memcpy(buffer, _bytes.data() + _pos, n);
        _pos += n;
        return n;
    }
    int64_t Length() const override { return static_cast<int64_t>(_bytes.size()); }

    // A new stream over a copy of `bytes`, allocated through the framework allocator.
    static Result<StrongRef<InputStream>> Make(std::string bytes, size_t maxRead = 0) {
        auto made = NewObject<MemoryInputStream>(std::move(bytes), maxRead);
        if (!made) return made.GetError();
        return StrongRef<InputStream>(std::move(made).Value());
    }

private:
    std::string _bytes;
    size_t _maxRead;
    size_t _pos = 0;
};

}  // namespace kelvo
