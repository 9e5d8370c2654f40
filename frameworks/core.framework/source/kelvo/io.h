// Input streams over urls.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kelvo/object.h"
#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo {

class InputStream : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.interface.inputstream"); }
    // Reads up to `size` bytes; 0 at the end. I/O failures carry the stream's url.
    virtual Result<size_t> Read(void* buffer, size_t size) = 0;
    // Total length in bytes, when known; -1 otherwise.
    virtual int64_t Length() const = 0;
};

// Opens a url for reading. Fails with the I/O error "Cannot open @: @." naming the url and
// the reason (no such file, a directory, permission denied, ...).
inline Result<StrongRef<InputStream>> OpenInputStream(const Url& url) {
    return g_kelvo.host.OpenInputStream(url);
}

}  // namespace kelvo
