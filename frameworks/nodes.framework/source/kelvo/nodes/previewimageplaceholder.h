// Placeholder images shown where no preview of a material can be made.
#pragma once

#include "kelvo/id.h"
#include "kelvo/imagetexture.h"
#include "kelvo/nodes/previewimage.h"
#include "kelvo/object.h"
#include "kelvo/result.h"

namespace kelvo::nodes {

class PreviewImagePlaceholderInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.interface.previewimageplaceholder"); }

    // The texture to show for a reason (kPlaceholderNoSpace, kPlaceholderNoMaterialEndNode,
    // kPlaceholderError). The texture is loaded once, on first demand; it stays valid while
    // the module that made it is loaded. A missing or unreadable icon gives the loader's
    // error for that reason only; another id fails with "Illegal argument: Unknown preview
    // image placeholder @.".
    virtual Result<ImageTextureRef> GetPlaceholder(const Id& reason) = 0;
};

}  // namespace kelvo::nodes
