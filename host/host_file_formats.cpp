// The host's file formats (PNG, TIFF, OpenEXR) as entries of the file-format registries:
// format, handler, import and export classes made from each format's description.
#include <charconv>
#include <cstring>
#include <vector>

#include "imagefiles.h"
#include "kelvo/config.h"
#include "kelvo/io.h"
#include "kelvo/mediasession_output.h"
#include "kelvo/registry.h"

namespace kelvo::host {
namespace {

// Format, handler, import and export classes of one host format, from its description.
template <const detail::HostFileFormat& F>
class HostFormat final : public Implements<FileFormatInterface> {
public:
    Result<bool> Detect(const Url& url) const override {
        uint8_t head[16] = {};
        KELVO_ASSIGN_OR_RETURN(StrongRef<InputStream> in, OpenInputStream(url));
        size_t got = 0;
        while (got < sizeof head) {
            KELVO_ASSIGN_OR_RETURN(size_t n, in->Read(head + got, sizeof head - got));
            if (n == 0) break;
            got += n;
        }
        return F.detect(head, got);
    }
    bool MatchesSuffix(const Url& url) const override {
        for (const char* s : F.suffixes)
            if (s && CheckSuffix(url, s)) return true;
        return false;
    }
    std::string_view GetName() const override { return F.name; }
};

template <const detail::HostFileFormat& F>
class HostHandler final : public Implements<FileFormatHandlerInterface> {
public:
    Id GetFileFormat() const override { return Id::Unchecked(F.formatId); }
    Id GetImportClass() const override { return Id::Unchecked(F.importId); }
    Id GetExportClass() const override { return Id::Unchecked(F.exportId); }
};

Result<std::filesystem::path> FilePath(const Url& url) {
    std::filesystem::path p = LocalPath(url);
    if (p.empty()) return IoError(KELVO_HERE, url.ToString(), "Cannot open @.", url.ToString());
    return p;
}

template <const detail::HostFileFormat& F>
class HostImport final : public Implements<MediaImportInterface, MediaInfoInterface> {
public:
    Result<StrongRef<ImageInterface>> Import(const Url& url) override {
        KELVO_ASSIGN_OR_RETURN(auto path, FilePath(url));
        return CatchOutOfMemory([&] { return F.read(path, url.ToString()); });
    }
    Result<ImageInfo> ReadInfo(const Url& url) override {
        KELVO_ASSIGN_OR_RETURN(auto path, FilePath(url));
        return CatchOutOfMemory([&] { return F.info(path, url.ToString()); });
    }
};

template <const detail::HostFileFormat& F>
class HostExport final : public Implements<MediaExportInterface> {
public:
    Result<void> Export(const Url& url, const ImageInterface& image,
                        const DataDictionary& options) override {
        KELVO_ASSIGN_OR_RETURN(auto path, FilePath(url));
        if (image.GetLayerCount() < 1)
            return IllegalArgumentError(KELVO_HERE, "The image has no layer to write.");
        return CatchOutOfMemory([&] { return F.write(path, url.ToString(), image, options); });
    }
};

EntryRecord MakeEntry(const char* id, Id registry, Id kind, CreateFunction create) {
    EntryRecord e;
    e.kind = ENTRYKIND::CLASS;
    e.idText = id;
    e.idSize = std::strlen(id);
    e.idHash = kelvo::detail::HashText({id, e.idSize});
    e.registry = registry;
    e.kindId = kind;
    e.source = KELVO_HERE;
    e.create = create;
    return e;
}

const ConfigVariable kMaxImageBytesConfig{
    detail::kMaxImageBytesVariable, CONFIGTYPE::STRING, "1073741824", false,
    "Most bytes of pixels one picture file may take across its pages and layers"};

template <const detail::HostFileFormat& F>
void InsertFormat(std::vector<EntryRecord>& out) {
    out.push_back(MakeEntry(F.formatId, kFileFormatsRegistry, FileFormatInterface::InterfaceId(),
                            &CreateInstance<HostFormat<F>>));
    out.push_back(MakeEntry(F.handlerId, kFileFormatHandlersRegistry,
                            FileFormatHandlerInterface::InterfaceId(),
                            &CreateInstance<HostHandler<F>>));
    out.push_back(MakeEntry(F.importId, Id(), MediaImportInterface::InterfaceId(),
                            &CreateInstance<HostImport<F>>));
    out.push_back(MakeEntry(F.exportId, Id(), MediaExportInterface::InterfaceId(),
                            &CreateInstance<HostExport<F>>));
}

}  // namespace

namespace detail {
Result<uint64_t> ParseMaxImageBytes(std::string_view text) {
    uint64_t value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || value == 0)
        return IllegalArgumentError(
            KELVO_HERE, "Value '@' is not a number of bytes for @ (a whole number from 1 to @).",
            text, kMaxImageBytesVariable, UINT64_MAX);
    return value;
}

uint64_t MaxImageBytes() {
    Result<std::string> text = ConfigGetString(kMaxImageBytesVariable);
    if (!text) return kDefaultMaxImageBytes;
    Result<uint64_t> value = ParseMaxImageBytes(*text);
    return value ? *value : kDefaultMaxImageBytes;  // ConfigSet refuses such values
}

void RegisterHostFileFormats() {
    static std::vector<EntryRecord>* entries = [] {
        auto* list = new std::vector<EntryRecord>();  // lives as long as the registries
        InsertFormat<kPngFormat>(*list);
        InsertFormat<kTiffFormat>(*list);
        InsertFormat<kExrFormat>(*list);
        EntryRecord limit = MakeEntry(kMaxImageBytesConfig.name, Id(), Id(), nullptr);
        limit.kind = ENTRYKIND::CONFIGVARIABLE;
        limit.payload = &kMaxImageBytesConfig;
        list->push_back(limit);
        return list;
    }();
    for (EntryRecord& e : *entries) {
        Result<void> r = InsertEntry(e);
        (void)r;  // host ids are unique; a module cannot have claimed them yet
    }
}
}  // namespace detail

}  // namespace kelvo::host
