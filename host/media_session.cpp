// The media session: detects a file's format and imports or exports images through the
// file-format registries, whichever module registered the format.
#include "host.h"
#include "kelvo/io.h"
#include "kelvo/mediasession_output.h"
#include "kelvo/registry.h"

namespace kelvo::host {
namespace {

Result<Id> DetectFileFormatSlot(const Url& url) {
    for (const EntryRecord* e : RegistryMembers(kFileFormatsRegistry)) {
        if (e->kind != ENTRYKIND::CLASS || e->kindId != FileFormatInterface::InterfaceId())
            continue;
        KELVO_ASSIGN_OR_RETURN(StrongRef<FileFormatInterface> format,
                               CreateClass<FileFormatInterface>(e->GetId()));
        KELVO_ASSIGN_OR_RETURN(bool found, format->Detect(url));
        if (found) return e->GetId();
    }
    return Id();
}

// The first handler of the format with an import (or export) step; empty when none.
Result<StrongRef<FileFormatHandlerInterface>> FindHandler(const Id& format, bool import) {
    for (const EntryRecord* e : RegistryMembers(kFileFormatHandlersRegistry)) {
        if (e->kind != ENTRYKIND::CLASS || e->kindId != FileFormatHandlerInterface::InterfaceId())
            continue;
        KELVO_ASSIGN_OR_RETURN(auto h, CreateClass<FileFormatHandlerInterface>(e->GetId()));
        if (h->GetFileFormat() != format) continue;
        if (!(import ? h->GetImportClass() : h->GetExportClass()).IsEmpty()) return h;
    }
    return StrongRef<FileFormatHandlerInterface>();
}

Result<StrongRef<ImageInterface>> ImportImageSlot(const Url& url) {
    KELVO_ASSIGN_OR_RETURN(Id format, DetectFileFormatSlot(url));
    if (format.IsEmpty())
        return UnsupportedArgumentError(KELVO_HERE, "No file format recognises @.", url.ToString());
    KELVO_ASSIGN_OR_RETURN(auto handler, FindHandler(format, true));
    if (!handler)
        return UnsupportedArgumentError(KELVO_HERE, "No file format handler imports @.", format);
    KELVO_ASSIGN_OR_RETURN(auto step, CreateClass<MediaImportInterface>(handler->GetImportClass()));
    KELVO_ASSIGN_OR_RETURN(StrongRef<ImageInterface> image, step->Import(url));
    if (!image || image->GetLayerCount() < 1)
        return UnexpectedError(KELVO_HERE, "The import of @ gave no image.", url.ToString());
    KELVO_TRY(image->SetProperty(kImagePropertyFileFormat, format));
    KELVO_TRY(image->SetProperty(kImagePropertyUrl, url));
    return image;
}

Result<void> ExportImageSlot(const Url& url, const ImageInterface& image, const Id& format,
                             const DataDictionary& options) {
    Id chosen = format;
    if (chosen.IsEmpty()) {
        for (const EntryRecord* e : RegistryMembers(kFileFormatsRegistry)) {
            if (e->kind != ENTRYKIND::CLASS || e->kindId != FileFormatInterface::InterfaceId())
                continue;
            KELVO_ASSIGN_OR_RETURN(auto f, CreateClass<FileFormatInterface>(e->GetId()));
            if (!f->MatchesSuffix(url)) continue;
            KELVO_ASSIGN_OR_RETURN(auto writer, FindHandler(e->GetId(), false));
            if (writer) {
                chosen = e->GetId();
                break;
            }
        }
    }
    StrongRef<FileFormatHandlerInterface> handler;
    if (!chosen.IsEmpty()) {
        KELVO_ASSIGN_OR_RETURN(handler, FindHandler(chosen, false));
    }
    if (!handler)
        return UnsupportedArgumentError(
            KELVO_HERE, "No file format writes @.",
            format.IsEmpty() ? url.ToString() : std::string(format.Text()));
    KELVO_ASSIGN_OR_RETURN(auto step, CreateClass<MediaExportInterface>(handler->GetExportClass()));
    return step->Export(url, image, options);
}

}  // namespace

namespace detail {
void FillMediaSessionSlots(KelvoHostSlots& slots) {
    slots.DetectFileFormat = &DetectFileFormatSlot;
    slots.ImportImage = &ImportImageSlot;
    slots.ExportImage = &ExportImageSlot;
}
}  // namespace detail

}  // namespace kelvo::host
